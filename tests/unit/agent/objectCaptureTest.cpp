// Objects as text of a record: their fields, nested objects up to the depth asked for, arrays.
#include <limits>

#include "exceptionTest.h"

namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr jint kStaticField = 0x0008;

const captureSettings kVariables{.methodArguments = true, .localVariables = true};

class objectCapture : public exceptionTest {
 protected:
  // The text of an object that is a local of the frame with this index.
  std::string textOf(fake::object* value, int index = 0) {
    std::vector<fake::frame> stack;
    for (int i = 0; i < index; ++i) {
      stack.push_back(frameOf("a.Above.m"));
    }
    stack.push_back(frameOf("com.example.Shop.buy", {}, {{"v", "Ljava/lang/Object;", value}}));
    const std::string record = recordOf(stack);
    if (record == kNothing) {
      return record;
    }
    const std::string locals = framesIn(record).back().locals;
    const std::string before = "!%23v%3A10%3A";
    const std::string after = "!%23%2C";
    EXPECT_THAT(locals, StartsWith(before));
    EXPECT_THAT(locals, ::testing::EndsWith(after));
    return locals.substr(before.size(), locals.size() - before.size() - after.size());
  }
  std::string textOfThis(fake::object* self) {
    return topOf({frameOn(self, "buy")}).classVariables + "%2C";
  }
  // A chain of `length` objects: each has a number and the next one.
  fake::object* chain(int length) {
    fake::javaClass* const type = vm.makeClass("com.example.Link");
    fake::field* const number = vm.makeField(type, "n", "I");
    fake::field* const next = vm.makeField(type, "next", "Lcom/example/Link;");
    fake::object* first = nullptr;
    for (int i = length - 1; i >= 0; --i) {
      fake::object* const link = vm.makeObject(type);
      vm.setField(link, number, jint{i});
      vm.setField(link, next, first);
      first = link;
    }
    return first;
  }
};

// What chain() is written as when its objects from `number` to `last` are expanded.
std::string chainText(int number, int last) {
  std::string text = entry("n", 4, std::to_string(number));
  return text +
         (number == last ? nullField("next") : objectEntry("next", chainText(number + 1, last)));
}

// --- Fields of each type.

TEST_F(objectCapture, everyKindOfFieldHasItsCode) {
  begin(kVariables);
  fake::object* const all =
      objectWith("com.example.All", {{"i", "I", jint{-5}},
                                     {"d", "D", jdouble{2.5}},
                                     {"c", "C", jchar{0xFFFF}},
                                     {"f", "F", jfloat{-0.5F}},
                                     {"s", "S", jshort{-32768}},
                                     {"j", "J", jlong{std::numeric_limits<jlong>::min()}},
                                     {"b", "B", jbyte{-128}},
                                     {"z", "Z", jboolean{1}},
                                     {"t", "Ljava/lang/String;", vm.makeString("pen")},
                                     {"sb", "Ljava/lang/StringBuilder;", builder("ink")}});
  EXPECT_EQ(textOf(all),
            "i%3A4%3A-5%2Cd%3A6%3A2.500000%2Cc%3A1%3A65535%2Cf%3A9%3A-0.500000%2Cs%3A3%3A-32768%2C"
            "j%3A5%3A-9223372036854775808%2Cb%3A2%3A-128%2Cz%3A0%3A1%2Ct%3A7%3Apen%2C"
            "sb%3A8%3Aink%2C");
}

TEST_F(objectCapture, aStaticFieldIsWrittenLikeAnInstanceField) {
  begin(kVariables);
  fake::javaClass* const type = vm.makeClass("com.example.All");
  const auto add = [&](const char* name, const char* signature, const fake::value& value) {
    vm.setStatic(vm.makeField(type, name, signature, kStaticField), value);
  };
  add("i", "I", jint{-5});
  add("d", "D", jdouble{2.5});
  add("c", "C", jchar{65});
  add("f", "F", jfloat{1.5F});
  add("s", "S", jshort{3});
  add("j", "J", jlong{-6});
  add("b", "B", jbyte{-1});
  add("z", "Z", jboolean{1});
  add("t", "Ljava/lang/String;", vm.makeString("pen"));
  add("sb", "Ljava/lang/StringBuilder;", builder("ink"));
  add("o", "Lcom/example/Cart;", objectWith("com.example.Cart", {{"n", "I", jint{2}}}));
  add("a", "[I", vm.makeArray("[I", {nullptr, nullptr}));
  EXPECT_EQ(textOf(vm.makeObject(type)),
            "i%3A4%3A-5%2Cd%3A6%3A2.500000%2Cc%3A1%3A65%2Cf%3A9%3A1.500000%2Cs%3A3%3A3%2C"
            "j%3A5%3A-6%2Cb%3A2%3A-1%2Cz%3A0%3A1%2Ct%3A7%3Apen%2Csb%3A8%3Aink%2C"
            "!%23o%3A10%3An%3A4%3A2%2C!%23%2C!%23a%3A10%3Alength%3A4%3A2%2C!%23%2C");
  EXPECT_EQ(vm.calls("GetObjectField"), 0U) << "static objects are read with GetStaticObjectField";
  EXPECT_EQ(vm.calls("GetStaticObjectField"), 4U);
}

TEST_F(objectCapture, staticFieldsAreToldByTheirBitAmongOthers) {
  begin(kVariables);
  fake::javaClass* const type = vm.makeClass("com.example.Constants");
  vm.setStatic(vm.makeField(type, "MAX", "I", 0x0001 | kStaticField | 0x0010), jint{9});
  vm.makeField(type, "own", "I", 0x0002 | 0x0010 | 0x0040);
  EXPECT_EQ(textOf(vm.makeObject(type)), entry("MAX", 4, "9") + entry("own", 4, "0"));
}

TEST_F(objectCapture, onlyFieldsOfItsOwnClassAreWritten) {
  begin(kVariables);
  fake::javaClass* const base = vm.makeClass("com.example.Base");
  vm.makeField(base, "inherited", "I");
  fake::javaClass* const derived = vm.makeClass("com.example.Derived", base);
  vm.makeField(derived, "own", "I");
  EXPECT_EQ(textOf(vm.makeObject(derived)), entry("own", 4, "0"));
}

TEST_F(objectCapture, nullFieldsHaveTheNullForm) {
  begin(kVariables);
  fake::object* const cart = objectWith("com.example.Cart", {{"o", "Lcom/example/Cart;"},
                                                             {"s", "Ljava/lang/String;"},
                                                             {"b", "Ljava/lang/StringBuilder;"},
                                                             {"a", "[J"}});
  EXPECT_EQ(textOf(cart), "o%3A10%3ANULL%2Cs%3A10%3ANULL%2Cb%3A10%3ANULL%2Ca%3A10%3ANULL%2C");
}

TEST_F(objectCapture, floatingPointFieldsAreWrittenInFull) {
  begin(kVariables);
  fake::object* const all =
      objectWith("com.example.All", {{"n", "F", std::numeric_limits<jfloat>::quiet_NaN()},
                                     {"i", "D", -std::numeric_limits<jdouble>::infinity()},
                                     {"t", "F", jfloat{0.1F}}});
  EXPECT_EQ(textOf(all), entry("n", 9, "nan") + entry("i", 6, "-inf") + entry("t", 9, "0.100000"));
}

TEST_F(objectCapture, stringFieldsAreNotCutTo256Characters) {
  begin(kVariables);
  const std::string text = repeated("0123456789", 30);
  fake::object* const object =
      objectWith("com.example.Text", {{"s", "Ljava/lang/String;", vm.makeString(text)}});
  EXPECT_EQ(textOf(object), entry("s", 7, text));
}

TEST_F(objectCapture, onlyTheBeginningOfABuilderIsMadeIntoAString) {
  begin(kVariables);
  jint asked = 0;
  fake::object* const huge = builderWith(120'000'000, [&](fake::invocation& call) -> fake::value {
    EXPECT_EQ(std::get<jint>(call.arguments[0]), 0);
    asked = std::get<jint>(call.arguments[1]);
    return call.vm.makeString(repeated("x", asked));
  });
  EXPECT_EQ(textOf(objectWith("com.example.Text", {{"b", "Ljava/lang/StringBuilder;", huge}})),
            entry("b", 8, repeated("x", 256)));
  EXPECT_EQ(asked, 257);
}

TEST_F(objectCapture, textFieldsAreReadWholeWithinTheBudget) {
  begin(kVariables);
  const std::string text(1'000'000, 'z');
  fake::object* const object =
      objectWith("com.example.Text", {{"s", "Ljava/lang/String;", vm.makeString(text)}});
  EXPECT_TRUE(textOf(object) == entry("s", 7, text));
}

TEST_F(objectCapture, hostileNamesAndTextsGoThroughUnchanged) {
  begin(kVariables);
  const std::string text = std::string("%2C!%23%7C\xC0\x80\xED\xA0\x80%s%n\n\"") + "\xE2\x82\xAC";
  fake::object* const object = objectWith(
      "com.example.Odd",
      {{"%3A7%3A", "Ljava/lang/String;", vm.makeString(text)}, {"na\xC3\xAFve me", "I", jint{1}}});
  EXPECT_EQ(recordOf({frameOf("a.A.m", {}, {{"v", "La/B;", object}})}),
            "a.A.m(A.java:42)%40%41%42%43" +
                objectEntry("v", entry("%3A7%3A", 7, text) + entry("na\xC3\xAFve me", 4, "1")) +
                "%44");
}

TEST_F(objectCapture, aBuilderThatGivesNothingHasTheNullForm) {
  begin(kVariables);
  fake::object* const mute = builderWith(
      4, [](fake::invocation&) -> fake::value { return static_cast<fake::object*>(nullptr); });
  EXPECT_EQ(textOf(objectWith("a.A", {{"b", "Ljava/lang/StringBuilder;", mute}})), nullField("b"));
  EXPECT_EQ(topOf({frameOf("a.A.m", {}, {{"b", "Ljava/lang/StringBuilder;", mute}})}).locals,
            nullObject("b"));
}

// --- Nested objects.

TEST_F(objectCapture, nestedObjectsStandInTheirOwnEntry) {
  begin(kVariables);
  fake::object* const cart = objectWith("com.example.Cart", {{"items", "I", jint{2}}});
  fake::object* const shop = objectWith(
      "com.example.Shop", {{"open", "Z", jboolean{0}}, {"cart", "Lcom/example/Cart;", cart}});
  EXPECT_EQ(textOf(shop), "open%3A0%3A0%2C!%23cart%3A10%3Aitems%3A4%3A2%2C!%23%2C");
}

TEST_F(objectCapture, depthOneWritesTheObjectsOfFieldsWithTheirsInNullForm) {
  begin(kVariables);
  EXPECT_EQ(textOf(chain(3)), "n%3A4%3A0%2C!%23next%3A10%3An%3A4%3A1%2Cnext%3A10%3ANULL%2C!%23%2C");
}

struct expansion {
  const char* options;
  int length;  // of the chain
  int index;   // of the frame
  int last;    // object that is expanded
};
void PrintTo(const expansion& one, std::ostream* out) {
  *out << "'" << one.options << "', chain of " << one.length << " in frame " << one.index;
}

class objectDepths : public objectCapture, public ::testing::WithParamInterface<expansion> {};

TEST_P(objectDepths, decideHowFarObjectsAreExpanded) {
  const expansion& one = GetParam();
  begin(kVariables, one.options);
  EXPECT_EQ(textOf(chain(one.length), one.index), chainText(0, one.last));
}

INSTANTIATE_TEST_SUITE_P(ofObjects, objectDepths,
                         ::testing::Values(expansion{"", 9, 0, 1},
                                           expansion{"captureObjDepth=0", 3, 0, 0},
                                           expansion{"captureObjDepth=2", 9, 0, 2},
                                           expansion{"captureObjDepth=3", 9, 0, 3},
                                           expansion{"captureObjDepth=4", 9, 0, 4},
                                           expansion{"captureObjDepth=5", 9, 0, 5},
                                           expansion{"captureObjDepth=6", 9, 0, 1},  // is not taken
                                           expansion{"captureObjDepth=5", 2, 0, 1}));

INSTANTIATE_TEST_SUITE_P(ofFrames, objectDepths,
                         ::testing::Values(expansion{"", 3, 2, 1}, expansion{"", 3, 3, 0},
                                           expansion{"", 3, 9, 0},
                                           expansion{"captureSTDepth=4", 3, 3, 1},
                                           expansion{"captureSTDepth=4", 3, 4, 0},
                                           expansion{"captureObjDepth=5", 9, 3, 0}));

TEST_F(objectCapture, cyclesEndAtTheDepth) {
  begin(kVariables, "captureObjDepth=5");
  fake::javaClass* const type = vm.makeClass("com.example.Ring");
  fake::field* const next = vm.makeField(type, "next", "Lcom/example/Ring;");
  fake::object* const ring = vm.makeObject(type);
  vm.setField(ring, next, ring);
  std::string expected = nullField("next");
  for (int i = 0; i < 5; ++i) {
    expected = objectEntry("next", expected);
  }
  EXPECT_EQ(textOf(ring), expected);
}

TEST_F(objectCapture, nestedObjectsAreWrittenByTheirOwnClass) {
  begin(kVariables);
  fake::object* const real = objectWith("com.example.Real", {{"x", "I", jint{1}}});
  EXPECT_EQ(textOf(objectWith("a.A", {{"o", "Ljava/lang/Object;", real}})),
            objectEntry("o", entry("x", 4, "1")));
}

TEST_F(objectCapture, plainObjectsAreExpandedToo) {
  begin(kVariables);
  EXPECT_EQ(
      textOf(objectWith("a.A", {{"o", "Ljava/lang/Object;", vm.makeObject("java.lang.Object")}})),
      objectEntry("o", ""));
}

TEST_F(objectCapture, classesWithoutASignatureAreExpandedToo) {
  begin(kVariables);
  fake::object* const odd = objectWith("com.example.Odd", {{"x", "I", jint{1}}});
  odd->type->signature.reset();
  EXPECT_EQ(textOf(objectWith("a.A", {{"o", "Ljava/lang/Object;", odd}})),
            objectEntry("o", entry("x", 4, "1")));
}

TEST_F(objectCapture, nothingIsReadThatIsNotWritten) {
  begin(kVariables, "captureObjDepth=0");
  vm.resetCalls();
  textOf(chain(3));
  EXPECT_EQ(vm.calls("GetObjectField"), 0U);
}

// --- Arrays.

TEST_F(objectCapture, arrayFieldsAreWrittenWithTheirLength) {
  begin(kVariables);
  fake::object* const object = objectWith(
      "a.A", {{"a", "[I", vm.makeArray("[I", {nullptr, nullptr})},
              {"o", "Ljava/lang/Object;", vm.makeArray("[Ljava.lang.Object;", {nullptr})}});
  EXPECT_EQ(textOf(object),
            "!%23a%3A10%3Alength%3A4%3A2%2C!%23%2C"
            "!%23o%3A10%3Alength%3A4%3A1%2C!%23%2C");
}

TEST_F(objectCapture, arrayFieldsBelowTheDepthHaveTheNullForm) {
  begin(kVariables, "captureObjDepth=0");
  EXPECT_EQ(textOf(objectWith("a.A", {{"a", "[I", vm.makeArray("[I", {nullptr})}})),
            nullField("a"));
}

TEST_F(objectCapture, elementsOfArraysAreNotWritten) {
  begin(kVariables, "captureObjDepth=5");
  fake::object* const element = objectWith("com.example.Cart", {{"items", "I", jint{2}}});
  EXPECT_EQ(textOf(vm.makeArray("[Lcom.example.Cart;", {element, element})),
            entry("length", 4, "2"));
}

// --- Which frames' objects, and whose, are expanded.

TEST_F(objectCapture, aFrameAtTheStackDepthHasPrimitiveAndTextFieldsOnly) {
  begin(kVariables);
  fake::object* const text =
      objectWith("a.A", {{"s", "Ljava/lang/String;", vm.makeString("pen")},
                         {"b", "Ljava/lang/StringBuilder;", builder("ink")},
                         {"o", "Ljava/lang/Object;", vm.makeString("gone")}});
  EXPECT_EQ(textOf(text, 3), entry("s", 7, "pen") + entry("b", 8, "ink") + nullField("o"));
}

const captureSettings kAll{.classVariables = true, .methodArguments = true, .localVariables = true};

struct expandedKinds {
  const char* options;
  int variables;  // the last object that is expanded of a chain in a local
  int self;       // and in `this`
};
void PrintTo(const expandedKinds& one, std::ostream* out) {
  *out << "'" << one.options << "'";
}

class objectTypes : public objectCapture, public ::testing::WithParamInterface<expandedKinds> {};

TEST_P(objectTypes, decideWhoseObjectsAreExpanded) {
  const expandedKinds& one = GetParam();
  begin(kAll, one.options);
  EXPECT_EQ(textOf(chain(3)), chainText(0, one.variables));
  EXPECT_EQ(textOfThis(chain(3)), chainText(0, one.self));
}

INSTANTIATE_TEST_SUITE_P(bits, objectTypes,
                         ::testing::Values(expandedKinds{"", 1, 1},
                                           expandedKinds{"captureObjType=1", 1, 0},
                                           expandedKinds{"captureObjType=2", 0, 1},
                                           expandedKinds{"captureObjType=4", 0, 0}));

TEST_F(objectCapture, argumentsAreExpandedLikeLocals) {
  begin(kAll);
  EXPECT_EQ(topOf({frameOf("a.A.m", {{"v", "Lcom/example/Link;", chain(3)}})}).arguments,
            objectEntry("v", chainText(0, 1)));
}

// --- Fields whose ID cannot be had.

TEST_F(objectCapture, aMissingFieldIdHasTheNullFormAndTheRestIsWritten) {
  begin(kVariables);
  vm.fail("GetFieldID", {.name = "gone", .throwing = true});
  fake::object* const object =
      objectWith("a.A", {{"before", "I", jint{1}},
                         {"gone", "Ljava/lang/Object;", vm.makeObject("java.lang.Object")},
                         {"after", "I", jint{2}}});
  EXPECT_EQ(textOf(object), entry("before", 4, "1") + nullField("gone") + entry("after", 4, "2"));
}

TEST_F(objectCapture, aMissingStaticFieldIdHasTheNullForm) {
  begin(kVariables);
  vm.fail("GetStaticFieldID", {.throwing = true});
  fake::javaClass* const type = vm.makeClass("a.A");
  vm.makeField(type, "gone", "J", kStaticField);
  EXPECT_EQ(textOf(vm.makeObject(type)), nullField("gone"));
}

TEST_F(objectCapture, aMissingFieldIdIsLoggedWithTheThread) {
  begin(kVariables);
  vm.fail("GetFieldID", {.name = "gone", .throwing = true});
  const auto capture = [&] { textOf(objectWith("a.A", {{"gone", "Ljava/lang/Object;"}})); };
  EXPECT_THAT(loggedFrom(1, capture, "Debug"),
              ElementsAre("return fid name : gone ,thread  : worker-1"));
  EXPECT_EQ(log().back().function, "exceptionProfiler::GetObjectFieldsValue");
}

TEST_F(objectCapture, aMissingFieldIdOfAPrimitiveIsNotLogged) {
  begin(kVariables, "logLevel=1");
  vm.fail("GetFieldID", {.name = "gone", .throwing = true});
  for (const char* signature : {"Z", "C", "B", "S", "I", "J", "F", "D"}) {
    EXPECT_EQ(textOf(objectWith("a.A", {{"gone", signature}})), nullField("gone")) << signature;
  }
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(objectCapture, aMissingFieldIdOnAThreadWithoutANameIsLogged) {
  begin(kVariables, "logLevel=1");
  vm.rename(thread(), std::nullopt);
  vm.fail("GetFieldID", {.name = "gone", .throwing = true});
  textOf(objectWith("a.A", {{"gone", "Ljava/lang/Object;"}}));
  EXPECT_THAT(messages("Debug"), ElementsAre("return fid name : gone ,thread  : "));
}

// --- Classes that are not initialised yet.

TEST_F(objectCapture, aHandlerNeverWaitsForAClassInitialiser) {
  begin(kVariables);
  fake::javaClass* const type = vm.makeClass("com.example.Late");
  vm.setStatic(vm.makeField(type, "MAX", "I", kStaticField), jint{9});
  vm.makeField(type, "own", "I");
  type->initialized = false;
  vm.resetCalls();
  EXPECT_EQ(textOf(vm.makeObject(type)), entry("MAX", 4, "9") + entry("own", 4, "0"));
  EXPECT_EQ(vm.calls("GetFieldID"), 0U) << "asking by name initialises the class";
  EXPECT_EQ(vm.calls("GetStaticFieldID"), 0U);
}

// --- JVMTI errors end the walk, not the record.

TEST_F(objectCapture, withoutItsFieldsAnObjectHasAnEmptyText) {
  begin(kVariables, "logLevel=4");
  vm.fail("GetClassFields", {.error = JVMTI_ERROR_CLASS_NOT_PREPARED});
  EXPECT_EQ(textOf(objectWith("a.A", {{"x", "I", jint{1}}})), "");
  EXPECT_EQ(errorsSaying("Error name is JVMTI_ERROR_CLASS_NOT_PREPARED and error code is 22"), 1U);
}

TEST_F(objectCapture, anErrorUnderWayKeepsTheTextSoFar) {
  begin(kVariables);
  for (const char* function : {"GetFieldName", "GetFieldModifiers"}) {
    vm.fail(function, {.from = 2, .times = 1});
    EXPECT_EQ(textOf(objectWith("a.A", {{"x", "I", jint{1}}, {"y", "I"}, {"z", "I"}})),
              entry("x", 4, "1"))
        << function;
    vm.succeed(function);
  }
}

TEST_F(objectCapture, anErrorInANestedObjectKeepsItsTextSoFarAndTheRest) {
  begin(kVariables);
  fake::object* const inner = objectWith("b.B", {{"y", "I", jint{2}}, {"z", "I"}});
  fake::object* const outer = objectWith("a.A", {{"in", "Lb/B;", inner}, {"after", "I", jint{3}}});
  vm.fail("GetFieldModifiers", {.from = 3, .times = 1});  // of z
  EXPECT_EQ(textOf(outer), objectEntry("in", entry("y", 4, "2")) + entry("after", 4, "3"));
}

TEST_F(objectCapture, anErrorOnANestedClassEndsTheWalk) {
  begin(kVariables);
  fake::object* const inner = objectWith("b.B", {});
  fake::object* const outer = objectWith(
      "a.A", {{"before", "I", jint{1}}, {"in", "Lb/B;", inner}, {"after", "I", jint{3}}});
  vm.fail("GetClassSignature",
          {.when = [&](const fake::call& call) { return call.target == inner->type; }});
  EXPECT_EQ(textOf(outer), entry("before", 4, "1"));
}

}  // namespace
