#include "reportTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "testReport.h"

namespace viewer {
namespace {

using testing::HasSubstr;
using testing::Not;

lockReport report() {
  return parseLockReport(kReport, "r.json");
}
stackTexts stacks() {
  return parseStackFile(kStacks, "s.txt");
}

TEST(reportTables, beginWithTheSession) {
  EXPECT_EQ(sessionLine(report()),
            "Lock session 42 \"checkout\": 2 locks, 4 s blocked, 2 s waited, 2 distinct stacks\n");
}

TEST(reportTables, rankLocksByBlockedTime) {
  EXPECT_EQ(topLocks(report(), {}),
            "Top locks (2)\n"
            "#  Lock       Entries  Blocked s  Waited s  Share  Top thread\n"
            "-  ---------  -------  ---------  --------  -----  ----------\n"
            "1  a.Stock@9       12          3         2   75 %  worker-2\n"
            "2  a.Cart@7         3          1         0   25 %  worker-1\n");
}

TEST(reportTables, rankEqualLocksByWaitsThenEntries) {
  lockReport equal;
  for (const auto& [name, entries, waited] :
       {std::tuple("few@1", 1U, 0U), {"many@2", 9U, 0U}, {"waited@3", 1U, 4U}}) {
    lockEntry lock;
    lock.name = name;
    lock.entries = entries;
    lock.waitedSeconds = waited;
    equal.locks.push_back(lock);
  }
  const std::string table = topLocks(equal, {});
  EXPECT_LT(table.find("waited@3"), table.find("many@2"));
  EXPECT_LT(table.find("many@2"), table.find("few@1"));
  EXPECT_THAT(table, HasSubstr("0      -")) << "no share of nothing: " << table;
}

TEST(reportTables, sayHowManyLocksAreShown) {
  const std::string table = topLocks(report(), {.locks = 1});
  EXPECT_THAT(table, HasSubstr("Top locks (1 of 2)\n"));
  EXPECT_THAT(table, Not(HasSubstr("a.Cart@7")));
  EXPECT_THAT(lockDetails(report(), stacks(), {.locks = 1}), Not(HasSubstr("a.Cart@7")));
}

TEST(reportTables, showThreadsAndTheMostFrequentStackOfALock) {
  EXPECT_EQ(lockDetails(report(), stacks(), {.locks = 1}),
            "1. a.Stock@9\n"
            "   Thread    Entries  Blocked s  Waited s  Stacks\n"
            "   --------  -------  ---------  --------  ------\n"
            "   worker-2        8          2         0       2\n"
            "   worker-1        4          1         2       2\n"
            "   Most frequent stack (6 of 11 entries, 2 distinct):\n"
            "     at a.Stock.take\n"
            "     at a.Worker.run\n");
}

TEST(reportTables, limitThreadsAndFrames) {
  const std::string details =
      lockDetails(report(), stacks(), {.locks = 1, .threads = 1, .frames = 1});
  EXPECT_THAT(details, Not(HasSubstr("worker-1")));
  EXPECT_THAT(details, HasSubstr("   ... 1 more\n"));
  EXPECT_THAT(details, HasSubstr("     at a.Stock.take\n     ... 1 more\n"));
}

TEST(reportTables, showAHashWhoseTextIsMissing) {
  EXPECT_THAT(lockDetails(report(), {}, {.locks = 1}),
              HasSubstr("     hash 11, not in a stack file that was given\n"));
}

TEST(reportTables, showALockWithoutStacks) {
  lockReport waitedOnly = report();
  waitedOnly.locks[0].threads[0].stacks.clear();
  waitedOnly.locks.resize(1);
  EXPECT_THAT(lockDetails(waitedOnly, {}, {}), Not(HasSubstr("stack (")));
}

TEST(reportTables, rankBlockersByBlockingTime) {
  EXPECT_EQ(blockers(report(), {}),
            "Blockers (2)\n"
            "Owner thread  Found owning  Blocking periods  Blocking s\n"
            "------------  ------------  ----------------  ----------\n"
            "worker-2                 3                 2           5\n"
            "worker-1                 9                 4           1\n");
  EXPECT_THAT(blockers(report(), {.threads = 1}), HasSubstr("Blockers (1 of 2)\n"));
}

TEST(reportTables, sayWhenThereIsNothing) {
  EXPECT_EQ(wholeReport({}, {}, {}),
            "Lock session 0 \"\": 0 locks, 0 s blocked, 0 s waited, 0 distinct stacks\n"
            "\n"
            "No lock is in the report: nothing was contended, or no detail session was run.\n"
            "\n"
            "No blocking thread is in the report.\n");
}

TEST(reportTables, keepWithinTheTerminal) {
  lockReport wide = report();
  wide.locks[1].name = "com.example." + std::string(200, 'x') + ".Stock@9";
  wide.locks[1].threads[0].name = std::string(200, 'w');
  stackTexts deep = {{11, {"com.example." + std::string(200, 'y') + ".take"}}};
  const std::string text =
      topLocks(wide, {.width = 80}) + lockDetails(wide, deep, {.locks = 1, .width = 80});
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const bool heading = line.starts_with("1. ");  // names the lock in full
    EXPECT_TRUE(heading || line.size() <= 80) << line;
  }
}

}  // namespace
}  // namespace viewer
