#include "command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "failure.h"
#include "fakeListener.h"
#include "fakeProcess.h"

namespace control {
namespace {

using testing::fakeListener;
using testing::fakeProcess;
namespace fs = std::filesystem;
using ::testing::HasSubstr;

TEST(Request, HasALineForEachThing) {
  EXPECT_EQ(textOf({"start", {"locks", "memory"}, {"locks.name=a\\b\nc"}}, 12),
            "verb=start\npid=12\nprofiler=locks\nprofiler=memory\nsetting=locks.name=a\\\\b\\nc\n");
}

TEST(Answer, HasLinesForBothStreamsAndAnExitCode) {
  const answer answer = answerIn("1 first\n2 second\n1 \nexit 3\n");
  ASSERT_EQ(answer.lines.size(), 3U);
  EXPECT_FALSE(answer.lines[0].isError);
  EXPECT_EQ(answer.lines[0].text, "first");
  EXPECT_TRUE(answer.lines[1].isError);
  EXPECT_EQ(answer.lines[2].text, "");
  EXPECT_EQ(answer.exitCode, 3);
  for (const char* const text : {"", "1 first\n", "exit\n", "exit x\n", "exit 0\n1 more\n",
                                 "3 what\nexit 0\n", "exit 0x\n"}) {
    EXPECT_THROW(answerIn(text), failure) << text;
  }
}

TEST(Answer, NamesFilesAsTheyAreSeenFromHere) {
  const fakeProcess fake;
  const process target(fake.number, fake.processes());
  const targetFiles files(target);
  std::ofstream(fake.root / "tmp/a file") << "";
  answer answer = answerIn(
      "1 locks: /tmp/a file\n1 memory  off; last file /tmp/a file\n"
      "1 locks: /tmp/none\n1 locks: off\n2 no /\nexit 0\n");
  nameFromOutside(answer, files);
  const std::string seen =
      (fake.folder / "root/tmp/a file").string() + ", which the JVM sees as /tmp/a file";
  EXPECT_EQ(answer.lines[0].text, "locks: " + seen);
  EXPECT_EQ(answer.lines[1].text, "memory  off; last file " + seen);
  EXPECT_EQ(answer.lines[2].text, "locks: /tmp/none");
  EXPECT_EQ(answer.lines[3].text, "locks: off");
  EXPECT_EQ(answer.lines[4].text, "no /");
}

TEST(Library, ThatIsNotLoadedIsAFailureWithTheRemedy) {
  const fakeProcess fake;
  const process target(fake.number, fake.processes());
  EXPECT_THAT(notLoaded(target, "/x.so", "Dynamic agent loading is not enabled. Use ...").what(),
              HasSubstr("-XX:-EnableDynamicAgentLoading"));
  EXPECT_THAT(notLoaded(target, "/x.so", "No Agent_OnAttach function found").what(),
              HasSubstr("an agent of an earlier version"));
  EXPECT_THAT(notLoaded(target, "/x.so", "was not loaded.\nwrong ELF class\n").what(),
              HasSubstr("cannot load '/x.so': was not loaded. wrong ELF class"));
}

class Asked : public ::testing::Test {
 protected:
  result asked(const char* answer) const {
    const fakeListener listener(fake_, answer);
    const process target(fake_.number, fake_.processes());
    const targetFiles files(target);
    const attachSocket socket(target, files);
    return ask(target, files, socket, "/x/library.so", {"status", {}, {}});
  }

  fakeProcess fake_;
};

TEST_F(Asked, TheLibraryNamesWhatIsMissing) {
  EXPECT_EQ(asked("0\nreturn code: 3\n").how, outcome::noCompanion);
  EXPECT_EQ(asked("0\nreturn code: 5\n").how, outcome::notSetUp);
  EXPECT_THROW(asked("0\nreturn code: 4\n"), failure);
  EXPECT_THROW(asked("0\nreturn code: 99\n"), failure);
  EXPECT_TRUE(fs::is_empty(fake_.temporary())) << "nothing is left";
}

TEST_F(Asked, TheAnswerMayComeLater) {
  std::thread companion([&] {
    for (;;) {
      for (const fs::directory_entry& each : fs::directory_iterator(fake_.temporary())) {
        if (fs::exists(each.path() / "request")) {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
          std::ofstream(each.path() / "part") << "1 off\nexit 0\n";
          fs::rename(each.path() / "part", each.path() / "request.answer");
          return;
        }
      }
    }
  });
  const result result = asked("0\nreturn code: 0\n");
  companion.join();
  ASSERT_EQ(result.how, outcome::answered);
  EXPECT_EQ(result.said.lines.at(0).text, "off");
  EXPECT_TRUE(fs::is_empty(fake_.temporary()));
}

}  // namespace
}  // namespace control
