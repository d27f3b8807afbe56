#include "exceptionLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exceptionGroups.h"
#include "exceptionTables.h"
#include "testReport.h"

namespace viewer {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

const std::string kFull =
    R"({"time":"2026-11-21T14:35:15.123Z","thread":"main","class":"com.example.OutOfStock",)"
    R"("message":"no pens","caught":true,"frames":[{"method":"com.example.Shop.buy",)"
    R"("file":"Shop.java","line":42,"fields":[{"name":"open","type":"boolean","value":"1"}],)"
    R"("arguments":[{"name":"cart","type":"object","fields":[{"name":"qty","type":"int",)"
    R"("value":"3"}]},{"name":"card","type":"object","value":null}],"locals":[],)"
    R"("threadLocals":[{"name":"ThreadLocals3","type":"object","fields":[]}]},)"
    R"({"method":"com.example.Main.main","file":null,"line":-1}],)"
    R"("ambiguous":["two ways"],"raw":"com.example.Shop.buy(Shop.java:42)%40%41"})"
    "\n";

std::string lineOf(const std::string& className, const std::string& time) {
  return R"({"time":")" + time + R"(","thread":"t","class":")" + className +
         R"(","caught":false,"frames":[]})" + "\n";
}

struct reading {
  exceptionLog log;
  std::vector<std::string> problems;
};

reading readLog(const std::string& text) {
  reading result;
  result.log.add(bytesOfText(text), "e.jsonl", result.problems);
  return result;
}

TEST(exceptionLog, readsARecord) {
  const auto [log, problems] = readLog(kFull);
  EXPECT_THAT(problems, IsEmpty());
  ASSERT_EQ(log.size(), 1U);
  const exceptionRecord one = log.record(0);
  EXPECT_EQ(one.time, "2026-11-21T14:35:15.123Z");
  EXPECT_EQ(one.thread, "main");
  EXPECT_EQ(one.className, "com.example.OutOfStock");
  EXPECT_EQ(one.message, "no pens");
  EXPECT_EQ(one.caught, true);
  EXPECT_THAT(one.ambiguous, ElementsAre("two ways"));
  EXPECT_THAT(one.raw, StartsWith("com.example.Shop.buy("));
  ASSERT_EQ(one.frames.size(), 2U);
  EXPECT_EQ(placeOf(one.frames[0]), "com.example.Shop.buy(Shop.java:42)");
  EXPECT_EQ(placeOf(one.frames[1]), "com.example.Main.main");
  const std::vector<capturedValue>& arguments = one.frames[0].arguments;
  ASSERT_EQ(arguments.size(), 2U);
  ASSERT_TRUE(arguments[0].fields);
  EXPECT_EQ(arguments[0].fields->at(0).value, "3");
  EXPECT_FALSE(arguments[1].fields);
  EXPECT_FALSE(arguments[1].value);
  const capturedValue& empty = one.frames[0].threadLocals[0];
  EXPECT_TRUE(empty.fields) << "an object without fields is not null";
}

TEST(exceptionLog, readsTheSummary) {
  const auto [log, problems] = readLog(kFull + R"({"recorded":1,"dropped":7})");
  EXPECT_EQ(log.size(), 1U);
  ASSERT_TRUE(log.counted());
  EXPECT_EQ(log.counted()->recorded, 1U);
  EXPECT_EQ(log.counted()->dropped, 7U);
  EXPECT_FALSE(log.counted()->agent) << "an older version does not count them";
  EXPECT_FALSE(readLog(kFull).log.counted());
}

const std::string kCounts =
    R"("agent":{"seen":12238,"filtered":200,"blackListed":20,"overRate":12000,"delivered":15,)"
    R"("cut":2,"failed":{"stack":2,"callback":1,"memory":0,"vm":0}}})"
    "\n";

TEST(exceptionLog, readsWhatTheAgentCounted) {
  const auto [log, problems] = readLog(R"({"recorded":10,"dropped":5,)" + kCounts);
  EXPECT_THAT(problems, IsEmpty());
  ASSERT_TRUE(log.counted() && log.counted()->agent);
  EXPECT_EQ(log.counted()->agent->overRate, 12000U);
  EXPECT_EQ(failuresOf(*log.counted()->agent), 3U);
  EXPECT_EQ(failureReasons(*log.counted()->agent), "callback 1, stack 2");
}

TEST(exceptionLog, addsUpSeveralEnds) {
  const std::string end = R"({"recorded":1,"dropped":2,)" + kCounts;
  const auto [log, problems] = readLog(kFull + end + kFull + end);
  EXPECT_EQ(log.ends(), 2U);
  EXPECT_EQ(log.counted()->recorded, 2U);
  EXPECT_EQ(log.counted()->dropped, 4U);
  EXPECT_EQ(log.counted()->agent->seen, 12238U) << "the agent counts from the start of the JVM on";
  const std::string later = replaced(replaced(end, "12238", "12300"), "\"stack\":2", "\"stack\":9");
  EXPECT_EQ(readLog(end + later).log.counted()->agent->failed.at("stack"), 9U);
  EXPECT_EQ(readLog(later + end).log.counted()->agent->failed.at("stack"), 9U);
  EXPECT_FALSE(readLog(end + R"({"recorded":1,"dropped":2})").log.counted()->agent);
}

TEST(exceptionLog, refusesCountsBelowNone) {
  EXPECT_THAT(readLog(R"({"recorded":-1,"dropped":0})").problems,
              ElementsAre(StartsWith("e.jsonl:1: recorded: expected ")));
}

TEST(exceptionLog, tellsWhatWasLost) {
  const auto lost = [](const std::string& text) { return lossesOf(readLog(text).log); };
  EXPECT_THAT(lost(kFull + R"({"recorded":1,"dropped":0})"), IsEmpty());
  EXPECT_THAT(lost(kFull), ElementsAre(StartsWith("there is no end line")));
  EXPECT_THAT(lost(kFull + R"({"recorded":4,"dropped":2})"),
              ElementsAre(StartsWith("3 records that were written are in none of the files"),
                          "2 records were dropped"));
}

TEST(exceptionLog, ordersRecordsOfSeveralFilesByTime) {
  reading both;
  both.log.add(bytesOfText(lineOf("a.Late", "2026-11-21T15:00:00.000Z")), "e.jsonl", both.problems);
  const std::string early = lineOf("a.Early", "2026-11-21T14:00:00.000Z");
  both.log.add(bytesOfText(early), "e-1.jsonl", both.problems);
  EXPECT_EQ(both.log.record(0).className, "a.Early");
  EXPECT_EQ(both.log.record(1).className, "a.Late");
  EXPECT_THAT(both.log.sources(), ElementsAre("e.jsonl", "e-1.jsonl"));
}

TEST(exceptionLog, groupsByClassAndSite) {
  const auto [log, problems] = readLog(lineOf("a.X", "1") + kFull + lineOf("a.X", "3"));
  const std::vector<exceptionGroup> groups = groupsOf(log);
  ASSERT_THAT(groups, SizeIs(2));
  EXPECT_EQ(groups[0].className, "a.X");
  EXPECT_FALSE(groups[0].site);
  EXPECT_EQ(groups[0].uncaught, 2U);
  EXPECT_EQ(groups[0].first, "1");
  EXPECT_EQ(groups[0].last, "3");
  EXPECT_THAT(groups[0].records, ElementsAre(0, 2));
  EXPECT_EQ(groups[1].site, "com.example.Shop.buy(Shop.java:42)");
  EXPECT_EQ(groups[1].caught, 1U);
}

TEST(exceptionLog, keepsTheOtherLinesOfAFileWithBadOnes) {
  const auto [log, problems] = readLog(kFull + "{\"time\": 3}\n\n" + kFull + kFull.substr(0, 40));
  EXPECT_EQ(log.size(), 2U);
  ASSERT_THAT(problems, SizeIs(2));
  EXPECT_EQ(problems[0], "e.jsonl:2: time: expected a string, found number");
  EXPECT_THAT(problems[1], StartsWith("e.jsonl:5: expected a JSON document: parse error"));
}

TEST(exceptionLog, tellsOfManyBadLinesInFew) {
  std::string text;
  for (int i = 0; i < 1000; i++) {
    text += "{\n";
  }
  const auto [log, problems] = readLog(text);
  ASSERT_THAT(problems, SizeIs(6));
  EXPECT_EQ(problems.back(), "e.jsonl: 995 more lines are not exception records");
}

TEST(exceptionLog, refusesEndlessNesting) {
  std::string deep = R"({"time":"","thread":"","class":"","frames":[{"method":"","locals":[)";
  for (int i = 0; i < 100'000; i++) {
    deep += R"({"name":"","type":"object","fields":[)";
  }
  EXPECT_THAT(readLog(deep).problems, ElementsAre(HasSubstr("inside each other, found more")));
}

TEST(exceptionLog, readsEscapesAndModifiedUtf8) {
  const auto [log, problems] = readLog(lineOf("\xED\xA0\xBD\xED\xB8\x80\\uD83D\\uDE00\\n", "1"));
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_EQ(log.record(0).className, "\U0001F600\U0001F600\n");
}

TEST(exceptionTables, listClassesAndSites) {
  const auto [log, problems] = readLog(lineOf("a.X", "2026-11-21T14:00:00.000Z") + kFull + kFull);
  EXPECT_EQ(topExceptions(log, 5, {}, {.width = 120}),
            "Exceptions by class and site, 2026-11-21 (2)\n"
            "Records  Caught  Exception               Thrown in                           Message"
            "  First     Last      Record\n"
            "-------  ------  ----------------------  ----------------------------------  -------"
            "  --------  --------  ------\n"
            "      2       2  com.example.OutOfStock  com.example.Shop.buy(Shop.java:42)  no pens"
            "  14:35:15  14:35:15       2\n"
            "      1       0  a.X                     (no frames)                         -      "
            "  14:00:00  14:00:00       1\n");
  EXPECT_THAT(topExceptions(log, 5, {}, {.width = 119}), Not(HasSubstr("14:00:00")))
      << "times give way to names and messages";
  EXPECT_THAT(topExceptions(log, 1, {}, {}), HasSubstr("(1 of 2)"));
  const auto [days, none] =
      readLog(lineOf("a.X", "2026-11-21T14:00:00Z") + lineOf("a.Y", "2026-11-22T14:00:00Z"));
  EXPECT_THAT(topExceptions(days, 5, {}, {.width = 120}), HasSubstr("2026-11-22T14:00:00"));
}

TEST(exceptionTables, showARecordAsATree) {
  const auto [log, problems] = readLog(kFull);
  EXPECT_EQ(recordTree(log, 1, {}, {}),
            "Record 1 of 1: com.example.OutOfStock\n"
            "  message: no pens\n"
            "  2026-11-21T14:35:15.123Z, thread \"main\", caught\n"
            "  at com.example.Shop.buy(Shop.java:42)\n"
            "    arguments\n"
            "      cart: object\n"
            "        qty: int = 3\n"
            "      card: object = null\n"
            "    fields of this\n"
            "      open: boolean = true\n"
            "    thread locals\n"
            "      ThreadLocals3: object\n"
            "  at com.example.Main.main\n"
            "  in doubt: two ways\n");
}

TEST(exceptionTables, tellWhatIsNotAmongTheRecords) {
  EXPECT_EQ(
      exceptionLine(readLog(kFull + R"({"recorded":1,"dropped":5,)" + kCounts).log, {}),
      "Exceptions: 1 records, 1 written and 5 dropped by the program\n"
      "The agent saw 12,238 exceptions: 12,000 over the rate, 20 of excluded classes, 200 "
      "thrown in packages that are not recorded, 3 without a record (callback 1, stack 2), 15 "
      "handed over as records. Records that were cut: 2.\n"
      "Only records are known of each class and site: the agent's counts "
      "(exception-counts.json) are\n  missing. At most a few of a class are recorded in a minute, "
      "so there may have been more\n  exceptions.\n"
      "Incomplete: 5 records were dropped.\n"
      "Incomplete: no record could be made of 3 exceptions (callback 1, stack 2).\n");
  EXPECT_EQ(
      exceptionLine(readLog(kFull).log, {}),
      "Exceptions: 1 records\n"
      "Only records are known of each class and site: the agent's counts "
      "(exception-counts.json) are\n  missing. At most a few of a class are recorded in a minute, "
      "so there may have been more\n  exceptions.\n"
      "Incomplete: there is no end line: the JVM was killed or is still running.\n");
}

TEST(exceptionTables, accountForEachExceptionThatWasSeen) {
  EXPECT_THAT(
      exceptionLine(
          readLog(kFull + R"({"recorded":1,"dropped":0,"own":2,"agent":{"seen":9,)"
                          R"("filtered":1,"blackListed":0,"overRate":0,"delivered":3,"rethrown":2,)"
                          R"("cut":0,"failed":{}}})")
              .log,
          {}),
      HasSubstr(
          "1 written and 0 dropped by the program; 2 more, of the agent's own "
          "threads, not written\nThe agent saw 9 exceptions: 1 thrown in packages that are not "
          "recorded, 3 handed over as records, 2 thrown again, with a record of the first time "
          "only, 3 under way when capture ended.\n"));
}

TEST(exceptionTables, tellThatARecordWasCut) {
  const auto [log, problems] = readLog(replaced(kFull, "\"caught\"", "\"cut\":true,\"caught\""));
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_THAT(recordTree(log, 1, {}, {}), HasSubstr("  cut: the record was too long, values"));
  EXPECT_THAT(recordTree(readLog(kFull).log, 1, {}, {}), testing::Not(HasSubstr("cut:")));
}

TEST(exceptionTables, tellThatANullIsUncertain) {
  const auto [log, problems] =
      readLog(replaced(kFull, "\"value\":null", "\"value\":null,\"uncertain\":true"));
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_THAT(recordTree(log, 1, {}, {}), HasSubstr("      card: object = null (uncertain)\n"));
}

TEST(exceptionTables, sendNoControlCharacters) {
  const auto [log, problems] = readLog(lineOf("a\\u001b[2J\\u009b", "\\u0007"));
  const std::string all =
      exceptionLine(log, {}) + topExceptions(log, 5, {}, {}) + recordTree(log, 1, {}, {});
  EXPECT_EQ(all.find('\x1b'), all.npos);
  EXPECT_EQ(all.find('\x07'), all.npos);
  EXPECT_EQ(all.find("\xC2\x9B"), all.npos);
}

}  // namespace
}  // namespace viewer
