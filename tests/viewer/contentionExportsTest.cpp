#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "comparison.h"
#include "comparisonTables.h"
#include "exports.h"
#include "jsonForm.h"
#include "testContention.h"
#include "testReport.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

profile runOf(const json& document = recordedContention()) {
  profile all;
  all.contentionReports = {parsedContention(document)};
  return all;
}

// With a lock report as well.
profile runOfBoth() {
  profile both = runOf();
  both.lockReports = {parsedReport()};
  both.stacks = parsedStacks();
  return both;
}

template <typename action>
std::string written(action write) {
  std::ostringstream out;
  write(out);
  return out.str();
}

std::string collapsed(const profile& all) {
  return written([&](std::ostream& out) { writeCollapsed(all, stacksIn(all), out); });
}

TEST(contentionCollapsed, hasBlockedNanosecondsOfWaiters) {
  const std::string text = collapsed(runOf());
  EXPECT_THAT(text, HasSubstr("com.example.shop.Cart@27ab01e4;refunds-2;java.lang.Thread.run("));
  EXPECT_THAT(text,
              HasSubstr(";com.example.shop.Ledger.refund(Ledger.java:130);com.example.shop.Cart"
                        ".clear(Cart.java:83) 62000000000\n"));
  EXPECT_THAT(text, HasSubstr("com.example.shop.Cart@27ab01e4;(not sampled);(no stack recorded) "
                              "41000000\n"));
  EXPECT_THAT(text, HasSubstr("com.example.shop.Request (others);(not sampled);(no stack recorded) "
                              "310000000\n"));
  EXPECT_THAT(text, Not(HasSubstr("Mailbox"))) << "waits are not contention";
}

TEST(contentionCollapsed, addsUpToTheTimeOfTheLocks) {
  std::istringstream lines(collapsed(runOf()));
  std::uint64_t sum = 0;
  for (std::string line; std::getline(lines, line);) {
    sum += std::stoull(line.substr(line.rfind(' ') + 1));
  }
  EXPECT_EQ(sum, 779'073'000'000U);
}

TEST(contentionCollapsed, doesNotMixTimesWithEntries) {
  EXPECT_EQ(collapsed(runOfBoth()), collapsed(runOf()));
}

TEST(contentionSpeedscope, countsNanoseconds) {
  const json document =
      json::parse(written([&](std::ostream& out) { writeSpeedscope(runOfBoth(), out); }));
  ASSERT_EQ(document["profiles"].size(), 2U);
  EXPECT_EQ(document["profiles"][0]["unit"], "none");
  EXPECT_EQ(document["profiles"][1]["unit"], "nanoseconds");
  EXPECT_EQ(document["profiles"][1]["name"], "Blocked time, c.json");
  EXPECT_EQ(document["profiles"][1]["endValue"], 779'073'000'000);
}

TEST(contentionCsv, hasLocksAndPairs) {
  const auto csv = [](csvTable what) {
    return written([&](std::ostream& out) { writeCsv(runOf(), what, out); });
  };
  EXPECT_THAT(
      csv(csvTable::contention),
      AllOf(HasSubstr("c.json,com.example.shop.PriceCache@5c29bfd1,com.example.shop.PriceCache"
                      ",,monitor,0,0,3,531000000000,190000000000,,\r\n"),
            HasSubstr("\r\nc.json,com.example.shop.Request (others),com.example.shop.Request,,"
                      "monitor,912,310000000,0,0,4100000,1795348802000,1795349098000\r\n")));
  EXPECT_THAT(csv(csvTable::pairs),
              HasSubstr("c.json,com.example.shop.Inventory@1f7a2c09,monitor,http-worker-1,"
                        "com.example.shop.Inventory.reserve(Inventory.java:41),restocker,"
                        "com.example.shop.Inventory.restock(Inventory.java:52),,38400000000,1920"
                        "\r\n"));
}

TEST(contentionPrometheus, keepsWaitsApart) {
  const std::string text = written([](std::ostream& out) { writePrometheus(runOf(), out); });
  EXPECT_THAT(text, HasSubstr("javanativeagent_contention_blocked_nanoseconds{report=\"c.json\","
                              "class=\"com.example.shop.Cart\",lock=\"com.example.shop.Cart@"
                              "27ab01e4\",kind=\"monitor\"} 62041000000\n"));
  EXPECT_THAT(text, HasSubstr("javanativeagent_contention_wait_nanoseconds{report=\"c.json\","
                              "class=\"com.example.shop.Mailbox\""));
  EXPECT_THAT(text, HasSubstr("javanativeagent_contention_deadlocks{report=\"c.json\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("javanativeagent_contention_stuck_threads{report=\"c.json\",lock="
                              "\"com.example.shop.PriceCache@5c29bfd1\"} 3\n"));
}

// The inventory's lock took a third longer, at a line further down, and the deadlock is gone.
json changed() {
  json document = recordedContention();
  lockIn(document, 1)["blockedNanos"] = 125'000'000'000;
  for (int id : {4, 5}) {
    json& lock = lockIn(document, id);
    lock["pairs"] = json::array();
    lock["stillBlocked"] = lock["stillBlockedNanos"] = 0;
  }
  for (json& stack : document["stacks"]) {
    for (json& frame : stack["frames"]) {
      if (frame == "com.example.shop.Inventory.reserve(Inventory.java:41)") {
        frame = "com.example.shop.Inventory.reserve(Inventory.java:45)";
      }
    }
  }
  document["writtenAt"] = document["endedAt"] = 1795348860000;
  return document;
}

TEST(contentionComparison, sumsByClassInMilliseconds) {
  const comparison both = compare(runOf(), runOf(changed()), {});
  ASSERT_EQ(both.tables.size(), 2U);
  const comparedTable& classes = both.tables[0];
  EXPECT_STREQ(classes.name, "contention");
  EXPECT_EQ(classes.rows.size(), 6U) << "no waits";
  const auto row = [&](const std::string& name) {
    return *std::find_if(classes.rows.begin(), classes.rows.end(),
                         [&](const comparedSum& one) { return one.name == name; });
  };
  EXPECT_EQ(row("com.example.shop.Cart").before, 62'041U);
  EXPECT_EQ(row("com.example.shop.Cart").after, 41U);
  EXPECT_EQ(row("java.util.concurrent.locks.ReentrantLock").before, 83'610U);
  EXPECT_EQ(changeOf(row("com.example.shop.Inventory"), both.limit), change::worse);
}

TEST(contentionComparison, joinsSitesWhateverTheirLines) {
  const comparison both = compare(runOf(), runOf(changed()), {});
  const comparedTable& sites = both.tables[1];
  const auto reserve = std::find_if(
      sites.rows.begin(), sites.rows.end(),
      [](const comparedSum& row) { return row.name == "com.example.shop.Inventory.reserve"; });
  ASSERT_NE(reserve, sites.rows.end());
  EXPECT_EQ(reserve->before, 76'700U);
  EXPECT_EQ(reserve->after, 76'700U);
}

TEST(contentionComparison, tellsWhatElseDiffers) {
  json after = changed();
  after["endedAt"] = nullptr;
  after["parks"] = "refused";
  const comparison both = compare(runOf(), runOf(after), {});
  EXPECT_THAT(
      both.tables[0].notes,
      ElementsAre("The profiles ran for 5 min 0 s before and 1 min 0 s after; sums are not scaled.",
                  "AFTER was not stopped when its report was written.",
                  "AFTER does not have the locks of java.util.concurrent: refused."));
  EXPECT_THAT(comparisonTables(both, 5, {}),
              HasSubstr("The profiles ran for 5 min 0 s before and 1 min 0 s after; "));
  const json form = json::parse(written([&](std::ostream& out) { writeJson(both, out); }));
  EXPECT_EQ(form["tables"][0]["notes"].size(), 3U);
}

TEST(contentionComparison, hasNoSitesWithoutSamples) {
  json unsampled = recordedContention();
  unsampled["settings"]["samplesPerSecond"] = 0;
  const comparison both = compare(runOf(), runOf(unsampled), {});
  EXPECT_FALSE(both.tables[0].notRecordedIn);
  EXPECT_EQ(both.tables[1].notRecordedIn, "AFTER");
}

}  // namespace
}  // namespace viewer
