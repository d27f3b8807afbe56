#include "contentionReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "profile.h"
#include "testContention.h"
#include "testReport.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::uint64_t kStart = 1795348800000;

std::string problemIn(const json& document) {
  return problemOf([&] { parsedContention(document); });
}

// What is wrong with the recorded report where `change` was made.
template <typename action>
std::string problemOfChanged(action change) {
  json document = recordedContention();
  change(document);
  return problemIn(document);
}

TEST(contentionReportReader, readsWhatTheReportHas) {
  const contentionReport report = parsedContention();
  EXPECT_EQ(report.startedAt, kStart);
  EXPECT_EQ(report.endedAt, kStart + 300400);
  EXPECT_EQ(lengthOf(report), 300400U);
  EXPECT_EQ(report.settings.samplesPerSecond, 50U);
  EXPECT_EQ(report.cost.safepoints, 3120U);
  EXPECT_EQ(report.omitted.startsNotSeen, 2U);
  ASSERT_THAT(report.locks, SizeIs(10));
  const contentionLock& lock = *findLock(report, 1);
  EXPECT_EQ(nameOf(lock), "com.example.shop.Inventory@1f7a2c09");
  EXPECT_EQ(lock.field, "com.example.shop.Shop.inventory");
  EXPECT_EQ(lock.kind, lockKind::monitor);
  EXPECT_EQ(lock.entries, 18200U);
  EXPECT_EQ(lock.maxNanos, 412'000'000U);
  EXPECT_EQ(lock.firstAt, kStart + 1000);
  EXPECT_THAT(lock.histogram, SizeIs(19));
  ASSERT_THAT(lock.pairs, SizeIs(6));
  const contentionPair& first = lock.pairs.front();
  EXPECT_EQ(first.waiterThread, "http-worker-1");
  EXPECT_EQ(report.stacks[*first.waiterStack].frames.front(),
            "com.example.shop.Inventory.reserve(Inventory.java:41)");
  EXPECT_EQ(report.stacks[*first.ownerStack].frames[*first.holdingFrame],
            "com.example.shop.Inventory.restock(Inventory.java:52)");
  EXPECT_EQ(lock.pairs[4].ownerWaitsFor, 2U);
  EXPECT_EQ(lock.pairs[5].ownerNote, "changed");
  EXPECT_EQ(nameOf(report.otherLocks.back()), "com.example.shop.Request");
  EXPECT_THAT(report.windows, SizeIs(31));
  EXPECT_EQ(report.windows[11].locks[3].id, 3U);
  ASSERT_THAT(report.deadlocks, SizeIs(1));
  EXPECT_EQ(report.deadlocks[0][1].waitsFor, 4U);
}

TEST(contentionReportReader, ranksLocksByAllTimeOfThreadsThatWereAndAreBlocked) {
  const contentionReport report = parsedContention();
  EXPECT_EQ(report.locks[1].id, 3U) << "no thread has got it";
  EXPECT_EQ(totalOf(report.locks[1]), 531'000'000'000U);
  EXPECT_EQ(report.stuck.front().lock, 3U) << "the one that is stuck longest";
}

TEST(contentionReportReader, tellsTheLongestBlockThatGoesOn) {
  const contentionReport report = parsedContention();
  const longestBlock stuck = longestOf(report, *findLock(report, 3));
  EXPECT_EQ(stuck.nanos, 190'000'000'000U);
  EXPECT_TRUE(stuck.goesOn);
  const longestBlock ended = longestOf(report, *findLock(report, 1));
  EXPECT_EQ(ended.nanos, 412'000'000U);
  EXPECT_FALSE(ended.goesOn);
  json document = recordedContention();
  document["stuck"] = json::array();
  EXPECT_EQ(longestOf(parsedContention(document), *findLock(report, 3)).nanos, 177'000'000'000U)
      << "no less than the mean of those that are blocked";
}

TEST(contentionReportReader, passesOverMembersThatItDoesNotKnow) {
  json document = recordedContention();
  document["new"] = {{"a", {1, 2.5, nullptr}}};
  document["locks"][0]["new"] = json::array({json::object()});
  document["omitted"]["new"] = "x";
  EXPECT_THAT(parsedContention(document).locks, SizeIs(10));
}

TEST(contentionReportReader, refusesANewerVersion) {
  EXPECT_EQ(
      problemOfChanged([](json& all) { all["version"] = 2; }),
      "c.json: version: expected version 1, found 2: a newer agent wrote this report, read it "
      "with the twreport that came with it");
  EXPECT_EQ(problemOfChanged([](json& all) { all["version"] = 0; }),
            "c.json: version: expected version 1, found 0");
  EXPECT_EQ(problemOfChanged([](json& all) { all["report"] = "other"; }),
            "c.json: report: expected \"contention\", found \"other\"");
}

TEST(contentionReportReader, namesThePlaceOfWhatIsWrong) {
  const auto first = [](const char* member, const json& value) {
    return problemOfChanged([&](json& all) { all["locks"][0][member] = value; });
  };
  EXPECT_EQ(first("entries", -1),
            "c.json: locks / 0 / entries: expected a number of 0 or more, "
            "found -1");
  EXPECT_EQ(first("blockedNanos", 18446744073709551615ULL),
            "c.json: locks / 0 / blockedNanos: expected a signed 64-bit number, found "
            "18446744073709551615");
  EXPECT_EQ(first("maxNanos", 1.5),
            "c.json: locks / 0 / maxNanos: expected a whole number, found number");
  EXPECT_EQ(first("kind", "latch"),
            "c.json: locks / 0 / kind: expected monitor, lock, wait or park, found \"latch\"");
  EXPECT_EQ(first("firstAt", 253402300800000),
            "c.json: locks / 0 / firstAt: expected milliseconds since 1970, found "
            "253402300800000");
  EXPECT_EQ(first("histogram", json::array({1, "2"})),
            "c.json: locks / 0 / histogram / 1: expected a whole number, found string");
  EXPECT_EQ(first("pairs", nullptr), "c.json: locks / 0 / pairs: expected an array, found null");
  EXPECT_EQ(problemOfChanged([](json& all) { all["stuck"][0]["owner"]["stack"] = "x"; }),
            "c.json: stuck / 0 / owner / stack: expected a whole number or null, found string");
}

TEST(contentionReportReader, needsEveryMember) {
  const json document = recordedContention();
  const auto expectNeeded = [&](const json::json_pointer& in) {
    for (const auto& [member, value] : document[in].items()) {
      json changed = document;
      changed[in].erase(member);
      EXPECT_THAT(problemIn(changed), HasSubstr("expected a member \"" + member + "\", found none"))
          << in;
    }
  };
  for (const char* in : {"", "/settings", "/cost", "/omitted", "/locks/0", "/locks/0/pairs/0",
                         "/otherLocks/0", "/windows/0", "/windows/0/locks/0", "/stacks/0",
                         "/stuck/0", "/stuck/0/owner", "/stuck/0/waiters/0", "/deadlocks/0/0"}) {
    expectNeeded(json::json_pointer(in));
  }
}

// The recorded report with one element of each array.
json shortened() {
  json document = recordedContention();
  for (const char* array :
       {"/locks", "/otherLocks", "/windows", "/stacks", "/stuck", "/locks/0/pairs",
        "/windows/0/locks", "/stacks/0/frames", "/stuck/0/waiters"}) {
    json& all = document[json::json_pointer(array)];
    all.erase(all.begin() + 1, all.end());
  }
  return document;
}

TEST(contentionReportReader, survivesAnyTypeAnywhere) {
  const json document = shortened();
  const json values = document.flatten();
  for (const auto& [path, value] : values.items()) {
    for (const json& other : {json(nullptr), json(-1), json("x"), json(true), json(0.5),
                              json::array(), json::object(), json(9223372036854775807)}) {
      json changed = document;
      changed[json::json_pointer(path)] = other;
      const std::string problem = problemIn(changed);
      EXPECT_TRUE(problem == "no problem" || problem.starts_with("c.json: ")) << problem;
    }
  }
}

TEST(contentionReportReader, survivesAFileThatIsCut) {
  std::ostringstream text;
  text << std::ifstream(DATA_FOLDER "/contention-run/contention-1.json").rdbuf();
  for (std::size_t size = 1; size < text.str().size() - 2; size += 97) {
    std::vector<std::string> problems;
    EXPECT_THAT(problemOf([&] {
                  readContentionReport(bytesOfText(text.str().substr(0, size)), "c.json", problems);
                }),
                StartsWith("c.json: expected a JSON document: "));
  }
}

TEST(contentionReportReader, takesStacksThatAreMissingForUnknown) {
  json document = recordedContention();
  lockIn(document, 1)["pairs"][0]["waiterStack"] = 4711;
  document["stuck"][0]["waiters"][0]["stack"] = 4711;
  std::vector<std::string> problems;
  const contentionReport report =
      readContentionReport(bytesOfText(document.dump()), "c.json", problems);
  EXPECT_FALSE(findLock(report, 1)->pairs[0].waiterStack);
  EXPECT_THAT(problems, ElementsAre("c.json: stacks: expected those that the report refers to, did "
                                    "not find 2 of them"));
}

TEST(contentionReportReader, refusesIdsThatComeTwice) {
  EXPECT_EQ(problemOfChanged([](json& all) { all["stacks"][1]["id"] = 1; }),
            "c.json: stacks: expected each id once, found 1 again");
  EXPECT_EQ(problemOfChanged([](json& all) { lockIn(all, 3)["id"] = 1; }),
            "c.json: locks: expected each id once, found 1 again");
}

TEST(contentionReportReader, takesSumsBeyond64BitsForTheLargestNumber) {
  json document = recordedContention();
  lockIn(document, 3)["blockedNanos"] = 9223372036854775807;
  lockIn(document, 3)["stillBlockedNanos"] = 9223372036854775807;
  EXPECT_EQ(totalOf(parsedContention(document).locks[0]), 18446744073709551614U);
  EXPECT_EQ(plus(18446744073709551614U, 2), 18446744073709551615U);
}

TEST(contentionReportReader, namesLocksWhoseClassWasUnloaded) {
  json document = recordedContention();
  lockIn(document, 1)["class"] = nullptr;
  const contentionReport report = parsedContention(document);
  EXPECT_EQ(lockNameOf(report, 1), "(unloaded class)@1f7a2c09");
  EXPECT_EQ(lockNameOf(report, 99), "(lock 99, not in the report)");
}

class contentionFiles : public testing::Test {
 protected:
  contentionFiles() {
    std::string folder = testing::TempDir() + "contentionXXXXXX";
    folder_ = mkdtemp(folder.data());
  }
  ~contentionFiles() override { std::filesystem::remove_all(folder_); }

  void write(const char* name, const std::string& text) const {
    std::ofstream(folder_ / name) << text;
  }

  std::filesystem::path folder_;
};

TEST_F(contentionFiles, areRecognisedByTheirContent) {
  json second = recordedContention();
  second["startedAt"] = kStart + 1;
  write("any-name", recordedContention().dump());
  write("contention-2.json", second.dump());
  write("other.json", R"({"report": "weather", "version": 1})");
  const profile all = readProfile({folder_});
  EXPECT_THAT(all.problems, IsEmpty());
  ASSERT_THAT(all.contentionReports, SizeIs(2)) << "each file is a session of its own";
  EXPECT_EQ(all.contentionReports[1].startedAt, kStart + 1);
  EXPECT_FALSE(all.empty());
  EXPECT_TRUE(holdsAny(all));
}

TEST_F(contentionFiles, areMissedWhenTheyAreDamaged) {
  write("contention-1.json", "{\"report\"");
  write("contention-2.json", R"({"report": "contention", "version": 1)");
  write("contention-3.json", "{}");
  EXPECT_THAT(readProfile({folder_}).problems,
              ElementsAre(HasSubstr("contention-1.json: expected a contention report"),
                          HasSubstr("contention-2.json: expected a JSON document"),
                          HasSubstr("contention-3.json: expected a contention report")));
}

TEST(contentionFilter, keepsLocksByNameFieldThreadAndFrame) {
  const auto left = [](const char* text) {
    profile all;
    all.contentionReports = {parsedContention()};
    filter(all, text);
    std::vector<std::uint64_t> ids;
    for (const contentionLock& lock : all.contentionReports[0].locks) {
      ids.push_back(lock.id);
    }
    return ids;
  };
  EXPECT_THAT(left("pricecache@"), ElementsAre(3));
  EXPECT_THAT(left("Ledger.LOCK"), ElementsAre(2));
  EXPECT_THAT(left("Restocker"), ElementsAre(1)) << "a frame of the owner";
  EXPECT_THAT(left("auditor"), ElementsAre(2));
  EXPECT_THAT(left("nowhere"), IsEmpty());
}

TEST(contentionFilter, keepsWhatBelongsToTheLocks) {
  profile all;
  all.contentionReports = {parsedContention()};
  filter(all, "Inventory@");
  const contentionReport& report = all.contentionReports[0];
  EXPECT_THAT(report.stuck, IsEmpty());
  EXPECT_THAT(report.deadlocks, IsEmpty());
  EXPECT_THAT(report.otherLocks, IsEmpty());
  EXPECT_TRUE(report.isFiltered);
  for (const contentionWindow& window : report.windows) {
    ASSERT_THAT(window.locks, SizeIs(1));
    EXPECT_EQ(window.blockedNanos, window.locks[0].blockedNanos);
    EXPECT_EQ(window.waitNanos, 0U);
  }
}

}  // namespace
}  // namespace viewer
