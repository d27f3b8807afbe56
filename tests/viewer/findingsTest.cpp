#include "findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testContention.h"
#include "testCounts.h"

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
                        "blocked for 12 min 59 s in total during 5 min 0 s, 68 % of it at "
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
              AllOf(HasSubstr("% of it at com.example.shop.Shop.inventory "),
                    Not(HasSubstr("at com.example.shop.PriceCache@"))));
}

TEST(findings, doNotBlameTheProgramForExceptionsOfTheAgent) {
  const std::string own =
      siteEntry("java.lang.InterruptedException",
                "com.korvane.twutils.nativeagent.companion.Timetable.step", 71, countMembers(9));
  countsParts parts;
  parts.sites =
      own + "," + siteEntry("com.acme.Refused", "com.acme.Door.open", 12, countMembers(2));
  parts.total = countMembers(11);
  profile all;
  all.exceptions = logOf("", {parts});
  EXPECT_THAT(findingsOf(all)[1].text,
              HasSubstr("11 exceptions were thrown, 2 of them com.acme.Refused in com.acme.Door"));
  parts.sites = own;
  parts.total = countMembers(9);
  all.exceptions = logOf("", {parts});
  EXPECT_THAT(
      findingsOf(all)[1].text,
      HasSubstr("9 exceptions were thrown, none of them seen outside the agent's classes."));
}

TEST(findings, blameTheAgentForExceptionsOfTheJdkOnlyWhereRecordsShowItsCall) {
  const std::string own = "com.korvane.twutils.nativeagent.companion.Growth.<init>:55";
  const auto failures = [&](int thrown, const std::vector<std::string>& callers) {
    countsParts parts;
    parts.sites = siteEntry("a.Bad", "java.util.Parser.parse", 7, countMembers(thrown)) + "," +
                  siteEntry("a.Refused", "a.Door.open", 12, countMembers(1));
    parts.total = countMembers(thrown + 1);
    std::string lines;
    for (const std::string& caller : callers) {
      lines += recordLine("a.Bad", {"java.util.Parser.parse:7", caller});
    }
    profile all;
    all.exceptions = logOf(lines, {parts});
    return findingsOf(all)[1].text;
  };
  EXPECT_THAT(failures(2, {own}), HasSubstr("3 exceptions were thrown, 1 of them a.Refused in "));
  EXPECT_THAT(failures(3, {own}), HasSubstr("4 exceptions were thrown, 3 of them a.Bad in "));
  EXPECT_THAT(failures(2, {own, "a.Shop.read:1"}), HasSubstr(", 2 of them a.Bad in "));
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

TEST(findings, nameTheClassWhereManyLocksShareTheTime) {
  nlohmann::json document = recordedContention();
  for (nlohmann::json& lock : document["locks"]) {
    lock["blockedNanos"] = 1'000'000;
    lock["stillBlockedNanos"] = 0;
    lock["kind"] = "monitor";
    lock["class"] = "com.example.shop.Cart";
  }
  document["otherLocks"] = nlohmann::json::array();
  EXPECT_THAT(findingsOf(with(document))[0].text,
              HasSubstr("100 % of it at locks of com.example.shop.Cart."));
}

TEST(findings, nameTheHolderOfTheMostTimeOverAllItsPairs) {
  nlohmann::json document = recordedContention();
  const std::string before = findingsOf(with(document))[0].text;
  EXPECT_THAT(before, HasSubstr(", mostly held by "));
  nlohmann::json& pairs = document["locks"][2]["pairs"];
  for (nlohmann::json& pair : pairs) {
    pair["ownerStack"] = nullptr;
  }
  EXPECT_THAT(findingsOf(with(document))[0].text, Not(HasSubstr("held")));
}

TEST(findings, doNotTakeAMissingReportForAnOptionThatIsOff) {
  profile all;
  all.run.emplace();
  EXPECT_EQ(findingsOf(all)[1].text, "Not known: exceptions were not recorded. Use --exceptions.");
  all.run->options = {{"locks", "true"}, {"exceptions", "true"}, {"allocations", "true"}};
  for (const finding& one : findingsOf(all)) {
    EXPECT_FALSE(one.isKnown);
    EXPECT_THAT(one.text, AllOf(HasSubstr("yet. No session ended, the JVM was killed, or it is"),
                                Not(HasSubstr("not recorded")), Not(HasSubstr("Use --"))));
  }
  all.run->removedReports = 3;
  EXPECT_THAT(findingsOf(all)[0].text, HasSubstr("and 3 older reports of the run were deleted."));
}

TEST(findings, tellThatNoClassWasTracked) {
  profile all;
  all.run.emplace().options = {{"memory", "true"}};
  all.memoryReports.emplace_back();
  EXPECT_THAT(findingsOf(all)[2].text, HasSubstr("the memory session tracked no class."));
  all.run->options["memory.track"] = "com.example.Session";
  EXPECT_THAT(findingsOf(all)[2].text, HasSubstr("No tracked object has survived a collection."));
}

TEST(findings, nameTheFieldOfALock) {
  nlohmann::json document = recordedContention();
  document["locks"][0]["blockedNanos"] = 900'000'000'000;
  EXPECT_THAT(
      findingsOf(with(document))[0].text,
      HasSubstr("at com.example.shop.Shop.inventory (com.example.shop.Inventory@1f7a2c09)"));
}

TEST(findings, tellThatTheReportsAreFiltered) {
  profile all = readProfile({kData / "shop-run"});
  filter(all, "Inventory");
  EXPECT_THAT(findingsOf(all)[0].text, HasSubstr(" Only what was selected counts."));
  filter(all, "nothing has this text");
  const std::vector<finding> none = findingsOf(all);
  EXPECT_EQ(none[0].text, "The lock session has no lock that was selected.");
  EXPECT_EQ(none[2].text, "The memory session has no class that was selected.");
}

TEST(findings, tellThatAReportIsFullOrStillGrows) {
  profile all = readProfile({kData / "shop-run"});
  all.run->options["locks.top"] = std::to_string(all.lockReports.front().locks.size());
  EXPECT_THAT(findingsOf(all)[0].text,
              AllOf(HasSubstr("Incomplete: "), HasSubstr("no room for more: locks.top limits")));
  nlohmann::json document = recordedContention();
  document["endedAt"] = nullptr;
  EXPECT_THAT(findingsOf(with(document))[0].text,
              HasSubstr("The profile still ran when this was written."));
}

TEST(findings, nameTheWorstOfSeveralLockSessions) {
  profile all = readProfile({kData / "shop-run"});
  all.lockReports.insert(all.lockReports.begin(), lockReport());
  all.lockReports.front().locks.emplace_back().blockedSeconds = 1;
  EXPECT_THAT(findingsOf(all)[0].text,
              AllOf(HasSubstr("blocked for 41 s"), HasSubstr("(The worst of 2 sessions.)")));
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
