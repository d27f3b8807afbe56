#include "comparison.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "comparisonTables.h"
#include "jsonForm.h"
#include "testReport.h"

namespace viewer {
namespace {

using testing::HasSubstr;
using testing::Not;

profile runOf(const std::string& report) {
  profile all;
  all.lockReports = {parsedReport(report)};
  all.stacks = parsedStacks();
  return all;
}

// The cart's lock went and another came, and the stock's blocks 6 seconds in place of 3.
profile changedRun() {
  return runOf(replaced(replaced(kReport, "\"a.Cart@7\"", "\"a.Till@5\""),
                        "\"count\": 12, \"graph\": [5, 7], \"totalBlockTime\": 3",
                        "\"count\": 12, \"graph\": [5, 7], \"totalBlockTime\": 6"));
}

TEST(comparison, decidesByBothLimits) {
  const threshold limit = {.percent = 10, .least = 5};
  EXPECT_EQ(changeOf({"", 100, 110}, limit), change::same) << "9.1 % of 110";
  EXPECT_EQ(changeOf({"", 100, 112}, limit), change::worse);
  EXPECT_EQ(changeOf({"", 100, 90}, limit), change::better);
  EXPECT_EQ(changeOf({"", 1, 5}, limit), change::same) << "only 4";
  EXPECT_EQ(changeOf({"", 0, 5}, limit), change::worse);
  EXPECT_EQ(changeOf({"", std::nullopt, 5}, limit), change::came);
  EXPECT_EQ(changeOf({"", 5, std::nullopt}, limit), change::went);
  EXPECT_EQ(changeOf({"", 4, std::nullopt}, limit), change::same);
  EXPECT_EQ(changeOf({"", 7, 7}, {.percent = 0, .least = 0}), change::same);
}

TEST(comparison, joinsLocksByClassAndSitesByMethod) {
  const comparison both = compare(runOf(kReport), changedRun(), {});
  ASSERT_EQ(both.tables.size(), 2U);
  const comparedTable& locks = both.tables[0];
  ASSERT_EQ(locks.rows.size(), 3U);
  EXPECT_EQ(locks.rows[0].name, "a.Stock");
  EXPECT_EQ(locks.rows[0].before, 3U);
  EXPECT_EQ(locks.rows[0].after, 6U);
  EXPECT_EQ(locks.rows[1].name, "a.Cart");
  EXPECT_FALSE(locks.rows[1].after);
  EXPECT_EQ(locks.rows[2].name, "a.Till");
  EXPECT_FALSE(locks.rows[2].before);
  EXPECT_EQ(both.tables[1].rows[0].before, both.tables[1].rows[0].after);
}

TEST(comparison, isShownWithTheThresholdThatDecides) {
  const std::string text = comparisonTables(compare(runOf(kReport), changedRun(), {}), 5, {});
  EXPECT_EQ(text,
            "A difference counts from 10 % and 1 on.\n"
            "\n"
            "locks, by blocked seconds: 1 worse, 1 came, 0 better, 1 went, 0 same\n"
            "Change  Name     Before  After  Difference       %\n"
            "------  -------  ------  -----  ----------  ------\n"
            "worse   a.Stock       3      6          +3  +100 %\n"
            "went    a.Cart        1      -          -1       -\n"
            "came    a.Till        -      1          +1       -\n"
            "\n"
            "sites, by contended entries: 0 worse, 0 came, 0 better, 0 went, 2 same\n");
}

TEST(comparison, ofRecordedRunsHasAllKinds) {
  const std::filesystem::path data = DATA_FOLDER;
  const comparison both =
      compare(readProfile({data / "shop-run"}),
              readProfile({data / "shop-run" / "locks-1.json", data / "memory-report.json"}), {});
  ASSERT_EQ(both.tables.size(), 4U);
  EXPECT_EQ(both.tables[3].rows[0].name, "com.example.shop.Session");
  EXPECT_EQ(both.tables[3].rows[0].after, 696640U);
  EXPECT_EQ(both.tables[2].notRecordedIn, "AFTER");
  EXPECT_TRUE(both.tables[2].rows.empty()) << "nothing went";
}

TEST(comparison, saysWhichRunLacksAKindOfReport) {
  const comparison both = compare(profile(), runOf(kReport), {});
  EXPECT_EQ(both.tables.size(), 2U);
  const std::string text = comparisonTables(both, 5, {});
  EXPECT_THAT(text, HasSubstr("\nlocks, by blocked seconds: not recorded in BEFORE\n"));
  EXPECT_THAT(text, Not(HasSubstr("came")));
}

TEST(comparison, takesARunThatMetNoExceptionAsRecorded) {
  EXPECT_EQ(compare(readProfile({DATA_FOLDER "/shop-run"}),
                    readProfile({DATA_FOLDER "/shop-run/run.json"}), {})
                .tables[2]
                .notRecordedIn,
            "AFTER")
      << "a run that was killed leaves no file";
  profile after = readProfile({DATA_FOLDER "/shop-run/run.json"});
  std::vector<std::string> none;
  after.exceptions.emplace().add(bytesOfText(R"({"recorded":0,"dropped":0})"), "e", none);
  const comparison both = compare(readProfile({DATA_FOLDER "/shop-run"}), std::move(after), {});
  const comparedTable& exceptions = both.tables[2];
  EXPECT_FALSE(exceptions.notRecordedIn);
  EXPECT_EQ(changeOf(exceptions.rows.at(0), {}), change::went);
}

TEST(comparison, saysOverHowManySessionsItSums) {
  profile twice = runOf(kReport);
  twice.lockReports.push_back(twice.lockReports[0]);
  EXPECT_THAT(comparisonTables(compare(runOf(kReport), std::move(twice), {}), 5, {}),
              HasSubstr("Summed over the sessions of each run: 1 before, 2 after.\n"));
}

TEST(comparison, hasAJsonForm) {
  std::ostringstream text;
  writeJson(compare(runOf(kReport), changedRun(), {}), text);
  const nlohmann::json form = nlohmann::json::parse(text.str());
  EXPECT_EQ(form["threshold"]["percent"], 10);
  EXPECT_TRUE(form["tables"][0]["notRecordedIn"].is_null());
  EXPECT_EQ(form["tables"][0]["rows"][1], nlohmann::json::parse(R"({"name": "a.Cart", "before": 1,
      "after": null, "change": "went"})"));
}

}  // namespace
}  // namespace viewer
