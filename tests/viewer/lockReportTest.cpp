#include "lockReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "profile.h"
#include "testReport.h"
#include "utf8.h"

namespace viewer {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::string problemOfReport(const std::string& text) {
  return problemOf([&] { parsedReport(text); });
}

TEST(lockReportReader, readsTheSessionAndItsLocks) {
  const lockReport report = parsedReport();
  EXPECT_EQ(report.sessionName, "checkout");
  EXPECT_EQ(report.sessionId, 42);
  EXPECT_EQ(report.distinctStacks, 2U);
  ASSERT_EQ(report.locks.size(), 2U);
  const lockEntry& stock = report.locks[0];
  EXPECT_EQ(stock.name, "a.Stock@9");
  EXPECT_EQ(stock.entries, 12U);
  EXPECT_EQ(stock.blockedSeconds, 3U);
  EXPECT_EQ(stock.waitedSeconds, 2U);
  EXPECT_THAT(stock.entriesPerMinute, ElementsAre(5, 7));
}

TEST(lockReportReader, tellsWhichStacksAreOfNoLock) {
  EXPECT_THAT(parsedReport().stacksOfNoLock, IsEmpty());
  const lockReport more = parsedReport(
      replaced(kReport, R"({"11": "", "22": ""})", R"({"33": "", "11": "", "5": ""})"));
  EXPECT_THAT(more.stacksOfNoLock, ElementsAre(33U, 5U));
}

TEST(lockReportReader, ranksEqualLocksByWaitsThenEntries) {
  const std::string lock = R"("%": {"id": "", "count": 1, "graph": [], "totalBlockTime": 0,
                                    "totalWaitTime": 0, "threadbean": {}})";
  const std::string few = replaced(lock, "%", "few");
  const std::string many = replaced(replaced(lock, "%", "many"), "1", "9");
  const std::string waited =
      replaced(replaced(lock, "%", "waited"), "WaitTime\": 0", "WaitTime\": 4");
  const lockReport report = parsedReport(
      R"({"sessionname": "", "sessionid": 1, "stacktracemap": {}, "blockingThreads": {},
          "lockmap": {)" +
      few + ',' + many + ',' + waited + "}}");
  ASSERT_EQ(report.locks.size(), 3U);
  EXPECT_EQ(report.locks[0].name, "waited");
  EXPECT_EQ(report.locks[1].name, "many");
  EXPECT_EQ(report.locks[2].name, "few");
}

TEST(lockReportReader, takesTheLastOfTwoLocksOfOneName) {
  const lockReport report = parsedReport(replaced(kReport, "a.Cart@7", "a.Stock@9"));
  ASSERT_EQ(report.locks.size(), 1U);
  EXPECT_EQ(report.locks[0].entries, 12U);
}

TEST(lockReportReader, passesOverMembersThatItDoesNotKnow) {
  const lockReport report = parsedReport(replaced(
      kReport, "\"sessionid\"", R"("more": {"a": [1, {"b": null}], "c": 1.5}, "sessionid")"));
  EXPECT_EQ(report.sessionId, 42);
  EXPECT_EQ(report.locks.size(), 2U);
}

TEST(lockReportReader, readsThreadsAndTheirStacks) {
  const lockReport report = parsedReport();
  ASSERT_EQ(report.locks[0].threads.size(), 2U);
  const threadEntry& thread = report.locks[0].threads[0];
  EXPECT_EQ(thread.name, "worker-2");
  EXPECT_EQ(thread.entries, 8U);
  EXPECT_EQ(thread.blockedSeconds, 2U);
  EXPECT_EQ(thread.waitedSeconds, 0U);
  ASSERT_EQ(thread.stacks.size(), 2U);
  EXPECT_EQ(thread.stacks[0].hash, 11U);
  EXPECT_EQ(thread.stacks[0].count, 5U);
}

TEST(lockReportReader, readsBlockers) {
  const lockReport report = parsedReport();
  ASSERT_EQ(report.blockers.size(), 2U);
  const blockerEntry& blocker = report.blockers[0];
  EXPECT_EQ(blocker.name, "worker-2");
  EXPECT_EQ(blocker.timesOwner, 3U);
  EXPECT_EQ(blocker.blockingPeriods, 2U);
  EXPECT_EQ(blocker.blockingSeconds, 5U);
  ASSERT_EQ(blocker.stacks.size(), 1U);
}

TEST(lockReportReader, readsTheOwnerLookups) {
  EXPECT_FALSE(parsedReport().lookups) << "of an agent without the limit";
  const lockReport report = parsedReport(kSampledReport);
  ASSERT_TRUE(report.lookups);
  EXPECT_EQ(report.lookups->perSecond, 100);
  EXPECT_EQ(report.lookups->made, 812);
  EXPECT_EQ(report.lookups->leftOut, 2436);
  const lockReport large = parsedReport(replaced(kSampledReport, "2436", "9223372036854775807"));
  EXPECT_EQ(large.lookups->leftOut, 9223372036854775807);
}

TEST(lockReportReader, reportsMalformedOwnerLookups) {
  const auto problem = [](const std::string& from, const std::string& to) {
    return problemOfReport(replaced(kSampledReport, from, to));
  };
  const std::string at = "r.json: ownerLookups";
  EXPECT_EQ(problem("{\"perSecond\": 100, \"made\": 812, \"leftOut\": 2436}", "812"),
            at + ": expected an object, found number");
  EXPECT_EQ(problem("\"made\"", "\"done\""), at + ": expected a member \"made\", found none");
  EXPECT_EQ(problem("\"leftOut\"", "\"x\""), at + ": expected a member \"leftOut\", found none");
  EXPECT_EQ(problem("812", "\"812\""), at + " / made: expected a whole number, found string");
  EXPECT_EQ(problem("812", "-1"), at + " / made: expected a number of 0 or more, found -1");
  EXPECT_EQ(problem("100", "0"), at + " / perSecond: expected a number of 1 or more, found 0");
  EXPECT_EQ(problem("2436", "9223372036854775808"),
            at + " / leftOut: expected a signed 64-bit number, found 9223372036854775808");
  EXPECT_EQ(problem("2436", "2.5"), at + " / leftOut: expected a whole number, found number");
}

// What is made of the one time that worker-2 was found, with `entries` contended entries in all.
std::uint64_t estimateOf(const std::string& lookups, const std::string& entries = "1000000") {
  const std::string report =
      replaced(replaced(kSampledReport, R"("made": 812, "leftOut": 2436)", lookups),
               "\"count\": 12", "\"count\": " + entries);
  const lockReport read = parsedReport(report);
  return estimatedTimesOwner(read, read.blockers[0]);
}

TEST(ownerEstimates, scaleCountsByTheLookupsSkipped) {
  EXPECT_EQ(estimateOf(R"("made": 10, "leftOut": 0)"), 1U);
  EXPECT_EQ(estimateOf(R"("made": 10, "leftOut": 30)"), 4U);
  EXPECT_EQ(estimateOf(R"("made": 10, "leftOut": 15)"), 3U) << "2.5, rounded";
  EXPECT_EQ(estimateOf(R"("made": 0, "leftOut": 15)"), 1U) << "nothing to scale by";
  EXPECT_EQ(estimatedTimesOwner(parsedReport(), parsedReport().blockers[0]), 3U) << "no limit";
}

TEST(ownerEstimates, comeToNoMoreThanTheEntries) {
  // Both owners were found three times together; three entries are the cart's.
  EXPECT_EQ(estimateOf(R"("made": 1, "leftOut": 999)", "27"), 10U);
  EXPECT_EQ(estimateOf(R"("made": 1, "leftOut": 9223372036854775807)", "27"), 10U);
  const lockReport odd =
      parsedReport(replaced(kSampledReport, "\"blockingCount\": 2", "\"blockingCount\": 99"));
  EXPECT_EQ(estimatedTimesOwner(odd, odd.blockers[1]), 99U) << "nor to less than was found";
}

TEST(ownerEstimates, areTheSameForASelectionOfLocks) {
  profile all;
  all.lockReports = {parsedReport(kSampledReport)};
  filter(all, "worker-2");
  ASSERT_EQ(all.lockReports[0].blockers.size(), 1U);
  EXPECT_EQ(estimatedTimesOwner(all.lockReports[0], all.lockReports[0].blockers[0]), 4U);
}

TEST(ownerEstimates, areNeededWhereLookupsWereSkipped) {
  EXPECT_FALSE(ownersAreSampled(parsedReport()));
  EXPECT_FALSE(ownersAreSampled(parsedReport(replaced(kSampledReport, "2436", "0"))));
  EXPECT_TRUE(ownersAreSampled(parsedReport(kSampledReport)));
}

TEST(lockReportReader, knowsAStackSeenOnceByTheMemberName) {
  const lockReport report = parsedReport();
  EXPECT_EQ(report.blockers[0].stacks[0].hash, 22U);
  EXPECT_EQ(report.locks[0].threads[1].stacks[0].hash, 11U);
}

TEST(lockReportReader, takesTheLargestHash) {
  const lockReport report =
      parsedReport(replaced(kReport, "\"11\": {", "\"18446744073709551615\": {"));
  EXPECT_EQ(report.locks[1].threads[0].stacks[0].hash, 18446744073709551615U);
}

TEST(lockReportReader, takesCountsAsTheyWereCounted) {
  const lockReport report =
      parsedReport(replaced(kReport, "\"count\": 12", "\"count\": -2147483648"));
  EXPECT_EQ(report.locks[0].entries, 2147483648U);
}

TEST(lockReportReader, refusesNegativeTimes) {
  for (const std::string time : {"totalBlockTime", "totalWaitTime", "totalBlockingTime"}) {
    const std::string quoted = '"' + time + "\": ";
    EXPECT_THAT(problemOfReport(replaced(kReport, quoted, quoted + "-1")),
                HasSubstr(time + ": expected a time of 0 or more seconds, found -"))
        << time;
  }
}

TEST(lockReportReader, takesAnEmptySession) {
  const lockReport report = parsedReport(
      R"({"sessionname":"","sessionid":-1,"lockmap":{},"stacktracemap":{},"blockingThreads":{}})");
  EXPECT_EQ(report.sessionId, -1);
  EXPECT_THAT(report.locks, IsEmpty());
  EXPECT_THAT(report.blockers, IsEmpty());
}

TEST(lockReportReader, joinsSurrogatesInNames) {
  const lockReport report = parsedReport(replaced(kReport, "checkout", "\xED\xA0\xBD\xED\xB8\x80"));
  EXPECT_EQ(report.sessionName, "\xF0\x9F\x98\x80");
}

TEST(lockReportReader, reportsAnEmptyText) {
  EXPECT_THAT(problemOfReport(""), StartsWith("r.json: expected a JSON document: parse error at "));
}

TEST(lockReportReader, reportsNestingThatIsTooDeep) {
  const std::string deep = "{\"lockmap\": " + std::string(100'000, '[');
  EXPECT_THAT(problemOfReport(deep), HasSubstr("expected an object, found array"));
  const std::string unknown = "{\"more\": " + std::string(100'000, '[');
  EXPECT_THAT(problemOfReport(unknown), HasSubstr("expected at most 200 objects and arrays"));
}

TEST(lockReportReader, cutsTheWayIntoADeepDocument) {
  std::string deep = "{";
  for (int i = 0; i < 300; i++) {
    deep += "\"member" + std::to_string(i) + "\": {";
  }
  const std::string problem = problemOfReport(deep);
  EXPECT_THAT(problem, HasSubstr("member198 / member199: expected at most 200 objects"));
  EXPECT_LT(problem.size(), 500U);
}

TEST(lockReportReader, cutsNoCharacterInErrors) {
  const std::string problem = problemOfReport("{\"a\": tru\u20ac}");
  EXPECT_THAT(problem, StartsWith("r.json: expected a JSON document: parse error at line 1"));
  EXPECT_EQ(problem, toUtf8(problem));
}

TEST(lockReportReader, keepsErrorsShort) {
  const std::string name(1'000'000, 'n');
  EXPECT_LT(problemOfReport(replaced(kReport, "a.Cart@7\": {", name + "\": [")).size(), 500U);
  EXPECT_LT(problemOfReport("{\"" + name).size(), 500U);
}

TEST(lockReportReader, countsThreadsOverAllLocks) {
  const std::vector<threadSum> threads = threadsOf(parsedReport());
  ASSERT_EQ(threads.size(), 2U);
  EXPECT_EQ(threads[0].name, "worker-1");
  EXPECT_EQ(threads[0].locks, 2U);
  EXPECT_EQ(threads[0].entries, 7U);
  EXPECT_EQ(threads[0].blockedSeconds, 2U);
  EXPECT_EQ(threads[0].waitedSeconds, 2U);
  EXPECT_EQ(threads[0].asOwner.timesOwner, 9U);
  EXPECT_EQ(threads[1].asOwner.blockingSeconds, 5U);
}

TEST(lockNames, areClassAndIdentity) {
  EXPECT_EQ(classOf("a.B@7"), "a.B");
  EXPECT_EQ(identityOf("a.B@7"), "7");
  EXPECT_EQ(classOf("a@b@7"), "a@b");
  EXPECT_EQ(classOf("a.B"), "a.B");
  EXPECT_EQ(identityOf("a.B"), "");
}

TEST(lockReportReader, reportsTruncation) {
  for (std::size_t length = 1; length < kReport.size(); length++) {
    ASSERT_THAT(problemOfReport(kReport.substr(0, length)),
                StartsWith("r.json: expected a JSON document: parse error at line "))
        << "the first " << length << " bytes";
  }
}

TEST(lockReportReader, reportsAZeroByte) {
  const std::string zero(1, '\0');
  EXPECT_EQ(problemOfReport(kReport + "\n" + zero + "{"),
            "r.json: expected a JSON document: found a zero byte in line " +
                std::to_string(std::count(kReport.begin(), kReport.end(), '\n') + 2));
  EXPECT_THAT(problemOfReport(replaced(kReport, "checkout", "check" + zero)),
              HasSubstr("found a zero byte in line 2"));
}

TEST(lockReportReader, reportsWhatIsNoJson) {
  EXPECT_THAT(problemOfReport("{sessionname: 1}"),
              StartsWith("r.json: expected a JSON document: "));
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

}  // namespace
}  // namespace viewer
