#include "reportModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "testReport.h"

namespace viewer {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

template <typename action>
std::string problemOf(action read) {
  try {
    read();
  } catch (const inputError& e) {
    return e.what();
  }
  return "no problem";
}

std::string problemOfReport(const std::string& text) {
  return problemOf([&] { parseLockReport(text, "r.json"); });
}

std::string problemOfStacks(const std::string& text) {
  return problemOf([&] { parseStackFile(text, "s.txt"); });
}

TEST(lockReportReader, readsTheSessionAndItsLocks) {
  const lockReport report = parseLockReport(kReport, "r.json");
  EXPECT_EQ(report.sessionName, "checkout");
  EXPECT_EQ(report.sessionId, 42);
  EXPECT_EQ(report.distinctStacks, 2U);
  ASSERT_EQ(report.locks.size(), 2U);
  const lockEntry& stock = report.locks[1];
  EXPECT_EQ(stock.name, "a.Stock@9");
  EXPECT_EQ(stock.entries, 12U);
  EXPECT_EQ(stock.blockedSeconds, 3U);
  EXPECT_EQ(stock.waitedSeconds, 2U);
  EXPECT_THAT(stock.entriesPerMinute, ElementsAre(5, 7));
}

TEST(lockReportReader, readsThreadsAndTheirStacks) {
  const lockReport report = parseLockReport(kReport, "r.json");
  ASSERT_EQ(report.locks[1].threads.size(), 2U);
  const threadEntry& thread = report.locks[1].threads[1];
  EXPECT_EQ(thread.name, "worker-2");
  EXPECT_EQ(thread.entries, 8U);
  EXPECT_EQ(thread.blockedSeconds, 2U);
  EXPECT_EQ(thread.waitedSeconds, 0U);
  ASSERT_EQ(thread.stacks.size(), 2U);
  EXPECT_EQ(thread.stacks[0].hash, 11U);
  EXPECT_EQ(thread.stacks[0].count, 5U);
}

TEST(lockReportReader, readsBlockers) {
  const lockReport report = parseLockReport(kReport, "r.json");
  ASSERT_EQ(report.blockers.size(), 2U);
  const blockerEntry& blocker = report.blockers[1];
  EXPECT_EQ(blocker.name, "worker-2");
  EXPECT_EQ(blocker.timesOwner, 3U);
  EXPECT_EQ(blocker.blockingPeriods, 2U);
  EXPECT_EQ(blocker.blockingSeconds, 5U);
  ASSERT_EQ(blocker.stacks.size(), 1U);
}

TEST(lockReportReader, knowsAStackSeenOnceByTheMemberName) {
  const lockReport report = parseLockReport(kReport, "r.json");
  EXPECT_EQ(report.blockers[1].stacks[0].hash, 22U);
  EXPECT_EQ(report.locks[1].threads[0].stacks[0].hash, 11U);
}

TEST(lockReportReader, takesTheLargestHash) {
  const lockReport report =
      parseLockReport(replaced(kReport, "\"11\": {", "\"18446744073709551615\": {"), "r.json");
  EXPECT_EQ(report.locks[0].threads[0].stacks[0].hash, 18446744073709551615U);
}

TEST(lockReportReader, takesCountsAsTheyWereCounted) {
  const lockReport report =
      parseLockReport(replaced(kReport, "\"count\": 12", "\"count\": -2147483648"), "r.json");
  EXPECT_EQ(report.locks[1].entries, 2147483648U);
}

TEST(lockReportReader, takesAnEmptySession) {
  const lockReport report = parseLockReport(
      R"({"sessionname":"","sessionid":-1,"lockmap":{},"stacktracemap":{},"blockingThreads":{}})",
      "r.json");
  EXPECT_EQ(report.sessionId, -1);
  EXPECT_THAT(report.locks, IsEmpty());
  EXPECT_THAT(report.blockers, IsEmpty());
}

TEST(lockReportReader, joinsSurrogatesInNames) {
  const lockReport report =
      parseLockReport(replaced(kReport, "checkout", "\xED\xA0\xBD\xED\xB8\x80"), "r.json");
  EXPECT_EQ(report.sessionName, "\xF0\x9F\x98\x80");
}

TEST(lockReportReader, reportsAnEmptyFile) {
  EXPECT_EQ(problemOfReport(""), "r.json: expected a lock report, found an empty file");
}

TEST(lockReportReader, reportsTruncation) {
  for (std::size_t length = 1; length < kReport.size(); length++) {
    ASSERT_THAT(problemOfReport(kReport.substr(0, length)),
                StartsWith("r.json: expected a JSON document: parse error at line "))
        << "the first " << length << " bytes";
  }
}

TEST(lockReportReader, reportsWhatIsNoJson) {
  EXPECT_THAT(problemOfReport("11=[at a.B.c()]"), StartsWith("r.json: expected a JSON document: "));
  EXPECT_THAT(problemOfReport(kReport + "x"), StartsWith("r.json: expected a JSON document: "));
}

TEST(lockReportReader, reportsAnotherDocument) {
  EXPECT_EQ(problemOfReport("[]"), "r.json: document: expected an object, found array");
  EXPECT_EQ(problemOfReport("{}"),
            "r.json: document: expected a member \"sessionname\", found none");
}

TEST(lockReportReader, reportsEachMissingMember) {
  for (const char* member :
       {"sessionname", "sessionid", "lockmap", "id", "count", "graph", "totalBlockTime",
        "totalWaitTime", "threadbean", "name", "stacktracebean", "stacktracemap", "blockingThreads",
        "blockingCount", "blockCount", "totalBlockingTime"}) {
    const std::string quoted = '"' + std::string(member) + '"';
    EXPECT_THAT(problemOfReport(replaced(kReport, quoted, "\"other\"")),
                HasSubstr(": expected a member " + quoted + ", found none"));
  }
}

TEST(lockReportReader, reportsTheWayToAWrongType) {
  EXPECT_EQ(problemOfReport(replaced(kReport, "\"count\": 8", "\"count\": \"8\"")),
            "r.json: lockmap / a.Stock@9 / threadbean / worker-2 / count: "
            "expected a whole number, found string");
  EXPECT_EQ(problemOfReport(replaced(kReport, "[5, 7]", "[5, 7.5]")),
            "r.json: lockmap / a.Stock@9 / graph / 1: expected a whole number, found number");
  EXPECT_EQ(problemOfReport(replaced(kReport, "\"checkout\"", "null")),
            "r.json: sessionname: expected a string, found null");
  EXPECT_EQ(problemOfReport(replaced(kReport, "[5, 7]", "{}")),
            "r.json: lockmap / a.Stock@9 / graph: expected an array, found object");
}

TEST(lockReportReader, reportsNumbersBeyond32Bits) {
  for (const char* number : {"2147483648", "-2147483649", "18446744073709551615"}) {
    EXPECT_EQ(problemOfReport(replaced(kReport, "42", number)),
              std::string("r.json: sessionid: expected a signed 32-bit number, found ") + number);
  }
}

TEST(lockReportReader, reportsAHashThatIsNone) {
  for (const char* name : {"", "1x", "-1", "18446744073709551616"}) {
    EXPECT_THAT(problemOfReport(replaced(kReport, "\"11\"", '"' + std::string(name) + '"')),
                HasSubstr("expected a stack's hash in decimal as the member's name"));
  }
}

TEST(stackFileReader, readsFramesFromTheTopDown) {
  const stackTexts stacks = parseStackFile(kStacks, "s.txt");
  ASSERT_EQ(stacks.size(), 2U);
  EXPECT_THAT(stacks.at(11), ElementsAre("a.Stock.take", "a.Worker.run"));
}

TEST(stackFileReader, takesAFileWithoutStacks) {
  EXPECT_THAT(parseStackFile("", "s.txt"), IsEmpty());
}

TEST(stackFileReader, takesAStackWithoutFrames) {
  EXPECT_THAT(parseStackFile("14695981039346656037=[]\n", "s.txt").at(14695981039346656037U),
              IsEmpty());
}

TEST(stackFileReader, takesTheHashZeroAndALastLineWithoutItsEnd) {
  EXPECT_THAT(parseStackFile("0=[at a.B.c()]", "s.txt").at(0), ElementsAre("a.B.c"));
}

TEST(stackFileReader, takesTheSameStackOfTwoReports) {
  EXPECT_EQ(parseStackFile(kStacks + kStacks, "s.txt").size(), 2U);
}

TEST(stackFileReader, keepsCommasAndBracketsInMethodNames) {
  EXPECT_THAT(parseStackFile("5=[at a.B.x,at=[y](),at a.B.z()]\n", "s.txt").at(5),
              ElementsAre("a.B.x,at=[y]", "a.B.z"));
}

TEST(stackFileReader, reportsTheLineThatIsNone) {
  const std::string good = "11=[at a.B.c()]\n";
  const std::string problem = "s.txt:2: expected a line HASH=[at a.b.C.method(),at ...]";
  for (const std::string bad :
       {"", "x", "=[at a.B.c()]", "1x=[at a.B.c()]", "12=[at a.B.c()", "12=[a.B.c()]",
        "12=[at a.B.c]", "12=[at", "12=", "12", "18446744073709551616=[at a.B.c()]"}) {
    EXPECT_EQ(problemOfStacks(good + bad + "\n" + good), problem) << bad;
  }
  EXPECT_EQ(problemOfStacks(good + "12=[at a.B"), problem) << "cut off by a full disk";
}

class files : public testing::Test {
 protected:
  files() {
    std::string pattern = testing::TempDir() + "viewerXXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~files() override { std::filesystem::remove_all(folder_); }

  std::filesystem::path folder_;
};

TEST_F(files, areReadWhole) {
  const auto path = folder_ / "r.json";
  // Longer than any block that a reader may take at once.
  std::ofstream(path) << std::string(300'000, ' ') << kReport;
  EXPECT_EQ(readLockReport(path).locks.size(), 2U);
}

TEST_F(files, thatCannotBeReadAreNamedWithTheReason) {
  const std::string missing = folder_ / "missing";
  EXPECT_EQ(problemOf([&] { readLockReport(missing); }),
            missing + ": cannot be read: No such file or directory");
  EXPECT_EQ(problemOf([&] { readStackFile(folder_); }),
            folder_.string() + ": cannot be read: Is a directory");
}

TEST_F(files, areNamedInErrorsOfTheirContent) {
  const std::string path = folder_ / "r.json";
  std::ofstream(path) << "{}";
  EXPECT_THAT(problemOf([&] { readLockReport(path); }), StartsWith(path + ": document: "));
}

// Recorded from the demo by scripts/record-sample.
TEST(recordedSession, isReadAndItsStacksAreAllInTheStackFile) {
  const std::filesystem::path data = DATA_FOLDER;
  const lockReport report = readLockReport(data / "lock-report.json");
  const stackTexts stacks = readStackFile(data / "lock-stacks.txt");
  EXPECT_EQ(report.sessionName, "shop under load");
  ASSERT_THAT(report.locks, Not(IsEmpty()));
  ASSERT_THAT(report.blockers, Not(IsEmpty()));
  EXPECT_EQ(stacks.size(), report.distinctStacks);
  for (const lockEntry& lock : report.locks) {
    EXPECT_THAT(lock.name, StartsWith("com.example.shop."));
    EXPECT_THAT(lock.threads, Not(IsEmpty()));
    for (const threadEntry& thread : lock.threads) {
      for (const stackUse& use : thread.stacks) {
        EXPECT_TRUE(stacks.contains(use.hash)) << lock.name << ", " << thread.name;
      }
    }
  }
}

}  // namespace
}  // namespace viewer
