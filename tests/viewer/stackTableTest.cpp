#include "stackTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testReport.h"

namespace viewer {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> framesOf(const stackTable& stacks, std::uint64_t hash) {
  std::vector<std::string> result;
  for (frameId frame : *stacks.find(hash)) {
    result.push_back(stacks.method(frame));
  }
  return result;
}

std::vector<std::string> problemsOfStacks(const std::string& text) {
  stackTable stacks;
  std::vector<std::string> problems;
  readStackFile(bytesOfText(text), "s.txt", stacks, problems);
  return problems;
}

TEST(stackFileReader, readsFramesFromTheTopDown) {
  const stackTable stacks = parsedStacks();
  ASSERT_EQ(stacks.size(), 2U);
  EXPECT_THAT(framesOf(stacks, 11), ElementsAre("a.Stock.take", "a.Worker.run"));
  EXPECT_EQ(stacks.find(12), nullptr);
}

TEST(stackFileReader, takesAFileWithoutStacks) {
  EXPECT_EQ(parsedStacks("").size(), 0U);
}

TEST(stackFileReader, takesAStackWithoutFrames) {
  EXPECT_THAT(framesOf(parsedStacks("14695981039346656037=[]\n"), 14695981039346656037U),
              IsEmpty());
}

TEST(stackFileReader, takesTheHashZeroAndALastLineWithoutItsEnd) {
  EXPECT_THAT(framesOf(parsedStacks("0=[at a.B.c()]"), 0), ElementsAre("a.B.c"));
}

TEST(stackFileReader, takesTheSameStackOfTwoReports) {
  EXPECT_EQ(parsedStacks(kStacks + kStacks).size(), 2U);
}

TEST(stackFileReader, keepsCommasAndBracketsInMethodNames) {
  EXPECT_THAT(framesOf(parsedStacks("5=[at a.B.x,at=[y](),at a.B.z()]\n"), 5),
              ElementsAre("a.B.x,at=[y]", "a.B.z"));
}

TEST(stackFileReader, reportsTheLineThatIsNone) {
  const std::string good = "11=[at a.B.c()]\n";
  const std::string problem = "s.txt:2: expected a line HASH=[at a.b.C.method(),at ...]";
  for (const std::string bad :
       {"", "x", "=[at a.B.c()]", "1x=[at a.B.c()]", "12=[at a.B.c()", "12=[a.B.c()]",
        "12=[at a.B.c]", "12=[at", "12=", "12", "18446744073709551616=[at a.B.c()]"}) {
    EXPECT_THAT(problemsOfStacks(good + bad + "\n" + good), ElementsAre(problem)) << bad;
  }
  EXPECT_THAT(problemsOfStacks(good + "12=[at a.B"), ElementsAre(problem))
      << "cut off by a full disk";
}

TEST(stackFileReader, keepsTheStacksAroundABadLine) {
  EXPECT_EQ(parsedStacks("5=[at a.B.c()]\nx\n" + kStacks).size(), 3U);
}

TEST(stackFileReader, tellsOfManyBadLinesInFew) {
  std::string text = "x";
  for (int i = 1; i < 1000; i++) {
    text += "\nx";
  }
  const std::vector<std::string> problems = problemsOfStacks(text);
  ASSERT_EQ(problems.size(), 6U);
  EXPECT_EQ(problems.back(), "s.txt: 995 more lines are not stacks");
}

TEST(stackFileReader, knowsItsLinesByTheirStart) {
  EXPECT_TRUE(isStackLine("18446744073709551615=["));
  EXPECT_FALSE(isStackLine("=["));
  EXPECT_FALSE(isStackLine("a=["));
  EXPECT_FALSE(isStackLine("12"));
}

}  // namespace
}  // namespace viewer
