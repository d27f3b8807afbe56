#include "process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failure.h"
#include "fakeProcess.h"
#include "verbs.h"

namespace control {
namespace {

using ::testing::ElementsAre;
using testing::fakeProcess;
namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(Process, KnowsWhoItIsHereAndInItsContainer) {
  const fakeProcess fake;
  const process target(fake.number, fake.processes());
  EXPECT_EQ(target.number(), fake.number);
  EXPECT_EQ(target.innerNumber(), fakeProcess::kInner);
  EXPECT_EQ(target.owner().user, ::geteuid());
  EXPECT_EQ(target.owner().group, ::getegid());
  EXPECT_THAT(target.owner().groups, ElementsAre(20U, 4U));
}

TEST(Process, HasAStateAndSignalsThatItCatches) {
  const fakeProcess fake;
  const process target(fake.number, fake.processes());
  EXPECT_TRUE(target.isAlive());
  EXPECT_FALSE(target.isStopped());
  EXPECT_TRUE(target.catchesQuit());
  fake.writeStatus("T (stopped)", "0000000000000003");
  EXPECT_TRUE(target.isAlive());
  EXPECT_TRUE(target.isStopped());
  EXPECT_FALSE(target.catchesQuit());
  fake.writeStatus("Z (zombie)", "0000000000000000");
  EXPECT_FALSE(target.isAlive());
}

TEST(Process, ThatDoesNotExistIsAFailure) {
  const fakeProcess fake;
  try {
    const process target(999999999, fake.processes());
    FAIL();
  } catch (const failure& error) {
    EXPECT_STREQ(error.what(), "no such process: 999999999; see: twprofile list");
  }
}

TEST(Process, ShowsItsCommandWithoutWhatProfilingHasAdded) {
  const fakeProcess fake;
  fake.writeWords("cmdline",
                  "java|-agentpath:/a/libjavanativeagent.so=twHome=.|"
                  "-javaagent:/a/javanativeagent.jar|-javaagent:/b/other.jar|Main|");
  EXPECT_EQ(process(fake.number, fake.processes()).command(), "java -javaagent:/b/other.jar Main");
}

TEST(Process, ShowsNothingThatATerminalWouldObey) {
  const fakeProcess fake;
  fake.writeWords("cmdline",
                  "java|-Da=\x1b]0;x\a|\xc2\x9b"
                  "2J|\n1 java|\xc3\xa9|");
  EXPECT_EQ(process(fake.number, fake.processes()).command(),
            "java -Da=?]0;x? ??2J ?1 java \xc3\xa9");
}

TEST(Process, FindsMappedAndOpenFilesByTheirNames) {
  const fakeProcess fake;
  fake.write("maps",
             "7f-80 r-xp 00000000 08:01 12  /opt/jdk/lib/server/libjvm.so\n"
             "80-81 r-xp 00000000 08:01 13  /tmp/a b/libjavanativeagent.so (deleted)\n"
             "81-82 rw-p 00000000 00:00 0 \n"
             "82-83 r-xp 00000000 08:01 14  /lib/ld-musl-x86_64.so.1\n");
  fs::create_symlink("/tmp/x/javanativeagent.jar (deleted)", fake.folder / "fd" / "3");
  fs::create_symlink("socket:[12]/other.jar", fake.folder / "fd" / "4");
  const process target(fake.number, fake.processes());
  EXPECT_EQ(target.mapped("libjvm.so"), "/opt/jdk/lib/server/libjvm.so");
  EXPECT_EQ(target.mapped(kLibraryName), "/tmp/a b/libjavanativeagent.so");
  EXPECT_EQ(target.mapped("jvm.so"), std::nullopt);
  EXPECT_TRUE(target.mapsNameLike("ld-musl-"));
  EXPECT_FALSE(target.mapsNameLike("musl"));
  EXPECT_TRUE(target.hasOpen(kJarName));
  EXPECT_FALSE(target.hasOpen("other.jar"));
}

TEST(Process, HasPathsAsItSeesThemItself) {
  const fakeProcess fake;
  fake.write("maps", "7f-80 r-xp 00000000 08:01 12  " + fake.root.string() + "/opt/libjvm.so\n");
  EXPECT_EQ(process(fake.number, fake.processes()).mapped("libjvm.so"), "/opt/libjvm.so");
}

TEST(Process, OfAVmWhoseFilesMayNotBeSeenIsAFailure) {
  const fakeProcess fake;
  fs::remove(fake.folder / "maps");
  EXPECT_THROW(process(fake.number, fake.processes()).mapped("libjvm.so"), failure);
}

TEST(List, ShowsTheJvmsWithAgentAndCompanion) {
  const fakeProcess fake;
  std::ostringstream none;
  list(none, fake.processes());
  EXPECT_THAT(none.str(), HasSubstr("None of your JVMs has the agent"));
  fake.write("maps",
             "1-2 r-xp 0 08:01 1 /x/libjvm.so\n2-3 r-xp 0 08:01 2 /x/libjavanativeagent.so\n");
  fs::create_symlink("/x/javanativeagent.jar", fake.folder / "fd" / "3");
  std::ostringstream some;
  list(some, fake.processes());
  EXPECT_THAT(some.str(), HasSubstr("PID       COMMAND\n"));
  EXPECT_THAT(some.str(), HasSubstr("  java -Xmx1g example.Main  (in a container)\n"));
  EXPECT_THAT(some.str(), Not(HasSubstr("None")));
}

}  // namespace
}  // namespace control
