// The budget of a record: what fits is written as ever, what does not is cut, and the record says
// so.
#include <algorithm>
#include <cstring>
#include <vector>

#include "exceptionTest.h"
#include "exceptions/exceptionRecord.h"

namespace {

using namespace test;
using agent::record::builder;
using agent::record::typeCode;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

// --- The text under construction.

builder::outcome append(builder& out, const std::string& text, std::size_t most = 1 << 30) {
  const auto units = static_cast<std::size_t>(fake::utf16Length(text));
  return out.appendText(
      "s", typeCode::string, units, most, [&](std::size_t start, std::size_t count, char* to) {
        const std::string_view part =
            fake::utf16Part(text, static_cast<jsize>(start), static_cast<jsize>(count));
        std::memcpy(to, part.data(), part.size());
        to[part.size()] = '\0';
        return true;
      });
}

constexpr std::size_t kAround = sizeof("s%3A7%3A%2C") - 1;  // a text of that name

TEST(recordBudget, aTextThatFitsExactlyIsNotCut) {
  builder out(kAround + 3000);
  EXPECT_EQ(append(out, std::string(3000, 'x')), builder::outcome::written);
  EXPECT_EQ(out.text(), entry("s", 7, std::string(3000, 'x')));
  EXPECT_FALSE(out.isCut());
}

TEST(recordBudget, aTextThatIsOneByteLongerIsCut) {
  builder out(kAround + 3000);
  append(out, std::string(3001, 'x'));
  EXPECT_EQ(out.text(), entry("s", 7, std::string(3000, 'x')));
  EXPECT_TRUE(out.isCut());
}

// At each length around it: never within a character, never between the halves of a pair.
TEST(recordBudget, textsAreCutBetweenCharacters) {
  const std::string two = "\xC3\xA9";
  const std::string three = "\xE2\x82\xAC";
  const std::string pair = "\xED\xA0\xBD\xED\xB8\x80";
  const std::string lone = "\xED\xA0\xBD";
  const std::vector<std::string> characters{"a", two, three, pair, lone, "b", pair, pair, "c"};
  std::string all;
  std::vector<std::string> ends{""};
  for (const std::string& each : characters) {
    ends.push_back(all += each);
  }
  for (std::size_t room = 6; room <= all.size(); ++room) {
    builder out(kAround + room);
    append(out, all);
    const auto best = std::find_if(ends.rbegin(), ends.rend(),
                                   [&](const std::string& each) { return each.size() <= room; });
    EXPECT_EQ(out.text(), entry("s", 7, *best)) << room;
    EXPECT_EQ(out.isCut(), room < all.size()) << room;
  }
}

TEST(recordBudget, aPairAcrossTwoReadsIsNotSplit) {
  const std::string text =
      std::string(1023, 'x') + "\xED\xA0\xBD\xED\xB8\x80" + std::string(50, 'y');
  for (std::size_t room : {1025U, 1026U, 1028U}) {
    builder out(kAround + room);
    append(out, text);
    EXPECT_EQ(out.text(), entry("s", 7, std::string(1023, 'x'))) << room;
  }
  builder out(kAround + 1029);
  append(out, text);
  EXPECT_EQ(out.text(), entry("s", 7, text.substr(0, 1029)));
}

TEST(recordBudget, theMostCharactersOfATextAreNoCut) {
  builder out(1000);
  append(out, std::string(300, 'x'), 256);
  EXPECT_EQ(out.text(), entry("s", 7, std::string(256, 'x')));
  EXPECT_FALSE(out.isCut());
  builder exact(kAround + 256);
  append(exact, std::string(300, 'x'), 256);
  EXPECT_EQ(exact.text(), entry("s", 7, std::string(256, 'x')));
  EXPECT_FALSE(exact.isCut()) << "as many as there may be did fit";
}

TEST(recordBudget, aTextWithoutRoomForACharacterIsNotBegun) {
  builder out(kAround + 5);
  EXPECT_EQ(append(out, "a text"), builder::outcome::noRoom);
  EXPECT_EQ(out.text(), "");
  EXPECT_TRUE(out.isCut());
}

TEST(recordBudget, aTextThatCannotBeReadIsTakenBack) {
  builder out(10'000);
  const auto read = [](std::size_t start, std::size_t, char* to) {
    *to = '\0';
    return start == 0;
  };
  EXPECT_EQ(out.appendText("s", typeCode::string, 3000, 3000, read), builder::outcome::unreadable);
  EXPECT_EQ(out.text(), "");
  EXPECT_FALSE(out.isCut());
}

TEST(recordBudget, whatIsOpenIsAlwaysClosed) {
  for (std::size_t limit = 60; limit < 400; ++limit) {
    builder out(limit);
    if (!out.openFrame("a.B.m(B.java:1)%40%41")) {
      EXPECT_EQ(out.text(), "");
      continue;
    }
    std::vector<std::size_t> opened;
    for (int depth = 0; depth < 4 && !out.isCut(); ++depth) {
      const std::size_t each = out.openObject("object");
      if (each != builder::kNotOpen) {
        opened.push_back(each);
      }
    }
    for (int i = 0; i < 20 && !out.isCut(); ++i) {
      out.appendNumber("n", typeCode::integer, i);
    }
    for (; !opened.empty(); opened.pop_back()) {
      out.closeObject(opened.back());
    }
    for (const char* mark : {"%42", "%43", "%44", "%7C"}) {
      out.endSection(mark);
    }
    EXPECT_LE(out.size(), limit);
    EXPECT_THAT(out.text(), EndsWith("%42%43%44%7C")) << limit;
  }
}

TEST(recordBudget, anObjectOfWhichNothingFitsHasTheNullForm) {
  const std::string null = nullObject("o");
  builder out(null.size());
  const std::size_t opened = out.openObject("o");
  ASSERT_NE(opened, builder::kNotOpen);
  out.appendNumber("n", typeCode::integer, 1234567);
  out.closeObject(opened);
  EXPECT_EQ(out.text(), null);
  builder wide(1000);
  wide.closeObject(wide.openObject("o"));
  EXPECT_EQ(wide.text(), objectEntry("o", "")) << "nor is one without fields null";
}

// Bytes of memory, of which a text must not take more than the record itself and a little.
TEST(recordBudget, theTextNeverHasRoomForMuchMoreThanTheLimit) {
  for (const std::size_t limit :
       {std::size_t{4096}, std::size_t{1} << 20U, std::size_t{5} << 20U}) {
    builder out(limit);
    while (!out.isCut()) {
      append(out, std::string(5000, 'x'));
    }
    EXPECT_LE(out.text().capacity(), limit + 4096 + 8);
  }
}

// --- Records.

const captureSettings kVariables{.methodArguments = true, .localVariables = true};

class recordBudgets : public exceptionTest {
 protected:
  fake::object* textOf(std::size_t length) {
    return objectWith("com.example.Text",
                      {{"s", "Ljava/lang/String;", vm.makeString(std::string(length, 'x'))}});
  }
  // The longest record that a budget allows, of a text that is longer.
  std::size_t longest(const char* options, std::size_t length) {
    begin(kVariables, options);
    return recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", textOf(length)}})}).size();
  }
};

TEST_F(recordBudgets, withoutTheOptionARecordHasOneMebibyte) {
  const std::size_t size = longest("", 2 << 20);
  EXPECT_LE(size, 1U << 20U);
  EXPECT_GT(size, (1U << 20U) - 16U);
}

TEST_F(recordBudgets, theOptionIsTheBudget) {
  const std::size_t size = longest("recordBytes=100000", 1 << 20);
  EXPECT_LE(size, 100'000U);
  EXPECT_GT(size, 100'000U - 16U);
}

TEST_F(recordBudgets, theLeastBudgetIsTaken) {
  EXPECT_LE(longest("recordBytes=4096", 1 << 20), 4096U);
}

TEST_F(recordBudgets, lessThanTheLeastCountsAsNotGiven) {
  EXPECT_GT(longest("recordBytes=4095", 100'000), 100'000U);
}

TEST_F(recordBudgets, theMostIsTaken) {
  load("recordBytes=67108864");
  EXPECT_EQ(exceptions()->recordBytes, 64 << 20);
}

TEST_F(recordBudgets, moreThanTheMostCountsAsNotGiven) {
  load("recordBytes=67108865");
  EXPECT_EQ(exceptions()->recordBytes, 1 << 20);
}

TEST_F(recordBudgets, theOptionMayStandAfterTheFeatures) {
  load("features=exceptionprofiling,recordBytes=5000");
  EXPECT_EQ(exceptions()->recordBytes, 5000);
}

TEST_F(recordBudgets, aCutRecordEndsAfterItsLastWholeEntryAndKeepsItsForm) {
  begin(kVariables, "recordBytes=4096");
  const std::string record =
      recordOf({frameOf("a.A.m", {{"first", "I", jint{1}}, {"v", "Lx/Y;", textOf(10'000)}},
                        {{"never", "I", jint{2}}}),
                frameOf("b.B.n")});
  EXPECT_LE(record.size(), 4096U);
  const std::vector<frameSections> frames = framesIn(record);
  ASSERT_EQ(frames.size(), 1U) << "nothing follows what was cut";
  EXPECT_THAT(frames[0].arguments, StartsWith("first%3A4%3A1%2C!%23v%3A10%3As%3A7%3Axxx"));
  EXPECT_THAT(frames[0].arguments, EndsWith("xxx%2C!%23%2C"));
  EXPECT_EQ(frames[0].locals, "");
}

TEST_F(recordBudgets, eachCutRecordIsSaidAtLevel1) {
  begin(kVariables, "recordBytes=4096,logLevel=1");
  const std::vector<fake::frame> stack{frameOf("a.A.m", {}, {{"v", "Lx/Y;", textOf(10'000)}})};
  recordOf(stack);
  recordOf(stack);
  EXPECT_THAT(errors(), SizeIs(2));
  EXPECT_THAT(errors().front(), HasSubstr("The record of a thrown com.example.Failure is cut"));
}

TEST_F(recordBudgets, whatIsNotCutIsNotSaidToBe) {
  begin(kVariables, "recordBytes=4096,logLevel=1");
  recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", textOf(1000)}})});
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(recordBudgets, theCallbackCanAskWhetherItsRecordIsCut) {
  begin(kVariables, "recordBytes=4096");
  std::vector<bool> answers;
  const auto isCut = [&] {
    return Java_com_korvane_twutils_nativeagent_AgentCounters_isRecordCut(vm.env(), nullptr) ==
           JNI_TRUE;
  };
  inCallback = [&](fake::invocation&) { answers.push_back(isCut()); };
  for (const std::size_t length : {10'000U, 100U, 10'000U}) {
    recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", textOf(length)}})});
    answers.push_back(isCut());
  }
  EXPECT_THAT(answers, ElementsAre(true, false, false, false, true, false));
}

TEST_F(recordBudgets, aFrameThatDoesNotFitIsLeftOut) {
  begin({}, "recordBytes=4096");
  std::vector<fake::frame> stack;
  for (int i = 0; i < 100; ++i) {
    stack.push_back(frameOf("com.example.shop.checkout.Payment" + std::to_string(i) + ".process"));
  }
  const std::string record = recordOf(stack);
  EXPECT_LE(record.size(), 4096U);
  EXPECT_THAT(record, EndsWith("%40%41%42%43%44"));
  EXPECT_GT(framesIn(record).size(), 20U);
}

// A long text is asked for as far as it fits, not as a whole.
TEST_F(recordBudgets, aTextIsReadNoFurtherThanItFits) {
  begin(kVariables, "recordBytes=4096");
  vm.resetCalls();
  jlong asked = 0;
  vm.on("GetStringUTFRegion", [&](const fake::call& call) { asked += call.number; });
  recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", textOf(1'000'000)}})});
  EXPECT_GE(asked, 3500);
  EXPECT_LE(asked, 4096 + 1024);
  EXPECT_EQ(vm.calls("GetStringUTFChars"), 0U);
}

// Constants of an enumeration refer to each other: each level has 40 times as many entries.
fake::object* makeColour(fake::virtualMachine& vm) {
  fake::javaClass* const type = vm.makeClass("com.example.Colour");
  std::vector<fake::object*> all;
  for (int i = 0; i < 40; ++i) {
    all.push_back(vm.makeObject(type));
    vm.setStatic(vm.makeField(type, "C" + std::to_string(i), "Lcom/example/Colour;", 0x0008),
                 all.back());
  }
  return all.front();
}

TEST_F(recordBudgets, theWalkStopsWhenTheBudgetIsSpent) {
  begin(kVariables, "captureObjDepth=5,recordBytes=10000");
  fake::object* const colour = makeColour(vm);
  vm.resetCalls();
  const std::string record =
      recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", colour}, {"w", "Lx/Y;", colour}})});
  EXPECT_LE(record.size(), 10'000U);
  EXPECT_GT(record.size(), 9'900U);
  EXPECT_LT(vm.calls("GetStaticObjectField"), 100U);
  EXPECT_EQ(vm.calls("GetLocalObject"), 1U) << "nor is the next variable read";
}

TEST_F(recordBudgets, theFieldsOfAClassAreAskedForOnceInARecord) {
  begin(kVariables, "captureObjDepth=3,recordBytes=16777216");  // and so much more time
  fake::object* const colour = makeColour(vm);
  vm.resetCalls();
  recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", colour}})});
  EXPECT_GT(vm.calls("GetStaticObjectField"), 800U);
  EXPECT_EQ(vm.calls("GetFieldName"), 40U);
  EXPECT_EQ(vm.calls("GetStaticFieldID"), 40U);
  EXPECT_EQ(vm.calls("GetClassFields"), 1U);
}

// Whatever the VM makes of looking at fields: the handler's time has an end.
TEST_F(recordBudgets, theWalkStopsWhenItTakesTooLong) {
  begin(kVariables, "logLevel=1");
  fake::javaClass* const type = vm.makeClass("com.example.Wide");
  for (int i = 0; i < 5000; ++i) {
    vm.makeField(type, "f" + std::to_string(i), "I");
  }
  vm.on("GetIntField", [] {
    timespec now{};
    const auto nanos = [&] {
      ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
      return now.tv_sec * 1'000'000'000 + now.tv_nsec;
    };
    for (const long begun = nanos(); nanos() - begun < 20'000;) {
      continue;
    }
  });
  vm.resetCalls();
  const std::string record =
      recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", vm.makeObject(type)}})});
  EXPECT_THAT(record, EndsWith("%2C!%23%2C%44"));
  EXPECT_LT(vm.calls("GetIntField"), 1000U) << "of 5000, each of which takes 20 microseconds";
  EXPECT_THAT(errors().front(), HasSubstr("is cut"));
}

TEST_F(recordBudgets, threadLocalsAreCutLikeTheRest) {
  fake::field* const mapOfThread = vm.makeField(vm.classNamed("java.lang.Thread"), "threadLocals",
                                                "Ljava/lang/ThreadLocal$ThreadLocalMap;");
  fake::field* const tableOfMap =
      vm.makeField(vm.makeClass("java.lang.ThreadLocal$ThreadLocalMap"), "table",
                   "[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;");
  fake::object* const map = vm.makeObject("java.lang.ThreadLocal$ThreadLocalMap");
  vm.setField(map, tableOfMap,
              vm.makeArray("[Ljava.lang.ThreadLocal$ThreadLocalMap$Entry;",
                           {textOf(100), textOf(10'000), textOf(100)}));
  vm.setField(thread(), mapOfThread, map);
  begin({.threadLocals = true}, "recordBytes=4096");
  const std::string section = topOf({frameOf("a.A.m")}).threadLocals;
  EXPECT_THAT(section, HasSubstr("!%23ThreadLocals1%3A10%3As%3A7%3Axxx"));
  EXPECT_THAT(section, Not(HasSubstr("ThreadLocals2")));
  EXPECT_THAT(section, EndsWith("xxx%2C!%23"));
}

}  // namespace
