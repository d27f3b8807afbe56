#include "profile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "jsonForm.h"
#include "jsonWriter.h"
#include "profileTables.h"
#include "testReport.h"

namespace viewer {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

const fs::path kData = DATA_FOLDER;
const std::string kMemory =
    R"({"sessionname": "memoryLeak", "sessionid": 1, "topNMemoryleakClass": {}})";

class inputs : public testing::Test {
 protected:
  inputs() {
    std::string pattern = testing::TempDir() + "viewerXXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~inputs() override { fs::remove_all(folder_); }

  fs::path write(const std::string& name, const std::string& text) const {
    const fs::path file = folder_ / name;
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
    return file;
  }

  fs::path folder_;
};

TEST_F(inputs, areKnownByTheirContent) {
  const profile all = readProfile({write("a", kReport), write("b", kStacks), write("c", kMemory)});
  EXPECT_THAT(all.problems, IsEmpty());
  EXPECT_EQ(all.lockReports.size(), 1U);
  EXPECT_EQ(all.stacks.size(), 2U);
  EXPECT_EQ(all.memoryReports.size(), 1U);
}

TEST_F(inputs, ofARunTellWhatIsNotFinished) {
  write("run.json", R"({"java":"17","options":{}})");
  write("locks-1.json.part", "");
  write("locks-1.stacks.part", "");
  write("notes.json.part", "");
  const profile all = readProfile({folder_});
  EXPECT_THAT(all.problems, IsEmpty());
  EXPECT_THAT(all.unfinished, ElementsAre((folder_ / "locks-1.json.part").string()));
  EXPECT_THAT(
      profileTables(all, {}, {}),
      HasSubstr("locks-1.json.part: not finished: the JVM was killed or is still running.\n"));
  std::ostringstream json;
  writeJson(all, json);
  EXPECT_EQ(nlohmann::json::parse(json.str())["unfinished"].size(), 1U);
}

TEST_F(inputs, tellWhatSweepsComeTo) {
  write("memory-1.json", kMemory);
  EXPECT_FALSE(readProfile({folder_}).sweeps);
  const std::string lines = R"({"sweep":"a","classes":0,"full":["a.B"]})"
                            "\n"
                            R"({"sweep":"b","classes":3})"
                            "\n"
                            R"({"sweep":"c","classes":2,"full":["a.C"]})"
                            "\n";
  const fs::path sweeps = write("memory-1.sweeps", lines + "{\"swe");
  const profile all = readProfile({folder_});
  EXPECT_THAT(all.problems, IsEmpty());
  ASSERT_TRUE(all.sweeps);
  EXPECT_EQ(all.sweeps->classes, 3U);
  EXPECT_THAT(all.sweeps->full, ElementsAre("a.B", "a.C"));
  EXPECT_FALSE(all.sweeps->isCut);
  write("memory-1.sweeps", lines + R"({"leftOut":"all that follow"})");
  EXPECT_TRUE(readProfile({sweeps}).sweeps->isCut);
}

TEST_F(inputs, tellOfReportsThatWereDeleted) {
  write("run.json", R"({"pid":1,"java":"17","options":{},"removed":{"reports":7,"files":14}})");
  const profile all = readProfile({folder_});
  EXPECT_EQ(all.run->removedReports, 7);
  EXPECT_THAT(profileTables(all, {}, {}), HasSubstr("; 7 of its reports were deleted"));
}

TEST_F(inputs, areTakenApartByRuns) {
  write("run-1/run.json", R"({"pid":1,"java":"17","options":{}})");
  write("run-1/locks-1.json", kReport);
  write("run-2/run.json", R"({"pid":2,"java":"17","options":{}})");
  const auto names = [](const std::vector<profile>& runs) {
    std::vector<std::string> result;
    for (const profile& one : runs) {
      result.push_back(one.name);
    }
    return result;
  };
  const std::vector<profile> both = readRuns({folder_});
  EXPECT_THAT(names(both), ElementsAre("run-1", "run-2"));
  EXPECT_EQ(both[0].lockReports.size(), 1U);
  EXPECT_TRUE(both[1].lockReports.empty());
  EXPECT_EQ(both[1].run->pid, 2);
  EXPECT_THAT(names(readRuns({folder_ / "run-2/"})), ElementsAre("run-2"));
  write("locks-9.json", kReport);
  const fs::path loose = write("files/m", kMemory);
  EXPECT_THAT(names(readRuns({folder_, loose})), ElementsAre("run-1", "run-2", ""));
  const std::vector<profile> nothing = readRuns({folder_ / "nowhere"});
  ASSERT_THAT(nothing, SizeIs(1));
  EXPECT_THAT(nothing[0].problems, SizeIs(1));
}

TEST_F(inputs, areReadWholeAcrossBlocks) {
  // Characters of several bytes, so that the ends of blocks cut some of them.
  std::string name;
  for (int i = 0; i < 100'000; i++) {
    name += "\xED\xA0\xBD\xED\xB8\x80x";
  }
  const profile all = readProfile({write("r.json", replaced(kReport, "checkout", name))});
  ASSERT_EQ(all.lockReports.size(), 1U);
  const std::string& read = all.lockReports[0].sessionName;
  ASSERT_EQ(read.size(), 500'000U);
  for (std::size_t i = 0; i < read.size(); i += 5) {
    ASSERT_EQ(read.substr(i, 5), "\U0001F600x");
  }
}

TEST_F(inputs, ofAFolderAreAllThatAreReports) {
  write("locks-1.json", kReport);
  write("locks-1.stacks", kStacks);
  write("locks-2.json.part", "{");
  write("notes.txt", "11 and more");
  write("other.json", R"({"name": "x"})");
  write("exceptions.jsonl", "");
  write("logs/agent.log", "x");
  const profile all = readProfile({folder_});
  EXPECT_THAT(all.problems, IsEmpty());
  EXPECT_THAT(all.inputs, ElementsAre(folder_ / "locks-1.json", folder_ / "locks-1.stacks"));
  EXPECT_FALSE(all.exceptions);
}

TEST_F(inputs, ofAnOutputFolderAreThoseOfItsNewestRun) {
  write("run-20261121-090000-99/locks-1.json", replaced(kReport, "checkout", "old"));
  write("run-20261121-100000-7/locks-1.json", replaced(kReport, "checkout", "new"));
  const profile all = readProfile({folder_});
  ASSERT_EQ(all.lockReports.size(), 1U);
  EXPECT_EQ(all.lockReports[0].sessionName, "new");
}

TEST_F(inputs, ofARunHaveTheRunsData) {
  write("run.json", R"({"pid": 12, "started": "s", "java": "17", "vm": "v", "command": "c",
                        "options": {"locks": true, "locks.top": -1, "output": "o"}})");
  const profile all = readProfile({folder_});
  ASSERT_TRUE(all.run);
  EXPECT_EQ(all.run->pid, 12);
  EXPECT_EQ(all.run->options.at("locks"), "true");
  EXPECT_EQ(all.run->options.at("locks.top"), "-1");
  EXPECT_THAT(profileTables(all, {}, {}),
              StartsWith("Run of c, process 12, started s, Java 17\n\nWhat holds it up: "));
  EXPECT_THAT(profileTables(all, {}, {.width = 30}),
              StartsWith("Run of c\n  process 12, started s, Ja...\n"));
}

TEST_F(inputs, ofTwoRunsAreNotMixedSilently) {
  const fs::path run = write("run.json", R"({"pid": 12})");
  const profile all = readProfile({run, run});
  ASSERT_THAT(all.problems, SizeIs(1));
  EXPECT_THAT(all.problems[0], HasSubstr("expected the files of one run"));
}

TEST_F(inputs, thatCannotBeReadAreToldAndTheOthersRead) {
  write("a.json", "");
  write("b.json", kReport.substr(0, 100));
  write("c.json", kReport);
  const profile all = readProfile({folder_, folder_ / "missing"});
  EXPECT_EQ(all.lockReports.size(), 1U);
  ASSERT_THAT(all.problems, SizeIs(3));
  EXPECT_EQ(all.problems[0], folder_.string() + "/a.json: expected a report, found an empty file");
  EXPECT_THAT(all.problems[1], StartsWith(folder_.string() + "/b.json: expected a JSON document"));
  EXPECT_EQ(all.problems[2],
            folder_.string() + "/missing: cannot be read: No such file or directory");
}

TEST_F(inputs, ofAFolderWithTheAgentsNamesAreReportedWhenDamaged) {
  write("locks-1.json", std::string(100, '\0'));
  write("memory-1.json", "[]");
  write("locks-2.stacks", "gone");
  write("exceptions-1.jsonl", "gone");
  write("run.json", R"({"name": "x"})");
  write("other.jsonl", "gone");
  const profile all = readProfile({folder_});
  EXPECT_THAT(all.problems, SizeIs(5));
  for (const std::string& problem : all.problems) {
    EXPECT_THAT(problem, HasSubstr("expected a contention report, lock report, ")) << problem;
  }
}

TEST_F(inputs, areKnownByTheFirstLineThatTells) {
  const std::string record = R"({"time":"t","thread":"t","class":"a.X","frames":[]})";
  const profile all =
      readProfile({write("cut", record.substr(0, 12) + '\n' + record + '\n'),
                   write("other", "{\"a\": 1}\n" + record), write("stacks", "\x01\n" + kStacks)});
  ASSERT_TRUE(all.exceptions);
  EXPECT_EQ(all.exceptions->size(), 2U);
  EXPECT_EQ(all.stacks.size(), 2U);
  ASSERT_THAT(all.problems, SizeIs(3));
  EXPECT_THAT(all.problems[0], HasSubstr("cut:1: expected a JSON document"));
  EXPECT_THAT(all.problems[1], HasSubstr("other:1: "));
  EXPECT_THAT(all.problems[2], HasSubstr("stacks:1: expected a line HASH="));
}

TEST_F(inputs, mayBeginWithAByteOrderMark) {
  const std::string mark = "\xEF\xBB\xBF";
  const profile all =
      readProfile({write("a", mark + kReport), write("b", mark + kStacks), write("c", mark)});
  EXPECT_EQ(all.lockReports.size(), 1U);
  EXPECT_EQ(all.stacks.size(), 2U);
  ASSERT_THAT(all.problems, SizeIs(1));
  EXPECT_THAT(all.problems[0], HasSubstr("c: expected a report, found an empty file"));
}

TEST_F(inputs, thatTellOfSweepsArePassedOver) {
  write("locks-1.json", kReport);
  const fs::path sweeps = write("memory-1.sweeps", R"({"sweep":"2026-11-21T14:35:15Z","added":3})");
  for (const profile& all : {readProfile({folder_}), readProfile({sweeps})}) {
    EXPECT_THAT(all.problems, IsEmpty());
    EXPECT_TRUE(all.memoryReports.empty());
  }
}

TEST_F(inputs, thatAreNoReportsAreRefused) {
  const fs::path text = write("a.txt", "hello");
  const fs::path json = write("a.json", R"({"name": "x"})");
  fs::create_directory(folder_ / "empty");
  const fs::path pipe = folder_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const profile all = readProfile({text, json, folder_ / "empty", pipe});
  ASSERT_THAT(all.problems, SizeIs(4));
  EXPECT_THAT(all.problems[0], HasSubstr("a.txt: expected a contention report, lock report, "));
  EXPECT_THAT(all.problems[1], HasSubstr("a.json: expected a contention report, lock report, "));
  EXPECT_THAT(all.problems[2], HasSubstr("empty: expected reports in the folder, found none"));
  EXPECT_THAT(all.problems[3], HasSubstr("pipe: expected a file, found a pipe or device"));
}

TEST_F(inputs, mayHaveAnyName) {
  const profile all = readProfile({write("\x1b\xff.json", "")});
  ASSERT_THAT(all.problems, SizeIs(1));
  EXPECT_THAT(all.problems[0], HasSubstr("\x1b\uFFFD.json: expected a report"));
}

TEST(recordedRun, isReadWhole) {
  const profile all = readProfile({kData / "shop-run"});
  EXPECT_THAT(all.problems, IsEmpty());
  ASSERT_TRUE(all.run);
  ASSERT_EQ(all.lockReports.size(), 1U);
  ASSERT_TRUE(all.exceptions);
  EXPECT_EQ(all.exceptions->size(), 6U);
  EXPECT_EQ(all.exceptions->counted()->recorded, 6U);
  ASSERT_EQ(all.memoryReports.size(), 1U);
  EXPECT_EQ(all.memoryReports[0].classes[0].name, "com.example.shop.Session");
  EXPECT_EQ(all.stacks.size(), all.lockReports[0].distinctStacks);
  for (const lockEntry& lock : all.lockReports[0].locks) {
    for (const threadEntry& thread : lock.threads) {
      for (const stackUse& use : thread.stacks) {
        EXPECT_NE(all.stacks.find(use.hash), nullptr) << lock.name << ", " << thread.name;
      }
    }
  }
}

profile small() {
  profile all;
  all.lockReports = {parsedReport()};
  all.stacks = parsedStacks();
  return all;
}

TEST(filter, keepsLocksByNameThreadAndStack) {
  const auto locksWith = [](const std::string& text) {
    profile all = small();
    filter(all, text);
    return all.lockReports[0].locks.size();
  };
  EXPECT_EQ(locksWith("a.cart"), 1U);
  EXPECT_EQ(locksWith("WORKER-2"), 1U);
  EXPECT_EQ(locksWith("Stock.put"), 1U);
  EXPECT_EQ(locksWith("Stock.take"), 2U);
  EXPECT_EQ(locksWith("none"), 0U);
}

TEST(filter, keepsStacksOfNoLockByTheirFrames) {
  profile all = small();
  all.lockReports[0].locks.clear();
  all.lockReports[0].blockers.clear();
  all.lockReports[0].stacksOfNoLock = {11, 22, 33};
  filter(all, "stock.PUT");
  EXPECT_EQ(all.lockReports[0].stacksOfNoLock, std::vector<std::uint64_t>{22});
  EXPECT_TRUE(holdsAny(all));
  filter(all, "none");
  EXPECT_FALSE(holdsAny(all));
}

TEST(filter, keepsExceptionsByAnythingInThem) {
  const auto recordsWith = [](const std::string& text) {
    profile all = readProfile({kData / "shop-run"});
    filter(all, text);
    return all.exceptions->size();
  };
  EXPECT_EQ(recordsWith("paymentrefused"), 2U);
  EXPECT_EQ(recordsWith("\U0001F600"), 4U);
  EXPECT_EQ(recordsWith("holder"), 2U);
  EXPECT_EQ(recordsWith("none of this"), 0U);
}

TEST(matches, takesStarsForAnyText) {
  EXPECT_TRUE(matches("a.B", "a.B"));
  EXPECT_FALSE(matches("a.B", "a.Bc"));
  EXPECT_FALSE(matches("a.B", "xa.B"));
  EXPECT_TRUE(matches("a.*", "a."));
  EXPECT_TRUE(matches("a.*", "a.b.C"));
  EXPECT_TRUE(matches("*.C", "a.C.C"));
  EXPECT_TRUE(matches("a*b*c", "aXbXbXc"));
  EXPECT_FALSE(matches("a*b*c", "aXbX"));
  EXPECT_TRUE(matches("**", ""));
  EXPECT_FALSE(matches("", "a"));
  EXPECT_FALSE(matches(std::string(100, '*') + "b", std::string(100'000, 'a')));
}

// No line of a table is wider than the terminal, whatever a report says.
TEST(profileTables, fitEveryLineToTheWidth) {
  const std::string name(50'000, 'n');
  profile all = small();
  all.run.emplace().command = name;
  all.run->started = name;
  all.lockReports[0].sessionName = name;
  all.lockReports[0].locks[0].name = name + "@7";
  all.memoryReports.emplace_back().sessionName = name;
  std::vector<std::string> problems;
  const std::string value = R"({"name":"v","type":"String","value":")" + name + "\"}";
  const std::string line = R"({"time":"2026-11-21T14:00:00Z","thread":")" + name +
                           R"(","class":"com.example.)" + name + R"(Late","message":")" + name +
                           R"(","frames":[{"method":")" + name + R"(.late","locals":[)" + value +
                           R"(]}],"ambiguous":[")" + name + "\"]}";
  all.exceptions.emplace().add(bytesOfText(line), "e.jsonl", problems);
  ASSERT_THAT(problems, IsEmpty());
  const terminalStyle terminal = {.width = 110};
  for (const std::size_t record : {0, 1}) {
    std::istringstream text(profileTables(all, {.limits = {}, .record = record}, terminal));
    for (std::string one; std::getline(text, one);) {
      if (!one.starts_with("  message: ")) {
        EXPECT_LE(one.size(), terminal.width) << one.substr(0, 200);
      }
    }
  }
  EXPECT_THAT(profileTables(all, {.limits = {}, .record = 1}, terminal), HasSubstr("nnLate\n"));
  EXPECT_THAT(profileTables(all, {}, terminal), HasSubstr("\n1. nnn"));
  EXPECT_THAT(profileTables(all, {}, terminal), HasSubstr("n...\": 2 locks, 4 s blocked"));
}

nlohmann::json formOf(const profile& all) {
  std::ostringstream text;
  writeJson(all, text);
  return nlohmann::json::parse(text.str());
}

TEST(jsonForm, holdsLocksWithStacksAndFramesByIndex) {
  const nlohmann::json session = formOf(small())["locks"][0];
  EXPECT_EQ(session["totals"], nlohmann::json::parse(R"({"locks": 2, "entries": 15,
      "blockedSeconds": 4, "waitedSeconds": 2, "threads": 2})"));
  const nlohmann::json& lock = session["locks"][0];
  EXPECT_EQ(lock["name"], "a.Stock@9");
  EXPECT_EQ(lock["class"], "a.Stock");
  EXPECT_EQ(lock["identity"], "9");
  EXPECT_EQ(lock["graph"], nlohmann::json({5, 7}));
  const nlohmann::json& use = lock["threads"][0]["stacks"][0];
  const nlohmann::json& stack = session["stacks"][use[0].get<std::size_t>()];
  EXPECT_EQ(stack["hash"], "11");
  EXPECT_EQ(use[1], 5);
  EXPECT_EQ(session["frames"][stack["frames"][0].get<std::size_t>()], "a.Stock.take");
  EXPECT_EQ(session["threads"][0]["timesOwner"], 9);
  EXPECT_EQ(session["sites"][0]["method"], "a.Stock.take");
  EXPECT_EQ(session["sites"][0]["locks"], nlohmann::json({0, 1}));
  EXPECT_EQ(session["blockers"][0]["blockingSeconds"], 5);
}

TEST(jsonForm, holdsTheOwnerLookupsAndWhatTheyAreAShareOf) {
  const auto sessionOf = [](const std::string& report) {
    profile all;
    all.lockReports = {parsedReport(report)};
    return formOf(all)["locks"][0];
  };
  const nlohmann::json sampled = sessionOf(kSampledReport);
  EXPECT_EQ(sampled["ownerLookups"],
            nlohmann::json::parse(R"({"perSecond": 100, "made": 812, "leftOut": 2436})"));
  for (const char* list : {"blockers", "threads"}) {
    for (const nlohmann::json& one : sampled[list]) {
      EXPECT_EQ(one["estimatedTimesOwner"], 4 * one["timesOwner"].get<int>()) << one;
    }
  }
  const nlohmann::json exact = sessionOf(kReport);
  EXPECT_TRUE(exact["ownerLookups"].is_null());
  EXPECT_EQ(exact["blockers"][0]["estimatedTimesOwner"], 3);
}

TEST(jsonForm, saysWhatIsNotThere) {
  profile all;
  all.lockReports = {parsedReport()};
  const nlohmann::json form = formOf(all);
  EXPECT_TRUE(form["run"].is_null());
  EXPECT_TRUE(form["exceptions"].is_null());
  EXPECT_EQ(form["memory"], nlohmann::json::array());
  EXPECT_TRUE(form["locks"][0]["stacks"][0]["frames"].is_null());
  EXPECT_TRUE(form["locks"][0]["sites"][0]["method"].is_null());
}

TEST(jsonForm, holdsWholeExceptionRecords) {
  const nlohmann::json exceptions = formOf(readProfile({kData / "shop-run"}))["exceptions"];
  EXPECT_EQ(exceptions["recorded"], 6);
  EXPECT_EQ(exceptions["groups"][0]["count"], 2);
  std::ifstream lines(kData / "shop-run" / "exceptions.jsonl");
  for (const nlohmann::json& record : exceptions["records"]) {
    std::string line;
    std::getline(lines, line);
    nlohmann::json recorded = nlohmann::json::parse(line);
    recorded.emplace("ambiguous", nlohmann::json::array());
    recorded.emplace("cut", false);
    EXPECT_EQ(record, recorded);
  }
}

TEST(jsonForm, holdsGenerations) {
  const nlohmann::json memory = formOf(readProfile({kData / "memory-report.json"}))["memory"][0];
  EXPECT_EQ(memory["generations"], nlohmann::json({1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(memory["totals"]["objects"], 21773);
  EXPECT_EQ(memory["classes"][0]["name"], "com.example.shop.Session");
  EXPECT_EQ(memory["classes"][0]["bytes"], "696640");
  EXPECT_EQ(memory["classes"][0]["generations"][5],
            nlohmann::json::parse(R"({"generation": 6, "objects": 25, "bytes": "800"})"));
}

TEST(jsonWriter, escapesWhatCouldDoHarm) {
  std::ostringstream text;
  jsonWriter(text).value("a\"\\\n\x01\x7F\u009B\u00E9</script>\U0001F600");
  EXPECT_EQ(text.str(), "\"a\\\"\\\\\\u000a\\u0001\\u007f\\u009b\u00E9\\u003c/script>\U0001F600\"");
}

TEST(jsonWriter, separatesMembersAndElements) {
  std::ostringstream text;
  jsonWriter json(text);
  json.beginObject().member("a", 1).key("b").beginArray().value(true).null().beginArray();
  json.endArray().endArray().member("c", std::optional<int>()).endObject();
  EXPECT_EQ(text.str(), R"({"a":1,"b":[true,null,[]],"c":null})");
}

}  // namespace
}  // namespace viewer
