// Records for a callback that takes their places: values are told from each other whatever they
// hold, and what is no value says what became of it.
#include "exceptionTest.h"
#include "placedRecord.h"

namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr jint kStaticField = 0x0008;
const captureSettings kVariables{.methodArguments = true, .localVariables = true};

class exceptionPlaces : public exceptionTest {
 protected:
  void SetUp() override { takesPlaces = true; }

  // The record of an exception in this stack, read by its places.
  std::vector<placedFrame> placedOf(const std::vector<fake::frame>& stack) {
    const std::string record = recordOf(stack);
    EXPECT_NE(record, kNothing);
    const delivered last = deliveries().back();
    EXPECT_TRUE(last.hasPlaces);
    return readPlaced(last.record, last.places);
  }
  placedValue localOf(const std::string& signature, const fake::value& value) {
    const auto frames = placedOf({frameOf("a.A.m", {}, {{"v", signature, value}})});
    EXPECT_THAT(frames.at(0).sections[2], SizeIs(1));
    return frames.at(0).sections[2].at(0);
  }
  // The fields of a local object.
  std::vector<placedValue> fieldsOf(fake::object* object) {
    return localOf("Ljava/lang/Object;", object).fields;
  }
  std::uint32_t factsOf(const std::vector<fake::frame>& stack) {
    recordOf(stack);
    return deliveries().back().facts;
  }
};

placedValue nullOf(std::u16string name, valueState state) {
  return {.name = std::move(name), .code = u"10", .state = state, .isObject = true};
}

placedValue nullFieldOf(std::u16string name, valueState state) {
  return {.name = std::move(name), .code = u"10", .text = u"NULL", .state = state};
}

// --- The callback.

TEST_F(exceptionPlaces, aClassWithoutTheirCallbackGetsTheTextAlone) {
  takesPlaces = false;
  begin(kVariables);
  recordOf({frameOf("a.A.m")});
  EXPECT_FALSE(deliveries().back().hasPlaces);
  EXPECT_EQ(vm.calls("NewIntArray"), 0U);
}

TEST_F(exceptionPlaces, theTextIsTheSpecifiedOne) {
  begin({.classVariables = true, .methodArguments = true, .localVariables = true});
  fake::object* const shop =
      objectWith("com.example.Shop", {{"open", "Z", jboolean{1}}, {"sold", "I", jint{7}}});
  EXPECT_EQ(recordOf({frameOn(shop, "buy", {{"qty", "I", jint{3}}}, {{"n", "I", jint{4}}})}),
            "com.example.Shop.buy(Shop.java:42)%40%41"
            "open%3A0%3A1%2Csold%3A4%3A7%42qty%3A4%3A3%2C%43n%3A4%3A4%2C%44");
}

TEST_F(exceptionPlaces, withoutMemoryForThemTheTextGoesAlone) {
  begin(kVariables);
  vm.fail("NewIntArray",
          {.throwing = true, .exception = vm.makeObject("java.lang.OutOfMemoryError")});
  EXPECT_EQ(recordOf({frameOf("a.A.m")}), "a.A.m(A.java:42)%40%41%42%43%44");
  EXPECT_FALSE(deliveries().back().hasPlaces);
}

// --- Values that hold separators.

TEST_F(exceptionPlaces, aTextThatImitatesEntriesIsOneValue) {
  begin(kVariables);
  const std::string nasty = "x%2Cy%3A4%3A1%2C%43%44%7Ca.B.c(D.java:1)%40%41";
  const auto frames =
      placedOf({frameOf("a.A.m", {{"s", "Ljava/lang/String;", vm.makeString(nasty)}},
                        {{"t", "Ljava/lang/String;", vm.makeString("\xED\xA0\xBD\xED\xB8\x80")},
                         {"n", "I", jint{4}}}),
                frameOf("b.B.n")});
  ASSERT_THAT(frames, SizeIs(2));
  ASSERT_THAT(frames[0].sections[1], SizeIs(1));
  EXPECT_EQ(frames[0].sections[1][0].text, utf16Of(nasty));
  ASSERT_THAT(frames[0].sections[2], SizeIs(2));
  EXPECT_EQ(frames[0].sections[2][0].text, u"\xD83D\xDE00");
  EXPECT_EQ(frames[0].sections[2][1].text, u"4");
  EXPECT_THAT(frames[1].header, ElementsAre(u"b.B", u"n", u"B.java", u"42"));
}

// --- States.

TEST_F(exceptionPlaces, aTextThatReadsNullIsATextAndNullIsNull) {
  begin(kVariables);
  fake::object* const cart = objectWith(
      "com.example.Cart", {{"s", "Ljava/lang/String;", vm.makeString("NULL")}, {"o", "Lx/Y;"}});
  const auto fields = fieldsOf(cart);
  ASSERT_THAT(fields, SizeIs(2));
  EXPECT_EQ(fields[0].text, u"NULL");
  EXPECT_EQ(fields[0].state, valueState::value);
  EXPECT_EQ(fields[1], nullFieldOf(u"o", valueState::null));
  fake::object* const none = nullptr;
  EXPECT_EQ(localOf("Lx/Y;", none), nullOf(u"v", valueState::null));
}

TEST_F(exceptionPlaces, anObjectBeyondTheDepthIsNotRead) {
  begin(kVariables, "captureObjDepth=0");
  fake::object* const inner = objectWith("com.example.Inner", {});
  fake::object* const cart =
      objectWith("com.example.Cart", {{"o", "Lx/Y;", inner}, {"p", "Lx/Y;"}});
  EXPECT_THAT(fieldsOf(cart), ElementsAre(nullFieldOf(u"o", valueState::notRead),
                                          nullFieldOf(u"p", valueState::notRead)))
      << "nor is known which of them is null";
}

TEST_F(exceptionPlaces, whatCannotBeReadIsUnreadable) {
  begin(kVariables);
  fake::object* const string = vm.makeString("pen");
  vm.fail("GetStringUTFRegion", {.throwing = true});
  EXPECT_EQ(localOf("Ljava/lang/String;", string), nullOf(u"v", valueState::unreadable));
  EXPECT_THAT(fieldsOf(objectWith("com.example.Cart", {{"s", "Ljava/lang/String;", string}})),
              ElementsAre(nullFieldOf(u"s", valueState::unreadable)));
}

TEST_F(exceptionPlaces, whatTheRecordHasNoRoomForIsNotRead) {
  begin(kVariables, "recordBytes=4096");
  const std::string longText(8000, 'x');
  for (std::size_t filled = 3900; filled < 4096; ++filled) {
    const auto frames = placedOf({frameOf(
        "a.A.m", {{"s", "Lx/Y;",
                   objectWith("x.Y" + std::to_string(filled),
                              {{"a", "Ljava/lang/String;", vm.makeString(std::string(filled, 'y'))},
                               {"b", "Ljava/lang/String;", vm.makeString(longText)}})}})});
    EXPECT_NE(deliveries().back().facts & agent::record::kIsCut, 0U);
    const placedValue object = frames.at(0).sections[1].at(0);
    for (const placedValue& field : object.fields) {
      EXPECT_TRUE(field.state == valueState::value || field.state == valueState::notRead);
    }
  }
}

TEST_F(exceptionPlaces, aVariableThatTheVmHasNoValueForIsNotAvailable) {
  begin(kVariables);
  for (const jvmtiError error :
       {JVMTI_ERROR_INVALID_SLOT, JVMTI_ERROR_TYPE_MISMATCH, JVMTI_ERROR_OPAQUE_FRAME}) {
    vm.fail("GetLocalObject", {.error = error});
    const auto frames = placedOf({frameOf("a.A.m", {{"o", "Lx/Y;", vm.makeObject("x.Y")}},
                                          {{"n", "I", jint{4}}, {"p", "Lx/Y;"}})});
    EXPECT_THAT(frames.at(0).sections[1],
                ElementsAre(placedValue{.state = valueState::notAvailable}));
    ASSERT_THAT(frames.at(0).sections[2], SizeIs(2));
    EXPECT_EQ(frames.at(0).sections[2][0].text, u"4");
    EXPECT_EQ(frames.at(0).sections[2][1], placedValue{.state = valueState::notAvailable});
  }
}

TEST_F(exceptionPlaces, aVariableWithoutARangeIsOutOfScopeWhereItHasNoValue) {
  begin(kVariables);
  fake::frame frame = frameOf("a.A.m", {}, {{"o", "Lx/Y;", vm.makeObject("x.Y")}});
  frame.code->variables->at(0).length = 0;
  vm.fail("GetLocalObject", {.error = JVMTI_ERROR_INVALID_SLOT});
  EXPECT_THAT(placedOf({frame}).at(0).sections[2], IsEmpty());
}

TEST_F(exceptionPlaces, staticFieldsAreMarked) {
  begin(kVariables, "captureObjDepth=1");
  fake::javaClass* const type = vm.makeClass("com.example.Constants");
  const auto add = [&](const char* name, const char* signature, const fake::value& value) {
    vm.setStatic(vm.makeField(type, name, signature, kStaticField), value);
  };
  add("i", "I", jint{-5});
  add("d", "D", jdouble{2.5});
  add("s", "Ljava/lang/String;", vm.makeString("pen"));
  add("o", "Lx/Y;", vm.makeObject("x.Y"));
  add("none", "Lx/Y;", static_cast<fake::object*>(nullptr));
  vm.makeField(type, "own", "I");
  std::vector<bool> marks;
  for (const placedValue& each : fieldsOf(vm.makeObject(type))) {
    marks.push_back(each.isStatic);
  }
  EXPECT_THAT(marks, ElementsAre(true, true, true, true, true, false));
}

// --- Facts.

TEST_F(exceptionPlaces, theFactsTellWhetherItIsCaught) {
  begin();
  const fake::frame frame = frameOf("a.A.m");
  EXPECT_EQ(factsOf({frame}) & 0x1FU, agent::record::kIsCaughtKnown);
  vm.exception(thread(), frame.code, 10, vm.makeObject(kFailure), frame.code, 12);
  EXPECT_EQ(deliveries().back().facts & 0x1FU,
            agent::record::kIsCaughtKnown | agent::record::kIsCaught);
}

TEST_F(exceptionPlaces, theFactsTellWhetherTheThreadIsVirtual) {
  begin();
  thread()->type = vm.makeClass("java.lang.VirtualThread");
  EXPECT_NE(factsOf({frameOf("a.A.m")}) & agent::record::kIsVirtual, 0U);
}

TEST_F(exceptionPlaces, theFactsTellTheLimits) {
  begin({}, "captureObjDepth=4,captureObjType=5,captureSTDepth=17");
  const std::uint32_t facts = factsOf({frameOf("a.A.m")});
  EXPECT_EQ(facts >> 8U & 0xFU, 4U);
  EXPECT_EQ(facts >> 12U & 0xFU, 5U);
  EXPECT_EQ(facts >> 16U, 17U);
}

TEST_F(exceptionPlaces, theFactsOfMadeOnesDoNotKnowWhetherTheyAreCaught) {
  const std::uint32_t facts = agent::record::packed({.isCut = true, .isMade = true});
  EXPECT_EQ(facts, agent::record::kIsCut | agent::record::kIsMade);
}

}  // namespace
