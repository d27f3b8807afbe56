#include "merging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <tuple>

#include "input.h"
#include "profileTables.h"
#include "runFolders.h"
#include "testContention.h"
#include "withoutValues.h"

namespace viewer {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

std::uint64_t entriesIn(const contentionReport& report) {
  std::uint64_t sum = 0;
  for (const auto* locks : {&report.locks, &report.otherLocks}) {
    for (const contentionLock& one : *locks) {
      sum += one.entries;
    }
  }
  return sum;
}

TEST(merging, addsUpContentionByFieldOrClass) {
  const contentionReport one = parsedContention();
  const contentionReport sum = merged(std::vector{&one, &one});
  EXPECT_EQ(entriesIn(sum), 2 * entriesIn(one));
  EXPECT_LE(sum.locks.size(), one.locks.size());
  std::set<std::tuple<lockKind, std::optional<std::string>, std::optional<std::string>>> names;
  for (const contentionLock& lock : sum.locks) {
    EXPECT_FALSE(lock.identity);
    EXPECT_TRUE(names.emplace(lock.kind, lock.className, lock.field).second);
    for (const contentionPair& pair : lock.pairs) {
      EXPECT_LT(pair.waiterStack.value_or(0), sum.stacks.size());
      EXPECT_FALSE(pair.ownerWaitsFor);
    }
  }
  EXPECT_LE(sum.stacks.size(), one.stacks.size());
  EXPECT_EQ(sum.deadlocks.size(), 2 * one.deadlocks.size());
  EXPECT_THAT(sum.stuck, IsEmpty());
  EXPECT_EQ(sum.cost.ticks, 2 * one.cost.ticks);
}

TEST(merging, addsUpAllocationsByClassAndStack) {
  allocationReport one;
  one.startedAt = 5'000;
  one.writtenAt = 9'000;
  one.endedAt = 8'000;
  one.stacks = {{1, {"a.B.c(B.java:1)"}, false}};
  one.sites.resize(2);
  one.sites[0].className = "a.X";
  one.sites[0].stack = 0;
  one.sites[0].alive = {1, 100, 10};
  one.sites[1].className = "a.Y";
  one.sites[1].alive = {2, 200, 20};
  one.alive = {3, 300, 30};
  allocationReport other = one;
  other.startedAt = 1'000;
  other.stacks[0].frames = {"a.B.d(B.java:2)"};
  const allocationReport sum = merged(std::vector<const allocationReport*>{&one, &other});
  EXPECT_EQ(sum.alive.bytes, 600U);
  EXPECT_EQ(sum.startedAt, 1'000U);
  EXPECT_EQ(sum.endedAt, 8'000U);
  ASSERT_THAT(sum.sites, SizeIs(3));
  EXPECT_EQ(sum.sites[0].alive.bytes, 100U);
  EXPECT_EQ(sum.sites[1].alive.bytes, 400U);
  EXPECT_EQ(sum.sites[2].className, "a.X");
  EXPECT_EQ(sum.stacks[*sum.sites[2].stack].frames.front(), "a.B.d(B.java:2)");
  other.endedAt.reset();
  EXPECT_FALSE(merged(std::vector<const allocationReport*>{&one, &other}).endedAt);
}

class runsOfFolders : public testing::Test {
 protected:
  runsOfFolders() {
    std::string pattern = testing::TempDir() + "runsXXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~runsOfFolders() override { fs::remove_all(folder_); }

  void write(const std::string& name, const std::string& text) const {
    const fs::path file = folder_ / name;
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
  }

  void writeRun(const std::string& name, std::int64_t pid, const std::string& command) const {
    write(name + "/run.json",
          R"({"pid":)" + std::to_string(pid) + R"(,"command":")" + command + R"("})");
    write(name + "/contention-1.json", recordedContention().dump());
  }

  static std::string tablesOf(const profile& all) { return profileTables(all, {}, {}); }

  fs::path folder_;
};

TEST_F(runsOfFolders, thatAreNotShownAreNamed) {
  writeRun("run-1-1", 1, "old");
  writeRun("run-2-2", 2, "a");
  writeRun("run-2-10", 10, "b");
  write("settings-1.jvms", "2 run-2-2\n10 run-2-10\n11 -\n12 run-2-12\n");
  const std::string text = tablesOf(readProfile({folder_}));
  EXPECT_THAT(text, HasSubstr("Run of b"));
  EXPECT_THAT(text, HasSubstr("Only 1 of the 2 JVMs of this command is shown"));
  EXPECT_THAT(text, HasSubstr("  twprofile report " + folder_.string() + " --all\n"));
  EXPECT_THAT(text, HasSubstr("  twprofile report " + (folder_ / "run-2-2").string() + '\n'));
  EXPECT_THAT(text, HasSubstr("1 older run in the folder is not shown:\n  twprofile report " +
                              (folder_ / "run-1-1").string() + '\n'));
}

TEST_F(runsOfFolders, areNamedWithoutListsThatAreNone) {
  writeRun("run-1-1", 1, "a");
  writeRun("run-2-2", 2, "b");
  ASSERT_EQ(::mkfifo((folder_ / "settings-1.jvms").c_str(), 0600), 0);
  write("settings-2.jvms", "\n \n2\nrun-2-2\n");
  EXPECT_THAT(tablesOf(readProfile({folder_})), HasSubstr("1 older run in the folder"));
}

TEST_F(runsOfFolders, areNotThoseThatLinksOfOthersLeadTo) {
  writeRun("run-1-1", 1, "a");
  fs::create_directory_symlink("run-1-1", folder_ / "run-2-2");
  EXPECT_THAT(tablesOf(readProfile({folder_})), HasSubstr("1 older run in the folder"));
  fs::create_symlink("contention-1.json", folder_ / "run-1-1/contention-2.json");
  EXPECT_THAT(readProfile({folder_ / "run-1-1"}).contentionReports, SizeIs(2));
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root";
  }
  for (const char* const link : {"run-2-2", "run-1-1/contention-2.json"}) {
    ASSERT_EQ(::lchown((folder_ / link).c_str(), 65534, 0), 0);
  }
  EXPECT_THAT(tablesOf(readProfile({folder_})), Not(HasSubstr("older run")));
  EXPECT_THAT(readProfile({folder_ / "run-1-1"}).contentionReports, SizeIs(1));
}

TEST_F(runsOfFolders, withQuotesInTheirNamesAreQuotedForAShell) {
  const fs::path folder = folder_ / "it's \"here\" $x";
  const std::string expected = '\'' + (folder_ / "it'\\''s \"here\" $x").string();
  for (const char* const run : {"run-1-1", "run-2-2"}) {
    fs::create_directories(folder / run);
    writeRun("it's \"here\" $x/" + std::string(run), 1, "a");
  }
  EXPECT_THAT(tablesOf(readProfile({folder})),
              HasSubstr("  twprofile report " + expected + "/run-1-1'\n"));
}

TEST(linesOfFiles, haveABoundedLength) {
  const std::string block(1 << 20, 'x');
  std::vector<std::string> problems;
  readLines([&] { return std::string_view(block); }, "file", "records", problems,
            [](const std::string&, const std::string&) {});
  EXPECT_THAT(problems, ElementsAre("file: line 1 is longer than 64 MB"));
}

TEST_F(runsOfFolders, ofOneCommandAreAddedUp) {
  writeRun("run-1-1", 1, "old");
  writeRun("run-2-2", 2, "secret a");
  writeRun("run-2-3", 3, "b");
  write("settings-1.jvms", "2 run-2-2\n3 run-2-3\n");
  for (const fs::path& input : {folder_, folder_ / "run-2-2"}) {
    profile all = readCommands({input});
    ASSERT_THAT(all.contentionReports, SizeIs(1));
    EXPECT_EQ(entriesIn(all.contentionReports[0]), 2 * entriesIn(parsedContention()));
    EXPECT_THAT(all.notes, Contains(HasSubstr("  run-2-2, process 2: secret a\n")));
    EXPECT_THAT(tablesOf(all), HasSubstr("Run of 2 JVMs of one command"));
    removeValues(all);
    EXPECT_THAT(all.notes, Not(Contains(HasSubstr("secret"))));
    EXPECT_THAT(all.notes, Contains(HasSubstr("  run-2-2, process 2\n")));
  }
  EXPECT_THAT(readCommands({folder_ / "run-1-1"}).notes,
              ElementsAre("--all: the command has no other JVM with results."));
}

TEST_F(runsOfFolders, tellWhetherTheirJvmIsThere) {
  EXPECT_EQ(stateOf({}), jvmState::unknown);
  EXPECT_EQ(stateOf(999'999'999), jvmState::gone);
  EXPECT_EQ(stateOf(getpid()), jvmState::gone);  // has this number, but is another program
  write("run-1-1/run.json", R"({"pid":999999999})");
  write("run-1-1/locks-1.json.part", "");
  EXPECT_THAT(tablesOf(readProfile({folder_})),
              HasSubstr("locks-1.json.part: not finished: the JVM was killed: process 999999999 is "
                        "gone, unless"));
}

TEST_F(runsOfFolders, withoutClassesToTrackHaveALineInPlaceOfATable) {
  write("run-1/run.json", R"({"java":"17","options":{"memory":"true"}})");
  write("run-1/memory-1.json",
        R"({"sessionname": "memoryLeak", "sessionid": 1, "topNMemoryleakClass": {}})");
  EXPECT_THAT(tablesOf(readProfile({folder_})),
              EndsWith("\n\nMemory session 1: nothing was tracked. Name classes, as in "
                       "--memory=track=com.example.Session.\n"));
}

}  // namespace
}  // namespace viewer
