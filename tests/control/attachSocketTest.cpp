#include "attachSocket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <optional>

#include "failure.h"
#include "fakeListener.h"
#include "fakeProcess.h"
#include "interruption.h"

namespace control {
namespace {

using std::chrono::milliseconds;
using testing::fakeListener;
using testing::fakeProcess;
namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr attachSocket::waits kShort{milliseconds(400), milliseconds(400)};

std::atomic<int> quits{0};

void countQuit(int /*signal*/) {
  quits.fetch_add(1);
}

class AttachSocket : public ::testing::Test {
 protected:
  AttachSocket() {
    quits = 0;
    std::signal(SIGQUIT, countQuit);
  }

  // What a request for "properties" fails with; empty when it does not.
  std::string failureOf(attachSocket::waits waits = kShort) const {
    try {
      const process target(fake_.number, fake_.processes());
      const targetFiles files(target);
      attachSocket(target, files, waits).ask({"properties"});
      return {};
    } catch (const failure& error) {
      return error.what();
    }
  }

  attachSocket::loadResult loaded(const char* answer) const {
    const fakeListener listener(fake_, answer);
    const process target(fake_.number, fake_.processes());
    const targetFiles files(target);
    return attachSocket(target, files, kShort).load("/x/library.so", "a=b");
  }

  bool isLeft(const fs::path& folder) const {
    return fs::exists(folder / (".attach_pid" + std::to_string(fakeProcess::kInner)));
  }

  fakeProcess fake_;
};

TEST_F(AttachSocket, SendsARequestOfFiveWords) {
  const fakeListener listener(fake_, "0\nkey=value\nother\n");
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  const attachSocket socket(target, files, kShort);
  const attachSocket::vmReply reply = socket.ask({"load", "name", "true", "options"});
  EXPECT_EQ(listener.request(), "1|load|name|true|options|");
  EXPECT_EQ(reply.code, 0);
  EXPECT_EQ(reply.text, "key=value\nother\n");
  EXPECT_EQ(quits, 0) << "it listens already";
  EXPECT_EQ(socket.ask({"properties"}).code, 0);
  EXPECT_EQ(listener.request(), "1|properties||||");
}

TEST_F(AttachSocket, HasTheJvmListenBySignalAndFile) {
  std::unique_ptr<fakeListener> listener;
  std::optional<bool> wasThere;
  std::thread vm([&] {
    while (quits == 0) {
      std::this_thread::sleep_for(milliseconds(5));
    }
    wasThere = isLeft(fake_.base / "cwd");
    listener = std::make_unique<fakeListener>(fake_, "0\n");
  });
  EXPECT_EQ(failureOf({std::chrono::seconds(20), std::chrono::seconds(20)}), "");
  vm.join();
  EXPECT_EQ(wasThere, true);
  EXPECT_EQ(quits, 1);
  EXPECT_FALSE(isLeft(fake_.base / "cwd"));
}

TEST_F(AttachSocket, TakesASocketThatNobodyServesForNone) {
  {
    const fakeListener gone(fake_, "0\n");
    fs::rename(fake_.temporary() / ".java_pid7", fake_.temporary() / "kept");
  }
  fs::rename(fake_.temporary() / "kept", fake_.temporary() / ".java_pid7");
  EXPECT_THAT(failureOf(), HasSubstr("it is not listening after 0 s"));
  EXPECT_EQ(quits, 1);
  EXPECT_FALSE(isLeft(fake_.base / "cwd"));
  EXPECT_FALSE(isLeft(fake_.temporary()));
}

TEST_F(AttachSocket, PutsTheFileIntoTheTemporaryFolderWhereTheOtherCannotBeHad) {
  fs::remove_all(fake_.base / "cwd");
  std::optional<bool> wasThere;
  std::thread vm([&] {
    while (quits == 0) {
      std::this_thread::sleep_for(milliseconds(5));
    }
    wasThere = isLeft(fake_.temporary());
  });
  EXPECT_THAT(failureOf(), HasSubstr("it is not listening"));
  vm.join();
  EXPECT_EQ(wasThere, true);
  EXPECT_FALSE(isLeft(fake_.temporary()));
}

TEST_F(AttachSocket, NeverSignalsAJvmThatDoesNotCatchIt) {
  fake_.writeStatus("S (sleeping)", "0000000000000000");
  EXPECT_EQ(failureOf(),
            "JVM " + std::to_string(fake_.number) + " is still starting, or was started with -Xrs");
  EXPECT_EQ(quits, 0);
}

TEST_F(AttachSocket, NeverSignalsAJvmThatWouldPrintItsThreads) {
  fake_.writeWords("cmdline", "java|-XX:+DisableAttachMechanism|Main|");
  EXPECT_THAT(failureOf(), HasSubstr("-XX:+DisableAttachMechanism; restart it without"));
  EXPECT_EQ(quits, 0);
  fake_.writeWords("environ", "A=b|JAVA_TOOL_OPTIONS=-XX:+DisableAttachMechanism|");
  fake_.writeWords("cmdline", "java|-XX:-DisableAttachMechanism|Main|");
  EXPECT_THAT(failureOf(), HasSubstr("it is not listening")) << "the last word counts";
}

TEST_F(AttachSocket, KnowsSuchAJvmByAllThatItTakesOptionsFrom) {
  const std::string flag = "-XX:+DisableAttachMechanism";
  const char* const told = "-XX:+DisableAttachMechanism; restart it without";
  for (const char* const variable : {"JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS"}) {
    fake_.writeWords("environ", std::string(variable) + "=-Xmx1g " + flag + "|");
    EXPECT_THAT(failureOf(), HasSubstr(told)) << variable;
  }
  fake_.write("environ", "");
  std::ofstream(fake_.base / "cwd/relative") << "-Xmx1g\n" << flag << '\n';
  std::ofstream(fake_.root / "absolute") << flag;
  for (const char* const file : {"relative", "/absolute"}) {
    fake_.writeWords("cmdline", std::string("java|@") + file + "|Main|");
    EXPECT_THAT(failureOf(), HasSubstr(told)) << file;
  }
  std::ofstream(fake_.root / "flags") << "+DisableAttachMechanism\n";
  for (const char* const word : {"-XX:Flags=/flags", "-XX:VMOptionsFile=/absolute"}) {
    fake_.writeWords("cmdline", std::string("java|-cp|a.jar|") + word + "|Main|");
    EXPECT_THAT(failureOf(), HasSubstr(told)) << word;
  }
  EXPECT_EQ(quits, 0);
  ASSERT_EQ(::mkfifo((fake_.root / "fifo").c_str(), 0600), 0);
  fake_.writeWords("cmdline", "java|@/fifo|@none|@|Main|");
  EXPECT_THAT(failureOf(), HasSubstr("it is not listening after 0 s: it is very busy, or"));
}

TEST_F(AttachSocket, TakesNoArgumentOfTheProgramForAnOption) {
  const std::string flag = "-XX:+DisableAttachMechanism";
  std::ofstream(fake_.root / "jobs") << flag;
  for (const std::string program : {"Main", "-jar|tool.jar", "-m|a/b.Main", "-cp|a.jar|Main"}) {
    fake_.writeWords("cmdline", "java|" + program + "|@/jobs|" + flag + "|");
    EXPECT_THAT(failureOf(), HasSubstr("it is not listening")) << program;
  }
}

TEST_F(AttachSocket, NamesAStoppedJvmWithTheRemedy) {
  fake_.writeStatus("T (stopped)", "0000000000000004");
  const std::string number = std::to_string(fake_.number);
  EXPECT_EQ(failureOf(), "no connection to JVM " + number +
                             ": it is stopped; resume it with: kill -CONT " + number);
  const fakeListener listener(fake_, nullptr);
  EXPECT_THAT(failureOf(), HasSubstr("it is stopped")) << "its socket takes connections";
  EXPECT_EQ(quits, 0);
}

TEST_F(AttachSocket, NoticesTheEndOfTheJvm) {
  fake_.writeStatus("Z (zombie)", "0000000000000004");
  EXPECT_THAT(failureOf(), HasSubstr(": it has ended"));
  const fakeListener listener(fake_, nullptr);
  EXPECT_THAT(failureOf(), HasSubstr(": it has ended"));
}

TEST_F(AttachSocket, WaitsForAnAnswerOnlySoLong) {
  const fakeListener listener(fake_, nullptr);
  EXPECT_THAT(failureOf(), HasSubstr("no answer after 0 s"));
}

TEST_F(AttachSocket, WaitsForACompleteAnswerOnlySoLong) {
  const fakeListener listener(fake_, "0\n", true);
  EXPECT_THAT(failureOf(), HasSubstr("no complete answer after 0 s"));
}

TEST_F(AttachSocket, LeavesNothingWhenItIsInterrupted) {
  noteInterruptions();
  std::thread user([] {
    while (quits == 0) {
      std::this_thread::sleep_for(milliseconds(5));
    }
    std::raise(SIGTERM);
  });
  try {
    failureOf({std::chrono::seconds(20), std::chrono::seconds(20)});
    FAIL();
  } catch (const interruption& cause) {
    EXPECT_EQ(cause.signal(), SIGTERM);
  }
  user.join();
  EXPECT_FALSE(isLeft(fake_.base / "cwd"));
  const fakeListener listener(fake_, nullptr);
  EXPECT_THROW(failureOf({std::chrono::seconds(20), std::chrono::seconds(20)}), interruption)
      << "as it waits for an answer";
}

// What the JVM was never asked for leaves nothing behind.
TEST_F(AttachSocket, TellsWhenARequestIsAboutToBeSent) {
  int sent = 0;
  const auto count = [&] { ++sent; };
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  {
    const fakeListener listener(fake_, "0\nreturn code: 0\n");
    const attachSocket socket(target, files, kShort);
    EXPECT_THROW(socket.load("/x/library.so", std::string(2000, 'a'), count), failure);
    EXPECT_EQ(sent, 0) << "it is too long";
    EXPECT_EQ(socket.load("/x/library.so", "a=b", count).code, 0);
    EXPECT_EQ(sent, 1);
  }
  const auto socket = [&] {
    const fakeListener listener(fake_, "0\n");
    return std::make_unique<attachSocket>(target, files, kShort);
  }();
  EXPECT_THROW(socket->load("/x/library.so", "a=b", count), failure) << "nobody listens any more";
  EXPECT_EQ(sent, 1);
}

TEST_F(AttachSocket, RefusesWhatIsNoSocketOfTheJvm) {
  std::ofstream(fake_.temporary() / ".java_pid7") << "";
  EXPECT_THAT(failureOf(), HasSubstr("'/tmp/.java_pid7' is not its socket"));
  EXPECT_EQ(quits, 0);
}

TEST_F(AttachSocket, RefusesTheSocketOfAnotherProcess) {
  const fakeProcess other(1);  // with the same number in its container, and the same folder
  fs::remove(other.folder / "root");
  fs::create_directory_symlink(fake_.root, other.folder / "root");
  const fakeListener listener(fake_, "0\n");
  const process target(1, other.processes());
  const targetFiles files(target);
  try {
    const attachSocket socket(target, files, kShort);
    FAIL();
  } catch (const failure& error) {
    EXPECT_THAT(error.what(), HasSubstr("is the socket of process " + std::to_string(::getpid())));
  }
  EXPECT_EQ(listener.request(), "");
}

TEST_F(AttachSocket, RefusesAnAnswerOfUnknownForm) {
  for (const char* const answer : {"", "no number\n", "0", "12 \n", "\n"}) {
    const fakeListener listener(fake_, answer);
    const std::string told = failureOf();
    EXPECT_TRUE(told.find("unexpected answer") != std::string::npos ||
                told.find("without an answer") != std::string::npos)
        << answer << told;
  }
}

TEST_F(AttachSocket, RefusesArgumentsThatNoJvmTakes) {
  const fakeListener listener(fake_, "0\n");
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  const attachSocket socket(target, files, kShort);
  EXPECT_THROW(socket.load("/x/library.so", std::string(1025, 'x')), failure);
  EXPECT_EQ(listener.request(), "");
}

TEST_F(AttachSocket, ReadsWhatALoadedLibraryReturns) {
  EXPECT_EQ(loaded("0\nreturn code: 0\n").code, 0);
  EXPECT_EQ(loaded("0\nreturn code: 102\n").code, 102);
  EXPECT_EQ(loaded("0\n-1\n").code, -1) << "of JDK 8";
  EXPECT_EQ(loaded("0\n3\n").code, 3);
  EXPECT_EQ(loaded("100\nDynamic agent loading is not enabled.\n").code, std::nullopt);
  EXPECT_EQ(loaded("0\n/x/library.so was not loaded.\n").text, "/x/library.so was not loaded.\n");
  EXPECT_EQ(loaded("-1\n").text, "error -1");
}

}  // namespace
}  // namespace control
