#include "findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testContention.h"

namespace viewer {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const std::filesystem::path kData = DATA_FOLDER;

profile with(nlohmann::json contention) {
  profile all;
  all.contentionReports.push_back(parsedContention(contention));
  return all;
}

TEST(findings, answerEachQuestionOfARecordedRun) {
  const std::vector<finding> all = findingsOf(readProfile({kData / "shop-run"}));
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].text,
            "Threads were blocked for 41 s, most at com.example.shop.Inventory@1262846286 (36 s, "
            "6,699 entries).");
  EXPECT_THAT(all[1].text, AllOf(HasSubstr("6 exceptions were recorded, 2 of them "),
                                 HasSubstr("More may have been thrown: they were not counted.")));
  EXPECT_THAT(all[2].text, AllOf(HasSubstr("11,419 objects of com.example.shop.Session survived"),
                                 HasSubstr("Only tracked classes were looked at.")));
  for (const finding& one : all) {
    EXPECT_TRUE(one.isKnown) << one.question;
  }
}

TEST(findings, nameTheOptionThatWouldAnswer) {
  const std::vector<finding> all = findingsOf({});
  for (std::size_t i = 0; i < all.size(); i++) {
    EXPECT_FALSE(all[i].isKnown);
    EXPECT_THAT(all[i].text, HasSubstr(i == 0   ? "--contention"
                                       : i == 1 ? "--exceptions"
                                                : "--allocations"));
  }
}

TEST(findings, beginWithThreadsThatDoNotGoOn) {
  nlohmann::json document = recordedContention();
  EXPECT_THAT(findingsOf(with(document))[0].text,
              HasSubstr("1 deadlock: refunds-1, refunds-2 wait for each other. Threads were "
                        "blocked for 779,073 ms in 5 min 0 s, 68 % of it at "
                        "com.example.shop.PriceCache@5c29bfd1, mostly held by "));
  document["deadlocks"] = nlohmann::json::array();
  EXPECT_THAT(findingsOf(with(document))[0].text, HasSubstr("Stuck at "));
}

TEST(findings, doNotBlameLocksAtWhichOnlyTheAgentWaited) {
  nlohmann::json document = recordedContention();
  for (nlohmann::json& pair : document["locks"][2]["pairs"]) {
    pair["waiterThread"] = "javanativeagent control";
  }
  EXPECT_THAT(findingsOf(with(document))[0].text,
              AllOf(HasSubstr("com.example.shop.Inventory@1f7a2c09"),
                    Not(HasSubstr("at com.example.shop.PriceCache@"))));
}

TEST(findings, tellWhatWasNotLookedAt) {
  nlohmann::json document = recordedContention();
  for (const char* array : {"locks", "otherLocks", "windows", "stuck", "deadlocks"}) {
    document[array] = nlohmann::json::array();
  }
  document["parks"] = "off";
  EXPECT_EQ(findingsOf(with(document))[0].text,
            "No thread was blocked at a lock in 5 min 0 s. Locks of java.util.concurrent were not "
            "looked at.");
}

TEST(findings, nameHowManySessionsThereWere) {
  profile all = with(recordedContention());
  all.contentionReports.push_back(all.contentionReports.front());
  EXPECT_THAT(findingsOf(all)[0].text, HasSubstr("(The longest of 2 profiles.)"));
}

TEST(findings, doNotTakeAMissingCollectionForAHeapWithoutGrowth) {
  profile all;
  all.allocations.emplace_back().samples.emplace();
  const finding leaks = findingsOf(all)[2];
  EXPECT_FALSE(leaks.isKnown);
  EXPECT_THAT(leaks.text, HasSubstr("no garbage collection ran"));
}

}  // namespace
}  // namespace viewer
