// The text of a record: headers, arguments, locals and `this` of each frame, and its delivery.
#include <limits>

#include "exceptionTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

const captureSettings kVariables{.methodArguments = true, .localVariables = true};

class exceptionRecord : public exceptionTest {
 protected:
  // The only frame's line for a location and a table.
  std::string lineFor(jlocation location, std::optional<std::vector<fake::line>> table) {
    fake::frame frame = frameOf("com.example.Shop.buy");
    frame.location = location;
    frame.code->lines = std::move(table);
    return topOf({frame}).header;
  }
  // The entry of one local.
  std::string localOf(const std::string& signature, const fake::value& value) {
    return topOf({frameOf("com.example.Shop.buy", {}, {{"v", signature, value}})}).locals;
  }
  std::string argumentOf(const std::string& signature, const fake::value& value) {
    return topOf({frameOf("com.example.Shop.buy", {{"v", signature, value}})}).arguments;
  }
  std::string textOfLocal(std::string_view text) {
    return localOf("Ljava/lang/String;", vm.makeString(text));
  }
};

// --- The whole of it.

TEST_F(exceptionRecord, oneFrameWithAnArgumentAndALocal) {
  begin(kVariables);
  EXPECT_EQ(recordOf({frameOn(vm.makeObject("com.example.Shop"), "buy", {{"qty", "I", jint{3}}},
                              {{"name", "Ljava/lang/String;", vm.makeString("pen")}})}),
            "com.example.Shop.buy(Shop.java:42)%40%41%42qty%3A4%3A3%2C%43name%3A7%3Apen%2C%44");
}

TEST_F(exceptionRecord, framesFollowFromTheTopDown) {
  begin(kVariables);
  EXPECT_EQ(recordOf({frameOf("a.Top.one", {{"x", "I", jint{1}}}),
                      frameOf("b.Mid.two", {}, {{"y", "J", jlong{-2}}}), frameOf("c.End.three")}),
            "a.Top.one(Top.java:42)%40%41%42x%3A4%3A1%2C%43%44%7C"
            "b.Mid.two(Mid.java:42)%40%41%42%43y%3A5%3A-2%2C%44%7C"
            "c.End.three(End.java:42)%40%41%42%43%44");
}

TEST_F(exceptionRecord, allFourSectionsOfTheTopFrame) {
  begin({.classVariables = true, .methodArguments = true, .localVariables = true});
  fake::object* const shop =
      objectWith("com.example.Shop", {{"open", "Z", jboolean{1}}, {"sold", "I", jint{7}}});
  EXPECT_EQ(recordOf({frameOn(shop, "buy", {{"qty", "I", jint{3}}}, {{"n", "I", jint{4}}})}),
            "com.example.Shop.buy(Shop.java:42)%40%41"
            "open%3A0%3A1%2Csold%3A4%3A7%42qty%3A4%3A3%2C%43n%3A4%3A4%2C%44");
}

TEST_F(exceptionRecord, withoutAnythingToCaptureOnlyHeadersAreWritten) {
  begin();
  vm.resetCalls();
  EXPECT_EQ(recordOf({frameOf("a.A.m", {{"x", "I", jint{1}}}, {{"y", "I", jint{2}}})}),
            "a.A.m(A.java:42)%40%41%42%43%44");
  EXPECT_EQ(vm.calls("GetLocalInt"), 0U);
  EXPECT_EQ(vm.calls("GetLocalObject"), 0U);
}

// --- Values of each kind.

TEST_F(exceptionRecord, everyKindOfLocalHasItsCode) {
  begin(kVariables);
  EXPECT_EQ(localOf("Z", jint{1}), "v%3A0%3A1%2C");
  EXPECT_EQ(localOf("Z", jint{0}), "v%3A0%3A0%2C");
  EXPECT_EQ(localOf("C", jint{'A'}), "v%3A1%3A65%2C");
  EXPECT_EQ(localOf("C", jint{0xFFFF}), "v%3A1%3A65535%2C");
  EXPECT_EQ(localOf("B", jint{-128}), "v%3A2%3A-128%2C");
  EXPECT_EQ(localOf("S", jint{-32768}), "v%3A3%3A-32768%2C");
  EXPECT_EQ(localOf("I", jint{std::numeric_limits<jint>::min()}), "v%3A4%3A-2147483648%2C");
  EXPECT_EQ(localOf("J", jlong{std::numeric_limits<jlong>::min()}),
            "v%3A5%3A-9223372036854775808%2C");
  EXPECT_EQ(localOf("D", jdouble{2.5}), "v%3A6%3A2.500000%2C");
  EXPECT_EQ(localOf("Ljava/lang/String;", vm.makeString("pen")), "v%3A7%3Apen%2C");
  EXPECT_EQ(localOf("Ljava/lang/StringBuilder;", builder("ink")), "v%3A8%3Aink%2C");
  EXPECT_EQ(localOf("F", jfloat{-0.5F}), "v%3A9%3A-0.500000%2C");
}

TEST_F(exceptionRecord, everyKindOfArgumentHasItsCode) {
  begin(kVariables);
  EXPECT_EQ(argumentOf("Z", jint{1}), "v%3A0%3A1%2C");
  EXPECT_EQ(argumentOf("C", jint{'A'}), "v%3A1%3A65%2C");
  EXPECT_EQ(argumentOf("B", jint{-1}), "v%3A2%3A-1%2C");
  EXPECT_EQ(argumentOf("S", jint{2}), "v%3A3%3A2%2C");
  EXPECT_EQ(argumentOf("I", jint{3}), "v%3A4%3A3%2C");
  EXPECT_EQ(argumentOf("J", jlong{4}), "v%3A5%3A4%2C");
  EXPECT_EQ(argumentOf("D", jdouble{-1.25}), "v%3A6%3A-1.250000%2C");
  EXPECT_EQ(argumentOf("Ljava/lang/String;", vm.makeString("")), "v%3A7%3A%2C");
  EXPECT_EQ(argumentOf("Ljava/lang/StringBuilder;", builder("ink")), "v%3A8%3Aink%2C");
  EXPECT_EQ(argumentOf("F", jfloat{8}), "v%3A9%3A8.000000%2C");
}

TEST_F(exceptionRecord, objectsAreWrittenWithTheirFields) {
  begin(kVariables);
  fake::object* const cart = objectWith("com.example.Cart", {{"items", "I", jint{2}}});
  EXPECT_EQ(argumentOf("Lcom/example/Cart;", cart), "!%23v%3A10%3Aitems%3A4%3A2%2C!%23%2C");
  EXPECT_EQ(localOf("Lcom/example/Cart;", cart), "!%23v%3A10%3Aitems%3A4%3A2%2C!%23%2C");
}

TEST_F(exceptionRecord, anObjectWithoutFieldsHasAnEmptyText) {
  begin(kVariables);
  EXPECT_EQ(localOf("Ljava/lang/Object;", vm.makeObject("java.lang.Object")),
            "!%23v%3A10%3A!%23%2C");
}

TEST_F(exceptionRecord, arraysAreWrittenWithTheirLength) {
  begin(kVariables);
  EXPECT_EQ(localOf("[I", vm.makeArray("[I", {nullptr, nullptr, nullptr})),
            "!%23v%3A10%3Alength%3A4%3A3%2C!%23%2C");
  EXPECT_EQ(argumentOf("[Ljava/lang/String;", vm.makeArray("[Ljava.lang.String;", {})),
            "!%23v%3A10%3Alength%3A4%3A0%2C!%23%2C");
  EXPECT_EQ(localOf("Ljava/lang/Object;", vm.makeArray("[[J", {nullptr})),
            "!%23v%3A10%3Alength%3A4%3A1%2C!%23%2C")
      << "declared as an object";
}

TEST_F(exceptionRecord, nullReferencesHaveTheNullForm) {
  begin(kVariables);
  fake::object* const none = nullptr;
  for (const char* signature : {"Lcom/example/Cart;", "[I", "[[Lx/Y;", "Ljava/lang/String;",
                                "Ljava/lang/StringBuilder;", "Ljava/lang/Object;"}) {
    EXPECT_EQ(localOf(signature, none), "!%23v%3A10%3ANULL!%23%2C") << signature;
    EXPECT_EQ(argumentOf(signature, none), "!%23v%3A10%3ANULL!%23%2C") << signature;
  }
}

TEST_F(exceptionRecord, otherTextTypesAreObjects) {
  begin(kVariables);
  EXPECT_EQ(localOf("Ljava/lang/StringBuffer;", objectWith("java.lang.StringBuffer", {})),
            "!%23v%3A10%3A!%23%2C");
  EXPECT_EQ(localOf("Ljava/lang/CharSequence;", builder("ink")), "!%23v%3A10%3A!%23%2C");
}

TEST_F(exceptionRecord, floatingPointValuesAreWrittenInFull) {
  begin(kVariables);
  EXPECT_EQ(localOf("D", jdouble{0.1}), entry("v", 6, "0.100000"));
  EXPECT_EQ(localOf("D", jdouble{-0.0}), entry("v", 6, "-0.000000"));
  EXPECT_EQ(localOf("D", jdouble{1e-9}), entry("v", 6, "0.000000"));
  EXPECT_EQ(localOf("D", std::numeric_limits<jdouble>::infinity()), entry("v", 6, "inf"));
  EXPECT_EQ(localOf("D", -std::numeric_limits<jdouble>::infinity()), entry("v", 6, "-inf"));
  EXPECT_EQ(localOf("D", std::numeric_limits<jdouble>::quiet_NaN()), entry("v", 6, "nan"));
  EXPECT_EQ(localOf("F", jfloat{16777216}), entry("v", 9, "16777216.000000"));
  const std::string largest = localOf("D", std::numeric_limits<jdouble>::max());
  EXPECT_EQ(largest.size(), std::string("v%3A6%3A%2C").size() + 309 + 7);
  EXPECT_THAT(largest, StartsWith("v%3A6%3A17976931348623157"));
}

// --- Long texts.

TEST_F(exceptionRecord, aStringOf300CharactersIsCutTo256) {
  begin(kVariables);
  const std::string text = repeated("0123456789", 30);
  EXPECT_EQ(textOfLocal(text), entry("v", 7, text.substr(0, 256)));
  EXPECT_EQ(argumentOf("Ljava/lang/String;", vm.makeString(text)),
            entry("v", 7, text.substr(0, 256)));
  EXPECT_EQ(localOf("Ljava/lang/StringBuilder;", builder(text)),
            entry("v", 8, text.substr(0, 256)));
}

TEST_F(exceptionRecord, upTo256CharactersAreWhole) {
  begin(kVariables);
  EXPECT_EQ(textOfLocal(repeated("x", 255)), entry("v", 7, repeated("x", 255)));
  EXPECT_EQ(textOfLocal(repeated("x", 256)), entry("v", 7, repeated("x", 256)));
  EXPECT_EQ(textOfLocal(repeated("x", 257)), entry("v", 7, repeated("x", 256)));
}

TEST_F(exceptionRecord, charactersAreCountedNotBytes) {
  begin(kVariables);
  EXPECT_EQ(textOfLocal(repeated("\xC3\xA9", 300)), entry("v", 7, repeated("\xC3\xA9", 256)));
  EXPECT_EQ(textOfLocal(repeated("\xE2\x82\xAC", 300)),
            entry("v", 7, repeated("\xE2\x82\xAC", 256)));
  EXPECT_EQ(textOfLocal("a" + repeated("\xC0\x80", 300)),
            entry("v", 7, "a" + repeated("\xC0\x80", 255)))
      << "NUL characters";
}

constexpr const char* kPair = "\xED\xA0\xBD\xED\xB8\x80";  // one character of two surrogates
constexpr const char* kHigh = "\xED\xA0\xBD";
constexpr const char* kLow = "\xED\xB8\x80";

TEST_F(exceptionRecord, theCutNeverSplitsASurrogatePair) {
  begin(kVariables);
  const std::string text = repeated("x", 255) + kPair + "y";
  EXPECT_EQ(textOfLocal(text), entry("v", 7, repeated("x", 255)));
  EXPECT_EQ(localOf("Ljava/lang/StringBuilder;", builder(text)), entry("v", 8, repeated("x", 255)));
}

TEST_F(exceptionRecord, aPairThatEndsAtTheCutIsKept) {
  begin(kVariables);
  EXPECT_EQ(textOfLocal(repeated("x", 254) + kPair + "y"),
            entry("v", 7, repeated("x", 254) + kPair));
}

TEST_F(exceptionRecord, unpairedSurrogatesGoThrough) {
  begin(kVariables);
  const std::string text = std::string("a") + kLow + kHigh + "b" + kHigh;
  EXPECT_EQ(textOfLocal(text), entry("v", 7, text));
  EXPECT_EQ(textOfLocal(repeated("x", 255) + kHigh), entry("v", 7, repeated("x", 255) + kHigh))
      << "256 characters are not cut";
}

TEST_F(exceptionRecord, aStringOfTenMegabytesIsNotReadAsAWhole) {
  begin(kVariables);
  vm.resetCalls();
  EXPECT_EQ(textOfLocal(std::string(10'000'000, 'z')), entry("v", 7, repeated("z", 256)));
  EXPECT_EQ(vm.calls("GetStringUTFChars"), 0U);
}

TEST_F(exceptionRecord, separatorsInValuesAreNotEscaped) {
  begin(kVariables);
  const std::string text = "%7C!%23%2C%%s%n%44|\n";
  EXPECT_EQ(recordOf({frameOf("a.A.m", {}, {{"%2C", "Ljava/lang/String;", vm.makeString(text)}})}),
            "a.A.m(A.java:42)%40%41%42%43%2C%3A7%3A" + text + "%2C%44");
}

// --- Headers.

TEST_F(exceptionRecord, withoutASourceFileTheHeaderSaysNA) {
  begin();
  fake::frame frame = frameOf("com.example.Shop.buy");
  frame.code->declaringClass->sourceFile.reset();
  EXPECT_EQ(topOf({frame}).header, "com.example.Shop.buy(NA:42)%40%41");
}

TEST_F(exceptionRecord, anySourceFileErrorGivesNA) {
  begin();
  vm.fail("GetSourceFileName", {.error = JVMTI_ERROR_INTERNAL});
  EXPECT_EQ(topOf({frameOf("com.example.Shop.buy")}).header, "com.example.Shop.buy(NA:42)%40%41");
}

TEST_F(exceptionRecord, classNamesKeepWhatIsNotASlash) {
  begin();
  fake::frame frame = frameOf("com.example.Shop.lambda$buy$0");
  frame.code->declaringClass->signature = "Lcom/example/Shop$1-x.0x7f;";
  EXPECT_EQ(topOf({frame}).header, "com.example.Shop$1-x.0x7f.lambda$buy$0(Shop.java:42)%40%41");
}

TEST_F(exceptionRecord, theLineIsTheLastOneThatBeginsBeforeTheNextBegins) {
  begin();
  const std::vector<fake::line> table{{0, 41}, {10, 42}, {20, 43}};
  EXPECT_THAT(lineFor(0, table), HasSubstr(":41)"));
  EXPECT_THAT(lineFor(9, table), HasSubstr(":41)"));
  EXPECT_THAT(lineFor(10, table), HasSubstr(":42)"));
  EXPECT_THAT(lineFor(19, table), HasSubstr(":42)"));
}

TEST_F(exceptionRecord, theLastRangeOfTheTableHasNoLine) {
  begin();
  const std::vector<fake::line> table{{0, 41}, {10, 42}};
  EXPECT_THAT(lineFor(10, table), HasSubstr(":-1)"));
  EXPECT_THAT(lineFor(1000, table), HasSubstr(":-1)"));
}

TEST_F(exceptionRecord, aLocationBeforeTheTableHasNoLine) {
  begin();
  EXPECT_THAT(lineFor(4, std::vector<fake::line>{{5, 41}, {10, 42}, {20, 43}}), HasSubstr(":-1)"));
}

TEST_F(exceptionRecord, aTableOfOneEntryGivesItsLine) {
  begin();
  EXPECT_THAT(lineFor(0, std::vector<fake::line>{{0, 99}}), HasSubstr(":99)"));
  EXPECT_THAT(lineFor(500, std::vector<fake::line>{{10, 99}}), HasSubstr(":99)"));
  EXPECT_THAT(lineFor(0, std::vector<fake::line>{{10, 99}}), HasSubstr(":99)"));
}

TEST_F(exceptionRecord, anEmptyTableGivesNoLine) {
  begin();
  EXPECT_THAT(lineFor(0, std::vector<fake::line>{}), HasSubstr(":-1)"));
  EXPECT_THAT(lineFor(0, std::nullopt), HasSubstr(":-1)"));
}

TEST_F(exceptionRecord, tablesNeedNotBeSorted) {
  begin();
  const std::vector<fake::line> table{{0, 1}, {30, 2}, {10, 3}, {40, 4}};
  EXPECT_THAT(lineFor(5, table), HasSubstr(":1)"));
  EXPECT_THAT(lineFor(15, table), HasSubstr(":1)")) << "the first pair that brackets it";
  EXPECT_THAT(lineFor(35, table), HasSubstr(":3)"));
}

TEST_F(exceptionRecord, aNativeFrameShowsLineMinusOne) {
  begin(kVariables);
  fake::method* const native =
      vm.makeMethod("com.example.Native", "read", "(I)V", {.isStatic = true, .isNative = true});
  native->declaringClass->sourceFile = "Native.java";
  EXPECT_EQ(recordOf({fake::frame{.code = native, .location = -1}, frameOf("a.A.m")}),
            "com.example.Native.read(Native.java:-1)%40%41%42%43%44%7C"
            "a.A.m(A.java:42)%40%41%42%43%44");
}

TEST_F(exceptionRecord, locationMinusOneGivesNoLineWhateverTheTable) {
  begin();
  EXPECT_THAT(lineFor(-1, std::vector<fake::line>{{0, 99}}), HasSubstr(":-1)"));
}

TEST_F(exceptionRecord, anyLineTableErrorGivesNoLine) {
  begin();
  vm.fail("GetLineNumberTable", {.error = JVMTI_ERROR_INTERNAL});
  EXPECT_THAT(topOf({frameOf("a.A.m")}).header, HasSubstr(":-1)"));
}

TEST_F(exceptionRecord, everyFrameIsLoggedByItsMethod) {
  begin();
  const auto record = [&] { recordOf({frameOf("a.A.one"), frameOf("b.B.two")}); };
  EXPECT_THAT(loggedFrom(4, record), ElementsAre("FQM :- a.A.one()", "FQM :- b.B.two()"));
  EXPECT_THAT(messages("Debug"), ::testing::SizeIs(1)) << "at level 4 only";
}

TEST_F(exceptionRecord, aFrameWithoutAMethodNameIsLeftOut) {
  begin();
  fake::frame nameless = frameOf("a.A.one");
  nameless.code->nameIsNull = true;
  EXPECT_EQ(recordOf({nameless, frameOf("b.B.two")}), "b.B.two(B.java:42)%40%41%42%43%44");
}

TEST_F(exceptionRecord, aFrameWithoutAClassNameIsLeftOut) {
  begin();
  const fake::frame nameless = frameOf("a.A.one");
  nameless.code->declaringClass->signature.reset();
  EXPECT_EQ(recordOf({nameless, frameOf("b.B.two")}), "b.B.two(B.java:42)%40%41%42%43%44");
}

TEST_F(exceptionRecord, sourceAndLineDoNotDecideWhetherAFrameIsWritten) {
  begin();
  fake::frame frame = frameOf("a.A.one");
  frame.code->declaringClass->sourceFile.reset();
  frame.code->lines.reset();
  EXPECT_EQ(recordOf({frame}), "a.A.one(NA:-1)%40%41%42%43%44");
}

TEST_F(exceptionRecord, withoutAnyFrameNothingIsDelivered) {
  begin({}, "logLevel=4");
  fake::frame nameless = frameOf("a.A.one");
  nameless.code->nameIsNull = true;
  EXPECT_EQ(recordOf({nameless}), kNothing);
  EXPECT_THAT(messages("Debug"), IsEmpty());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(exceptionRecord, whenTheTopFrameIsLeftOutTheNextIsNotTheTop) {
  begin({.classVariables = true});
  fake::frame nameless = frameOf("a.A.one");
  nameless.code->nameIsNull = true;
  fake::object* const shop = objectWith("com.example.Shop", {{"sold", "I", jint{7}}});
  EXPECT_EQ(recordOf({nameless, frameOn(shop, "buy")}),
            "com.example.Shop.buy(Shop.java:42)%40%41%42%43%44");
}

// --- Frames of packages whose values are left out.

TEST_F(exceptionRecord, framesOfSomePackagesHaveNoArgumentsAndLocals) {
  begin(kVariables);
  std::vector<fake::frame> stack{frameOf("a.A.top")};
  for (const char* method : {"com.korvane.tw.A.m", "sun.nio.A.m", "com.korvane.commons.A.m",
                             "com.sun.proxy.A.m", "COM.SUN.A.m", "com.korvane.twutils.A.m"}) {
    stack.push_back(frameOf(method, {{"x", "I", jint{1}}}, {{"y", "I", jint{2}}}));
  }
  const std::vector<frameSections> frames = framesIn(recordOf(stack));
  ASSERT_EQ(frames.size(), stack.size());
  for (const frameSections& each : frames) {
    EXPECT_EQ(each.arguments, "") << each.header;
    EXPECT_EQ(each.locals, "") << each.header;
  }
}

TEST_F(exceptionRecord, framesOfOtherPackagesHaveBoth) {
  begin(kVariables);
  for (const char* method : {"com.korvane.koragent.A.m", "sunny.A.m", "com.sunny.A.m",
                             "java.lang.ClassLoader.m", "my.com.sun.A.m"}) {
    const std::vector<frameSections> frames = framesIn(recordOf(
        {frameOf("a.A.top"), frameOf(method, {{"x", "I", jint{1}}}, {{"y", "I", jint{2}}})}));
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[1].arguments, "x%3A4%3A1%2C") << method;
    EXPECT_EQ(frames[1].locals, "y%3A4%3A2%2C") << method;
  }
}

TEST_F(exceptionRecord, suchAFrameKeepsItsClassVariables) {
  begin({.classVariables = true, .methodArguments = true});
  fake::object* const proxy = objectWith("com.sun.proxy.Proxy", {{"n", "I", jint{7}}});
  EXPECT_EQ(recordOf({frameOn(proxy, "m", {{"x", "I", jint{1}}})}),
            "com.sun.proxy.Proxy.m(Proxy.java:42)%40%41n%3A4%3A7%42%43%44");
}

TEST_F(exceptionRecord, valuesLeftOutAreNotRead) {
  begin(kVariables);
  vm.resetCalls();
  recordOf({frameOf("com.sun.proxy.A.m", {{"x", "I", jint{1}}})});
  EXPECT_EQ(vm.calls("GetLocalInt"), 0U);
  EXPECT_EQ(vm.calls("GetLocalVariableTable"), 0U);
}

// --- Which slots.

class slotRanges : public exceptionRecord {
 protected:
  // A frame whose variables lie in slots 0 to 4; two of them are arguments and four have room.
  frameSections sectionsWith(bool arguments, bool locals) {
    begin({.methodArguments = arguments, .localVariables = locals});
    fake::frame frame = frameOf("a.A.m", {{"a0", "I", jint{10}}, {"a1", "I", jint{11}}},
                                {{"l2", "I", jint{12}}, {"l3", "I", jint{13}}});
    frame.code->variables->push_back({"l4", "I", 4});
    frame.code->variables->push_back({"l5", "I", 5});
    vm.on("GetLocalInt", [this](const fake::call& call) { read_.push_back(call.number); });
    return topOf({frame});
  }
  std::vector<jlong> read_;
};

TEST_F(slotRanges, argumentsAndLocalsTakeAllSlots) {
  const frameSections sections = sectionsWith(true, true);
  EXPECT_EQ(sections.arguments, "a0%3A4%3A10%2Ca1%3A4%3A11%2C");
  EXPECT_EQ(sections.locals, "l2%3A4%3A12%2Cl3%3A4%3A13%2C");
  EXPECT_THAT(read_, ElementsAre(0, 1, 2, 3, 4)) << "both ends are inclusive";
}

TEST_F(slotRanges, localsAloneBeginAfterTheArguments) {
  const frameSections sections = sectionsWith(false, true);
  EXPECT_EQ(sections.arguments, "");
  EXPECT_EQ(sections.locals, "l2%3A4%3A12%2Cl3%3A4%3A13%2C");
  EXPECT_THAT(read_, ElementsAre(2, 3, 4));
}

TEST_F(slotRanges, argumentsAloneEndBeforeTheLocals) {
  const frameSections sections = sectionsWith(true, false);
  EXPECT_EQ(sections.arguments, "a0%3A4%3A10%2Ca1%3A4%3A11%2C");
  EXPECT_EQ(sections.locals, "");
  EXPECT_THAT(read_, ElementsAre(0, 1));
}

TEST_F(slotRanges, withNeitherNothingIsRead) {
  const frameSections sections = sectionsWith(false, false);
  EXPECT_EQ(sections.arguments, "");
  EXPECT_EQ(sections.locals, "");
  EXPECT_THAT(read_, IsEmpty());
}

TEST_F(slotRanges, argumentsAloneOfAMethodWithoutArgumentsReadNothing) {
  begin({.methodArguments = true});
  const frameSections sections = topOf({frameOf("a.A.m", {}, {{"l0", "I", jint{1}}})});
  EXPECT_EQ(sections.arguments, "");
  EXPECT_EQ(sections.locals, "") << "slot 0 is a local, and locals are not asked for";
}

TEST_F(slotRanges, wideArgumentsTakeTwoSlots) {
  begin(kVariables);
  const frameSections sections =
      topOf({frameOf("a.A.m", {{"w", "J", jlong{1}}, {"d", "D", jdouble{2}}, {"i", "I", jint{3}}},
                     {{"x", "I", jint{4}}})});
  EXPECT_EQ(sections.arguments, "w%3A5%3A1%2Cd%3A6%3A2.000000%2Ci%3A4%3A3%2C");
  EXPECT_EQ(sections.locals, "x%3A4%3A4%2C");
}

TEST_F(slotRanges, withoutAnArgumentSizeEveryVariableIsALocal) {
  begin(kVariables);
  vm.fail("GetArgumentsSize", {.error = JVMTI_ERROR_INTERNAL});
  const frameSections sections =
      topOf({frameOf("a.A.m", {{"a", "I", jint{1}}}, {{"l", "I", jint{2}}})});
  EXPECT_EQ(sections.arguments, "");
  EXPECT_EQ(sections.locals, "a%3A4%3A1%2Cl%3A4%3A2%2C");
}

TEST_F(slotRanges, withoutAMaximumOnlySlotZeroIsInTheRange) {
  begin(kVariables);
  vm.fail("GetMaxLocals", {.error = JVMTI_ERROR_INTERNAL});
  const frameSections sections =
      topOf({frameOf("a.A.m", {{"a", "I", jint{1}}, {"b", "I", jint{2}}}, {{"l", "I", jint{3}}})});
  EXPECT_EQ(sections.arguments, "a%3A4%3A1%2C");
  EXPECT_EQ(sections.locals, "");
}

// --- Variables without a value.

TEST_F(exceptionRecord, aVariableOutsideItsScopeIsSkipped) {
  begin(kVariables);
  fake::frame frame = frameOf("a.A.m", {}, {{"x", "I", jint{1}}, {"y", "I", jint{2}}});
  frame.location = 10;
  fake::variable& x = frame.code->variables->at(0);
  const auto locals = [&](jlocation start, jint length) {
    x.start = start;
    x.length = length;
    return topOf({frame}).locals;
  };
  const std::string both = "x%3A4%3A1%2Cy%3A4%3A2%2C";
  const std::string onlyY = "y%3A4%3A2%2C";
  EXPECT_EQ(locals(10, 1), both) << "begins here";
  EXPECT_EQ(locals(0, 11), both) << "holds its last location";
  EXPECT_EQ(locals(0, 10), onlyY) << "ended just before";
  EXPECT_EQ(locals(11, 5), onlyY) << "begins just after";
  EXPECT_EQ(locals(11, 0), both) << "without a length there is no scope to hold it against";
}

TEST_F(exceptionRecord, variablesThatShareASlotAreToldApartByTheirScope) {
  begin(kVariables);
  fake::frame frame = frameOf("a.A.m", {}, {{"now", "I", jint{5}}});
  frame.code->variables->insert(frame.code->variables->begin(), {"before", "I", 0, 0, 10});
  frame.code->variables->push_back({"after", "I", 0, 11, 10});
  EXPECT_EQ(topOf({frame}).locals, "now%3A4%3A5%2C");
}

TEST_F(exceptionRecord, aVariableOutsideItsScopeIsNotRead) {
  begin(kVariables);
  fake::frame frame = frameOf("a.A.m", {}, {{"x", "I", jint{1}}});
  frame.code->variables->at(0).start = 50;
  vm.resetCalls();
  topOf({frame});
  EXPECT_EQ(vm.calls("GetLocalInt"), 0U);
}

TEST_F(exceptionRecord, aRefusedSlotSkipsThatVariableOnly) {
  begin(kVariables);
  for (const jvmtiError refusal :
       {JVMTI_ERROR_INVALID_SLOT, JVMTI_ERROR_TYPE_MISMATCH, JVMTI_ERROR_OPAQUE_FRAME}) {
    vm.fail("GetLocalInt", {.error = refusal, .times = 1});
    EXPECT_EQ(topOf({frameOf("a.A.m", {}, {{"x", "I", jint{1}}, {"y", "I", jint{2}}})}).locals,
              "y%3A4%3A2%2C")
        << refusal;
    vm.succeed("GetLocalInt");
  }
}

TEST_F(exceptionRecord, aRefusalOfEveryKindOfReadSkipsThatVariableOnly) {
  begin(kVariables);
  const fake::frame frame = frameOf("a.A.m", {},
                                    {{"l", "J"},
                                     {"f", "F"},
                                     {"d", "D"},
                                     {"o", "Lx/Y;"},
                                     {"s", "Ljava/lang/String;"},
                                     {"b", "Ljava/lang/StringBuilder;"},
                                     {"a", "[I"},
                                     {"z", "I", jint{1}}});
  EXPECT_EQ(topOf({frame}).locals, "z%3A4%3A1%2C");
}

TEST_F(exceptionRecord, aSlotOfAnotherTypeIsSkipped) {
  begin(kVariables);
  fake::frame frame = frameOf("a.A.m", {}, {{"x", "I", jint{1}}, {"y", "I", jint{2}}});
  frame.locals[0] = jlong{1};
  EXPECT_EQ(topOf({frame}).locals, "y%3A4%3A2%2C");
}

TEST_F(exceptionRecord, refusedSlotsAreNotLogged) {
  begin(kVariables, "logLevel=4");
  topOf({frameOf("a.A.m", {}, {{"x", "I"}})});
  EXPECT_THAT(errors(), ElementsAre("FQM :- a.A.m()"));
}

TEST_F(exceptionRecord, withoutAVariableTableTheSectionsAreEmpty) {
  begin(kVariables, "logLevel=4");
  fake::frame frame = frameOf("a.A.m", {{"x", "I", jint{1}}});
  frame.code->variables.reset();
  EXPECT_EQ(recordOf({frame, frameOf("b.B.n", {{"x", "I", jint{1}}})}),
            "a.A.m(A.java:42)%40%41%42%43%44%7Cb.B.n(B.java:42)%40%41%42x%3A4%3A1%2C%43%44");
  EXPECT_THAT(errors(), ElementsAre("FQM :- a.A.m()", "FQM :- b.B.n()")) << "this is no error";
}

TEST_F(exceptionRecord, aVariableTableOfANativeMethodLeavesTheSectionsEmpty) {
  begin(kVariables);
  vm.fail("GetLocalVariableTable", {.error = JVMTI_ERROR_NATIVE_METHOD});
  EXPECT_EQ(recordOf({frameOf("a.A.m", {{"x", "I", jint{1}}})}), "a.A.m(A.java:42)%40%41%42%43%44");
}

TEST_F(exceptionRecord, genericSignaturesAreGivenBack) {
  begin(kVariables);
  fake::frame frame = frameOf("a.A.m", {}, {{"x", "I", jint{1}}, {"y", "Lx/Y;"}});
  for (fake::variable& each : *frame.code->variables) {
    each.genericSignature = "Ljava/util/List<TT;>;";
  }
  EXPECT_EQ(topOf({frame}).locals, "x%3A4%3A1%2C");
  EXPECT_EQ(vm.memoryHeld(), 0U);
}

// --- `this`.

class thisOfTheTopFrame : public exceptionRecord {
 protected:
  fake::object* shop() {
    return objectWith("com.example.Shop",
                      {{"sold", "I", jint{7}}, {"name", "Ljava/lang/String;", vm.makeString("X")}});
  }
};

TEST_F(thisOfTheTopFrame, itsFieldsFormTheClassVariableSection) {
  begin({.classVariables = true});
  EXPECT_EQ(topOf({frameOn(shop(), "buy")}).classVariables, "sold%3A4%3A7%2Cname%3A7%3AX");
}

TEST_F(thisOfTheTopFrame, isNotReadUnlessAskedFor) {
  begin(kVariables);
  vm.resetCalls();
  EXPECT_EQ(recordOf({frameOn(shop(), "buy")}), "com.example.Shop.buy(Shop.java:42)%40%41%42%43%44")
      << "and it is written in no other section";
  EXPECT_EQ(vm.calls("GetLocalObject"), 0U);
}

TEST_F(thisOfTheTopFrame, isWrittenOnce) {
  begin({.classVariables = true, .methodArguments = true, .localVariables = true});
  vm.resetCalls();
  const frameSections sections = topOf({frameOn(shop(), "buy")});
  EXPECT_EQ(sections.classVariables, "sold%3A4%3A7%2Cname%3A7%3AX");
  EXPECT_EQ(sections.arguments, "");
  EXPECT_EQ(sections.locals, "");
  EXPECT_EQ(vm.calls("GetLocalObject"), 1U);
}

TEST_F(thisOfTheTopFrame, isNotTakenFromOtherFrames) {
  begin({.classVariables = true});
  const std::vector<frameSections> frames =
      framesIn(recordOf({frameOf("a.A.top"), frameOn(shop(), "buy")}));
  ASSERT_EQ(frames.size(), 2U);
  EXPECT_EQ(frames[0].classVariables, "");
  EXPECT_EQ(frames[1].classVariables, "");
}

TEST_F(thisOfTheTopFrame, staticMethodsHaveNone) {
  begin({.classVariables = true});
  fake::frame frame = frameOf("a.A.m", {{"first", "Lcom/example/Shop;", shop()}});
  vm.resetCalls();
  EXPECT_EQ(topOf({frame}).classVariables, "") << "slot 0 is an argument here";
  EXPECT_EQ(vm.calls("GetLocalObject"), 0U);
}

TEST_F(thisOfTheTopFrame, nativeMethodsHaveNone) {
  begin({.classVariables = true});
  fake::object* const self = shop();
  fake::method* const native = vm.makeMethod(self->type, "read", "()V", {.isNative = true});
  vm.resetCalls();
  EXPECT_EQ(
      topOf({fake::frame{.code = native, .location = -1, .locals = {{0, self}}}}).classVariables,
      "");
  EXPECT_EQ(vm.calls("GetLocalObject"), 0U);
}

TEST_F(thisOfTheTopFrame, isReadWithoutAVariableTable) {
  begin({.classVariables = true, .localVariables = true});
  fake::frame frame = frameOn(shop(), "buy");
  frame.code->variables.reset();
  EXPECT_EQ(topOf({frame}).classVariables, "sold%3A4%3A7%2Cname%3A7%3AX");
}

TEST_F(thisOfTheTopFrame, aRefusalGivesAnEmptySection) {
  begin({.classVariables = true, .methodArguments = true});
  for (const jvmtiError refusal :
       {JVMTI_ERROR_INVALID_SLOT, JVMTI_ERROR_TYPE_MISMATCH, JVMTI_ERROR_OPAQUE_FRAME}) {
    vm.fail("GetLocalObject", {.error = refusal});
    const frameSections sections = topOf({frameOn(shop(), "buy", {{"x", "I", jint{1}}})});
    EXPECT_EQ(sections.classVariables, "") << refusal;
    EXPECT_EQ(sections.arguments, "x%3A4%3A1%2C") << refusal;
    vm.succeed("GetLocalObject");
  }
}

TEST_F(thisOfTheTopFrame, anObjectWithoutFieldsGivesAnEmptySection) {
  begin({.classVariables = true});
  EXPECT_EQ(topOf({frameOn(objectWith("a.Empty", {}), "m")}).classVariables, "");
}

TEST_F(thisOfTheTopFrame, aVariableNamedThisIsNeverWritten) {
  begin(kVariables);
  const frameSections sections = topOf({frameOf("a.A.m", {{"this", "I", jint{1}}},
                                                {{"this", "I", jint{2}}, {"that", "I", jint{3}}})});
  EXPECT_EQ(sections.arguments, "");
  EXPECT_EQ(sections.locals, "that%3A4%3A3%2C");
}

// --- Delivery.

TEST_F(exceptionRecord, theRecordIsLoggedBeforeItIsDelivered) {
  begin({}, "logLevel=4");
  std::string seen;
  inCallback = [&](fake::invocation&) { seen = readFile(logFiles().front()); };
  const std::string record = recordOf({frameOf("a.A.m")});
  EXPECT_THAT(seen, EndsWith("|Debug|Going to Dump 38 Record for -> " + record + "\n\n\n"));
}

// A VM believes what a class's variable table says; classes that tools have rewritten may lie.
TEST_F(exceptionRecord, aVariableThatIsNotWhatItsTableSaysIsLeftOut) {
  begin({.methodArguments = true, .localVariables = true});
  fake::object* const impostor = objectWith("com.example.Impostor", {{"x", "I", jint{1}}});
  EXPECT_EQ(recordOf({frameOf("a.A.m",
                              {{"s", "Ljava/lang/String;", impostor},
                               {"b", "Ljava/lang/StringBuilder;", impostor}},
                              {{"o", "Lcom/example/Other;", impostor},
                               {"t", "Ljava/lang/String;", vm.makeString("true")}})}),
            "a.A.m(A.java:42)%40%41%42%43" + objectEntry("o", entry("x", 4, "1")) +
                entry("t", 7, "true") + "%44");
  EXPECT_EQ(vm.calls("CallObjectMethod"), 0U) << "toString of who knows what";
}

TEST_F(exceptionRecord, withArgumentsAloneAMethodWithoutAnyIsNotAskedForVariables) {
  begin({.methodArguments = true});
  EXPECT_EQ(recordOf({frameOf("a.A.m", {}, {{"y", "I", jint{1}}})}),
            "a.A.m(A.java:42)%40%41%42%43%44");
  EXPECT_EQ(vm.calls("GetLocalVariableTable"), 0U);
}

TEST_F(exceptionRecord, eachExceptionIsDeliveredByItself) {
  begin();
  EXPECT_THAT(recordOf({frameOf("a.A.m")}, "x.One"), StartsWith("a.A.m("));
  EXPECT_THAT(recordOf({frameOf("b.B.n")}, "x.Two"), StartsWith("b.B.n("));
  EXPECT_EQ(deliveries().size(), 2U);
}

TEST_F(exceptionRecord, aFailedDeclaringClassEndsTheRecordWithAMessage) {
  begin();
  loggedFrom(4, [&] {
    // The first call is for the method that throws, the second for the top frame.
    vm.fail("GetMethodDeclaringClass", {.error = JVMTI_ERROR_INVALID_METHODID, .from = 2});
    EXPECT_EQ(recordOf({frameOf("a.A.m")}), kNothing);
    vm.succeed("GetMethodDeclaringClass");
  });
  EXPECT_EQ(errorsSaying("unable to get desclaring class "), 1U);
  EXPECT_EQ(errorsSaying("Error name is JVMTI_ERROR_INVALID_METHODID and error code is 23"), 1U);
}

}  // namespace
