#include "exports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "testReport.h"

namespace viewer {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

profile runOf(const std::string& report) {
  profile all;
  all.lockReports = {parsedReport(report)};
  all.stacks = parsedStacks();
  return all;
}

std::string collapsed(const profile& all) {
  std::ostringstream out;
  writeCollapsed(all, stacksIn(all), out);
  return out.str();
}

std::string csv(const profile& all, csvTable what) {
  std::ostringstream out;
  writeCsv(all, what, out);
  return out.str();
}

std::string prometheus(const profile& all) {
  std::ostringstream out;
  writePrometheus(all, out);
  return out.str();
}

// Worker 1 entered the stock's lock 4 times, worker 2 came 8 times, of which 7 have stacks.
TEST(collapsed, hasLockAndThreadAtTheRoot) {
  EXPECT_EQ(collapsed(runOf(kReport)),
            "a.Stock@9;worker-2;a.Worker.run;a.Stock.take 5\n"
            "a.Stock@9;worker-2;a.Worker.run;a.Stock.put 2\n"
            "a.Stock@9;worker-2;(no stack recorded) 1\n"
            "a.Stock@9;worker-1;a.Worker.run;a.Stock.take 1\n"
            "a.Stock@9;worker-1;a.Worker.run;a.Stock.put 3\n"
            "a.Cart@7;worker-1;a.Worker.run;a.Stock.take 3\n");
}

TEST(collapsed, hasTheEntriesOfThreadsThatWereNotRecorded) {
  EXPECT_THAT(collapsed(runOf(replaced(kReport, "\"count\": 12", "\"count\": 20"))),
              HasSubstr("a.Stock@9;(threads beyond the limit);(no stack recorded) 8\n"));
}

TEST(collapsed, keepsNamesFromBreakingItsForm) {
  const std::string text = collapsed(runOf(replaced(kReport, "a.Cart@7", "a;b\\nc@7")));
  EXPECT_THAT(text, HasSubstr("a:b\uFFFDc@7;worker-1;"));
}

TEST(collapsed, showsAHashWhoseFramesAreNotKnown) {
  profile all = runOf(kReport);
  all.stacks = stackTable();
  EXPECT_THAT(collapsed(all), HasSubstr("a.Cart@7;worker-1;(stack 11) 3\n"));
}

TEST(speedscope, hasTheSameStacks) {
  std::ostringstream out;
  writeSpeedscope(runOf(kReport), out);
  const nlohmann::json document = nlohmann::json::parse(out.str());
  const nlohmann::json& one = document["profiles"][0];
  EXPECT_EQ(one["endValue"], 15);
  EXPECT_EQ(one["weights"], nlohmann::json({5, 2, 1, 1, 3, 3}));
  std::string first;
  for (const nlohmann::json& frame : one["samples"][0]) {
    first +=
        document["shared"]["frames"][frame.get<std::size_t>()]["name"].get<std::string>() + ';';
  }
  EXPECT_EQ(first, "a.Stock@9;worker-2;a.Worker.run;a.Stock.take;");
}

TEST(csvTables, haveAHeadingAndARowForEach) {
  EXPECT_EQ(csv(runOf(kReport), csvTable::locks),
            "session,lock,class,entries,blocked_seconds,waited_seconds,threads\r\n"
            "42,a.Stock@9,a.Stock,12,3,2,2\r\n"
            "42,a.Cart@7,a.Cart,3,1,0,1\r\n");
  EXPECT_EQ(csv(runOf(kReport), csvTable::blockers),
            "session,thread,times_owner,blocking_periods,blocking_seconds,estimated_times_owner\r\n"
            "42,worker-2,3,2,5,3\r\n"
            "42,worker-1,9,4,1,9\r\n");
}

TEST(csvTables, scaleOwnersWhereOwnerLookupsWereSkipped) {
  EXPECT_THAT(csv(runOf(kSampledReport), csvTable::blockers),
              EndsWith("\r\n42,worker-2,1,2,5,4\r\n42,worker-1,2,4,1,8\r\n"));
}

TEST(csvTables, quoteWhatNeedsIt) {
  EXPECT_THAT(csv(runOf(replaced(kReport, "a.Cart@7", "a \\\"b\\\", c@7")), csvTable::locks),
              HasSubstr("42,\"a \"\"b\"\", c@7\",\"a \"\"b\"\", c\",3,"));
}

TEST(csvTables, holdNoFormulas) {
  for (const std::string sign : {"=", "+", "-", "@"}) {
    EXPECT_THAT(csv(runOf(replaced(kReport, "a.Cart@7", sign + "1@7")), csvTable::locks),
                HasSubstr("42,'" + sign + "1@7,'" + sign + "1,3,"));
  }
}

TEST(csvTables, holdNoFormulasBehindBlanks) {
  const std::pair<std::string, std::string> blanks[] = {
      {" ", " "},           {"  ", "  "},         {"\\t", "\uFFFD"},    {"\\r\\n", "\uFFFD\uFFFD"},
      {"\u00A0", "\u00A0"}, {"\u3000", "\u3000"}, {"\uFEFF", "\uFEFF"}, {"\u061C", "\uFFFD"}};
  for (const auto& [blank, shown] : blanks) {
    EXPECT_THAT(csv(runOf(replaced(kReport, "a.Cart@7", blank + "=1@7")), csvTable::locks),
                HasSubstr("42,'" + shown + "=1@7,'" + shown + "=1,3,"));
  }
  EXPECT_THAT(csv(runOf(replaced(kReport, "a.Cart@7", " a=1@7")), csvTable::locks),
              HasSubstr("42, a=1@7, a=1,3,"));
}

TEST(csvTables, ofARecordedRun) {
  const profile all = readProfile({DATA_FOLDER "/shop-run"});
  EXPECT_THAT(csv(all, csvTable::exceptions),
              HasSubstr("\r\njava.lang.NullPointerException,"
                        "com.example.shop.Main.refund(Main.java:7),,,,,2,2026-11-21T15:21:36"));
  EXPECT_THAT(csv(all, csvTable::classes), HasSubstr(",com.example.shop.Session,3,11419,"));
}

TEST(prometheus, writesGauges) {
  const std::string text = prometheus(runOf(kReport));
  EXPECT_THAT(text, StartsWith("# HELP javanativeagent_lock_entries "));
  EXPECT_THAT(text, HasSubstr("\n# TYPE javanativeagent_lock_entries gauge\n"
                              "javanativeagent_lock_entries{session=\"42\",class=\"a.Cart\","
                              "lock=\"a.Cart@7\"} 3\n"));
  EXPECT_THAT(text, Not(HasSubstr("javanativeagent_exceptions")));
}

TEST(prometheus, countsTheExceptionsWithoutARecord) {
  const auto all = std::make_unique<profile>();
  std::vector<std::string> none;
  all->exceptions.emplace().add(
      bytesOfText(R"({"recorded":0,"dropped":3,"agent":{"seen":9,"filtered":1,"blackListed":0,)"
                  R"("overRate":4,"delivered":3,"cut":0,"failed":{"vm":1}}})"),
      "e", none);
  const std::string text = prometheus(*all);
  EXPECT_THAT(text,
              HasSubstr("\njavanativeagent_exceptions_without_record{reason=\"dropped\"} 3\n"));
  EXPECT_THAT(text, HasSubstr("{reason=\"rate\"} 4\n"));
  EXPECT_THAT(text, HasSubstr("{reason=\"failed\"} 1\n"));
}

TEST(prometheus, addsUpWhatHasTheSameLabels) {
  profile twice = runOf(kReport);
  twice.lockReports.push_back(twice.lockReports[0]);
  EXPECT_THAT(prometheus(twice), HasSubstr("lock=\"a.Cart@7\"} 6\n"));
}

TEST(prometheus, scalesOwnersWhereOwnerLookupsWereSkipped) {
  const std::string owner = "{session=\"42\",thread=\"worker-2\"} ";
  const std::string exact = prometheus(runOf(kReport));
  EXPECT_THAT(exact, HasSubstr("\njavanativeagent_owner_found" + owner + "3\n"));
  EXPECT_THAT(exact, HasSubstr("\njavanativeagent_owner_estimate" + owner + "3\n"));
  const std::string sampled = prometheus(runOf(kSampledReport));
  EXPECT_THAT(sampled, HasSubstr("\njavanativeagent_owner_found" + owner + "1\n"));
  EXPECT_THAT(sampled, HasSubstr("\njavanativeagent_owner_estimate" + owner + "4\n"));
}

TEST(prometheus, escapesLabels) {
  EXPECT_THAT(prometheus(runOf(replaced(kReport, "a.Cart@7", "a\\\"\\\\\\n@7"))),
              HasSubstr("class=\"a\\\"\\\\\uFFFD\""));
}

}  // namespace
}  // namespace viewer
