#include "lockTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "testReport.h"

namespace viewer {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

lockReport report() {
  return parsedReport();
}
stackTable stacks() {
  return parsedStacks();
}

TEST(lockTablesOf, beginWithTheSession) {
  EXPECT_EQ(sessionLine(report(), {}),
            "Lock session 42 \"checkout\": 2 locks, 4 s blocked, 2 s waited, 2 distinct stacks\n");
}

TEST(lockTablesOf, rankLocksByBlockedTime) {
  EXPECT_EQ(topLocks(report(), {}, {}),
            "Top locks (2)\n"
            "#  Lock       Entries  Blocked s  Waited s  Share  Top thread  By minute\n"
            "-  ---------  -------  ---------  --------  -----  ----------  ---------\n"
            "1  a.Stock@9       12          3         2   75 %  worker-2    +#\n"
            "2  a.Cart@7         3          1         0   25 %  worker-1\n");
}

TEST(lockTablesOf, giveNoShareOfNothing) {
  lockReport idle = report();
  idle.locks.erase(idle.locks.begin());
  idle.locks[0].blockedSeconds = 0;
  EXPECT_THAT(topLocks(idle, {}, {}), HasSubstr("0      -"));
}

TEST(lockTablesOf, sayHowManyLocksAreShown) {
  const std::string table = topLocks(report(), {.rows = 1}, {});
  EXPECT_THAT(table, HasSubstr("Top locks (1 of 2)\n"));
  EXPECT_THAT(table, Not(HasSubstr("a.Cart@7")));
  EXPECT_THAT(lockDetails(report(), stacks(), {.rows = 1}, {}), Not(HasSubstr("a.Cart@7")));
}

TEST(lockTablesOf, showThreadsAndTheMostFrequentStackOfALock) {
  EXPECT_EQ(lockDetails(report(), stacks(), {.rows = 1}, {}),
            "1. a.Stock@9\n"
            "   Thread    Entries  Blocked s  Waited s  Stacks\n"
            "   --------  -------  ---------  --------  ------\n"
            "   worker-2        8          2         0       2\n"
            "   worker-1        4          1         2       2\n"
            "   Most frequent stack (6 of 11 entries, 2 distinct):\n"
            "     at a.Stock.take\n"
            "     at a.Worker.run\n");
}

TEST(lockTablesOf, limitThreadsAndFrames) {
  const std::string details =
      lockDetails(report(), stacks(), {.rows = 1, .threads = 1, .frames = 1}, {});
  EXPECT_THAT(details, Not(HasSubstr("worker-1")));
  EXPECT_THAT(details, HasSubstr("   ... 1 more\n"));
  EXPECT_THAT(details, HasSubstr("     at a.Stock.take\n     ... 1 more\n"));
}

TEST(lockTablesOf, showAHashWhoseTextIsMissing) {
  EXPECT_THAT(lockDetails(report(), {}, {.rows = 1}, {}),
              HasSubstr("     hash 11, not in a stack file that was given\n"));
}

TEST(lockTablesOf, showALockWithoutStacks) {
  lockReport waitedOnly = report();
  waitedOnly.locks.erase(waitedOnly.locks.begin());
  waitedOnly.locks[0].threads[0].stacks.clear();
  EXPECT_THAT(lockDetails(waitedOnly, {}, {}, {}), Not(HasSubstr("stack (")));
}

TEST(lockTablesOf, rankBlockersByBlockingTime) {
  EXPECT_EQ(blockers(report(), 9, {}),
            "Blockers (2)\n"
            "Owner thread  Found owning  Blocking periods  Blocking s\n"
            "------------  ------------  ----------------  ----------\n"
            "worker-2                 3                 2           5\n"
            "worker-1                 9                 4           1\n");
  EXPECT_THAT(blockers(report(), 1, {}), HasSubstr("Blockers (1 of 2)\n"));
}

constexpr const char* kSampleNote =
    "Owners are a sample: 812 owner lookups made, 2436 skipped, at most 100 a second.\n"
    "About 25 % were found; \"Estimate\" scales the counts, not periods and seconds.\n";

TEST(lockTablesOf, scaleOwnersWhereOwnerLookupsWereSkipped) {
  const lockReport sampled = parsedReport(kSampledReport);
  EXPECT_EQ(blockers(sampled, 9, {}),
            "Blockers (2)\n"
            "Owner thread  Found owning  Estimate  Blocking periods  Blocking s\n"
            "------------  ------------  --------  ----------------  ----------\n"
            "worker-2                 1         4                 2           5\n"
            "worker-1                 2         8                 4           1\n" +
                std::string(kSampleNote));
  EXPECT_EQ(
      topThreads(sampled, {.rows = 1}, {}),
      "Top threads (1 of 2)\n"
      "#  Thread    Locks  Entries  Blocked s  Waited s  Found owning  Estimate  Blocking s\n"
      "-  --------  -----  -------  ---------  --------  ------------  --------  ----------\n"
      "1  worker-1      2        7          2         2             2         8           1\n" +
          std::string(kSampleNote));
}

TEST(lockTablesOf, takeOwnersAsTheyAreWhereNoOwnerLookupWasSkipped) {
  for (const std::string& text : {kReport, replaced(kSampledReport, "2436", "0")}) {
    const lockReport all = parsedReport(text);
    const std::string tables = blockers(all, 9, {}) + topThreads(all, {}, {});
    EXPECT_THAT(tables, Not(AnyOf(HasSubstr("Estimate"), HasSubstr("sample"))));
  }
}

TEST(lockTablesOf, tellTheShareOfOwnersFound) {
  lockReport few = parsedReport(kSampledReport);
  few.ownerScale = 15;
  EXPECT_THAT(blockers(few, 9, {}), HasSubstr("\nAbout 7 % were found; "));
  few.ownerScale = 1000;
  EXPECT_THAT(blockers(few, 9, {}), HasSubstr("\nAbout <1 % were found; "));
  few.blockers.clear();
  EXPECT_EQ(blockers(few, 9, {}),
            "No blocking thread is in the report.\n"
            "Owners are a sample: 812 owner lookups made, 2436 skipped, at most 100 a second.\n");
}

TEST(lockTablesOf, tellNoShareWhereTheEntriesLeaveNothingToScale) {
  // The owners were found as often as there are entries: skipped lookups could have found no more.
  const lockReport capped = parsedReport(replaced(kSampledReport, "Count\": 2", "Count\": 14"));
  EXPECT_EQ(capped.ownerScale, 1);
  EXPECT_EQ(blockers(capped, 9, {}),
            "Blockers (2)\n"
            "Owner thread  Found owning  Estimate  Blocking periods  Blocking s\n"
            "------------  ------------  --------  ----------------  ----------\n"
            "worker-2                 1         1                 2           5\n"
            "worker-1                14        14                 4           1\n"
            "Owners are a sample: 812 owner lookups made, 2436 skipped, at most 100 a second.\n");
}

TEST(lockTablesOf, sayWhenThereIsNothing) {
  EXPECT_EQ(lockTables({}, {}, ranking::lock, {}, {}),
            "Lock session 0 \"\": 0 locks, 0 s blocked, 0 s waited, 0 distinct stacks\n"
            "\n"
            "No lock is in the report: nothing was contended, or no detail session was run.\n"
            "\n"
            "No blocking thread is in the report.\n");
}

TEST(lockTablesOf, listStacksOfLocksThatAreNotInTheReport) {
  const lockReport none = parsedReport(
      R"({"sessionname": "s", "sessionid": 1, "lockmap": {}, "stacktracemap": {"11": "", "33": ""},
          "blockingThreads": {}})");
  EXPECT_EQ(
      lockTables(none, parsedStacks(), ranking::lock, {}, {}),
      "Lock session 1 \"s\": 0 locks, 0 s blocked, 0 s waited, 2 distinct stacks\n"
      "\n"
      "No lock is in the report, but threads were blocked by some: see below.\n"
      "\n"
      "No blocking thread is in the report.\n"
      "\n"
      "Blocked, but at no lock of the report: 2 stacks\n"
      "They belong to locks that the summary session did not know, or to threads that did not "
      "fit. How\n"
      "  often and how long these were blocked is not known.\n"
      "  1.\n"
      "     at a.Stock.take\n"
      "     at a.Worker.run\n"
      "  2.\n"
      "     hash 33, not in a stack file that was given\n");
  EXPECT_THAT(lockTables(none, parsedStacks(), ranking::thread, {}, {}),
              HasSubstr("Blocked, but at no lock of the report: 2 stacks\n"));
}

TEST(lockTablesOf, keepWithinTheTerminal) {
  lockReport wide = report();
  wide.locks[0].name = "com.example." + std::string(200, 'x') + ".Stock@9";
  wide.locks[0].threads[0].name = std::string(200, 'w');
  stackTable deep;
  for (std::uint64_t hash : {11U, 22U}) {
    deep.add(hash, {"com.example." + std::string(200, 'y') + ".take"});
  }
  const terminalStyle narrow = {.width = 80};
  const std::string text =
      topLocks(wide, {.rows = 1}, narrow) + lockDetails(wide, deep, {.rows = 1}, narrow);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const bool heading = line.starts_with("1. ");  // names the lock in full
    EXPECT_TRUE(heading || line.size() <= 80) << line;
  }
}

TEST(lockTablesOf, showNoGraphOfASingleMinute) {
  lockReport brief = report();
  brief.locks[0].entriesPerMinute = {12};
  EXPECT_THAT(topLocks(brief, {}, {}), Not(HasSubstr("By minute")));
}

TEST(lockTablesOf, rankThreads) {
  EXPECT_EQ(topThreads(report(), {}, {}),
            "Top threads (2)\n"
            "#  Thread    Locks  Entries  Blocked s  Waited s  Found owning  Blocking s\n"
            "-  --------  -----  -------  ---------  --------  ------------  ----------\n"
            "1  worker-1      2        7          2         2             9           1\n"
            "2  worker-2      1        8          2         0             3           5\n");
}

TEST(lockTablesOf, rankSites) {
  EXPECT_EQ(topSites(report(), stacks(), {}, {}),
            "Top sites (2)\n"
            "#  Method        Entries  Share  Stacks  Locks  First lock\n"
            "-  ------------  -------  -----  ------  -----  ----------\n"
            "1  a.Stock.take        9   64 %       1      2  a.Stock@9\n"
            "2  a.Stock.put         5   36 %       1      1  a.Stock@9\n");
  EXPECT_THAT(topSites(report(), {}, {}, {}), HasSubstr("(not in a stack file)       14"));
}

TEST(lockTablesOf, rankClasses) {
  lockReport two = report();
  two.locks[1].name = "a.Stock@7";
  EXPECT_EQ(topLockClasses(two, {}, {}),
            "Top classes of locks (1)\n"
            "#  Class    Locks  Entries  Blocked s  Waited s  Share\n"
            "-  -------  -----  -------  ---------  --------  -----\n"
            "1  a.Stock      2       15          4         2  100 %\n");
}

TEST(lockTablesOf, showWhatTheyAreAskedFor) {
  const auto by = [](ranking what) { return lockTables(report(), stacks(), what, {}, {}); };
  EXPECT_THAT(by(ranking::thread), HasSubstr("Top threads"));
  EXPECT_THAT(by(ranking::site), HasSubstr("Top sites"));
  EXPECT_THAT(by(ranking::owner), Not(HasSubstr("Top locks")));
  EXPECT_THAT(by(ranking::lock), HasSubstr("Blockers"));
}

}  // namespace
}  // namespace viewer
