// The stack trace file: one line for each trace, written with the report and by deep stacks.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lockTest.h"

namespace {

using namespace test;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class stackFile : public lockTest {
 protected:
  // A detail session in which a thread was seen with a stack of one frame each.
  void detailWith(const std::vector<std::string>& frames, const char* options = "") {
    load(options);
    beginDetail({lock});
    see(frames);
  }
  void see(const std::vector<std::string>& frames) {
    fake::javaThread* const thread = vm.makeThread("t");
    for (const std::string& each : frames) {
      setStack(thread, {each});
      contend(thread, lock);
    }
  }
  // The same session with its stack file at `path`.
  void detailWithFileAt(const std::string& path, const char* options = "") {
    load(options);
    const jint result = vm.native([&](JNIEnv* jni) {
      return Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_startMutexLockProfilingSession(
          jni, nullptr, 1, vm.ref(vm.makeString("s")), 60, 10, 100, 100, 100, 100, 10,
          vm.ref(vm.makeString(path)));
    });
    ASSERT_EQ(result, 1);
    startSummary();
    contend(vm.makeThread("t"), lock);
    startDetail();
  }
  // A file on a disk that is full while no file may be larger than kFull bytes.
  static constexpr rlim_t kFull = 100000;
  std::string fullFile() {
    std::string path = folder() / "full";
    writeFile(path, std::string(kFull, '\n'));
    return path;
  }
  static std::string lineOf(const std::string& frame) {
    return std::to_string(fnv1a("at " + frame + "()\n")) + "=[at " + frame + "()]";
  }

  fake::object* lock = vm.makeObject("a.Lock");
};

TEST_F(stackFile, hasOneLineForEachTrace) {
  detailWith({"a.A.x", "a.A.y", "a.A.x"});
  stopProfiling();
  EXPECT_THAT(stackLines(), ::testing::UnorderedElementsAre(lineOf("a.A.x"), lineOf("a.A.y")));
  EXPECT_EQ(readFile(stackPath()).back(), '\n');
}

TEST_F(stackFile, linesAreInTheNumericOrderOfTheHashes) {
  load();
  beginDetail({lock});
  for (const std::uint64_t hash : {100U, 9U, 20U}) {
    addStack(hash);
  }
  addStack(~std::uint64_t{0}, "at z()\n");
  stopProfiling();
  EXPECT_THAT(stackLines(), ElementsAre("9=[at a()]", "20=[at a()]", "100=[at a()]",
                                        "18446744073709551615=[at z()]"));
}

TEST_F(stackFile, hashOf0IsWrittenAsOneDigit) {
  load();
  beginDetail({lock});
  addStack(0, "at a.A.x()\n");
  stopProfiling();
  EXPECT_THAT(stackLines(), ElementsAre("0=[at a.A.x()]"));
}

TEST_F(stackFile, emptyTraceIsAnEmptyText) {
  load();
  beginDetail({lock});
  contend(vm.makeThread("t"), lock);
  stopProfiling();
  EXPECT_THAT(stackLines(), ElementsAre("14695981039346656037=[]"));
}

TEST_F(stackFile, textsAreNotEscaped) {
  detailWith({"a.A.odd\"\\\t\x01\x7F]=[\xC3\xA9"});
  stopProfiling();
  EXPECT_THAT(stackLines(), ElementsAre(lineOf("a.A.odd\"\\\t\x01\x7F]=[\xC3\xA9")));
}

TEST_F(stackFile, isNotEvenMadeWithoutTraces) {
  load("logLevel=4");
  beginSummary();
  locks()->setStartTime(jlong{5} << 32 | 7);
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_FALSE(std::filesystem::exists(stackPath()));
  EXPECT_THAT(debugLines(), Not(Contains(HasSubstr("StackMap size"))));
  EXPECT_EQ(locks()->startTime(), jlong{5} << 32 | 7);
}

TEST_F(stackFile, withoutTracesLeavesAnExistingFileAlone) {
  load();
  writeFile(stackPath(), "earlier\n");
  beginSummary();
  stopProfiling();
  EXPECT_EQ(readFile(stackPath()), "earlier\n");
}

TEST_F(stackFile, isAppendedTo) {
  writeFile(stackPath(), "earlier\n");
  detailWith({"a.A.x"});
  stopProfiling();
  EXPECT_THAT(stackLines(), ElementsAre("earlier", lineOf("a.A.x")));
}

TEST_F(stackFile, secondReportInARowWritesNothing) {
  detailWith({"a.A.x"});
  stopProfiling();
  stopProfiling();
  EXPECT_THAT(stackLines(), SizeIs(1));
}

TEST_F(stackFile, secondReportWritesWhatIsNew) {
  detailWith({"a.A.x"});
  stopProfiling();
  agent::getRegistry()->switchProfiler(agent::kMutexLockProfiler, true);
  locks()->setState(agent::kLockDetail);
  see({"a.A.x", "a.A.y"});
  stopProfiling();
  EXPECT_THAT(stackLines(), ElementsAre(lineOf("a.A.x"), lineOf("a.A.y")));
}

TEST_F(stackFile, clearsTheLowHalfOfTheStartTimeOnly) {
  detailWith({"a.A.x"});
  locks()->setStartTime(0x0000'0005'8000'0001);
  stopProfiling();
  EXPECT_EQ(locks()->startTime(), 0x0000'0005'0000'0000);
}

TEST_F(stackFile, graphGoesOnFromTheClearedStartTime) {
  detailWith({});
  locks()->setStartTime(jlong{100} << 32);
  vm.setTime((jlong{100} << 32) + 5 * kMinute);
  fake::javaThread* const thread = vm.makeThread("t");
  setDeepStack(thread, 100);
  contend(thread, lock);  // written at once
  EXPECT_EQ(locks()->startTime(), jlong{100} << 32);
  locks()->setStartTime(12);
  setDeepStack(thread, 100, 1);
  contend(thread, lock);
  EXPECT_EQ(locks()->startTime(), 0);
  vm.advance(kMinute);
  contend(thread, lock);
  EXPECT_EQ(locks()->startTime(), vm.time()) << "the next entry starts it anew";
}

TEST_F(stackFile, numberOfTracesIsSaidAtDebug) {
  detailWith({"a.A.x", "a.A.y"}, "logLevel=4");
  stopProfiling();
  EXPECT_THAT(debugLines(), Contains("StackMap size is : 2"));
  for (const logRecord& each : log()) {
    if (each.message == "StackMap size is : 2") {
      EXPECT_EQ(each.function, "mutexLockProfiler::dumpStackInFile");
    }
  }
}

TEST_F(stackFile, numberOfTracesIsNotSaidAtTrace) {
  detailWith({"a.A.x"}, "logLevel=3");
  stopProfiling();
  EXPECT_THAT(debugLines(), IsEmpty());
}

// --- Files that cannot be written.

TEST_F(stackFile, unopenedFileIsSaidAndItsTracesAreGone) {
  const std::string path = folder() / "missing" / "stacks.txt";
  detailWithFileAt(path, "logLevel=1");
  see({"a.A.x"});
  EXPECT_EQ(stopProfiling(), 1) << "the report itself is not touched by it";
  EXPECT_THAT(errors(), Contains(AllOf(HasSubstr(path), HasSubstr("No such file or directory"))));
  EXPECT_TRUE(stackTexts().empty());
  std::filesystem::create_directories(folder() / "missing");
  stopProfiling();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(stackFile, fullDiskIsSaid) {
  const std::string path = fullFile();
  detailWithFileAt(path, "logLevel=1");
  see({"a.A.x"});
  {
    const fileLimit limit(kFull);
    EXPECT_EQ(stopProfiling(), 1);
  }
  EXPECT_THAT(errors(), Contains(AllOf(HasSubstr(path), HasSubstr("File too large"))));
}

// Nobody reads from it, or somebody does: both would let the call wait.
TEST_F(stackFile, fifoInPlaceOfTheFileIsRefused) {
  const std::string path = folder() / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  detailWithFileAt(path, "logLevel=1");
  for (const bool isRead : {false, true}) {
    const int reader = isRead ? ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    see({isRead ? "a.A.x" : "a.A.y"});
    locks()->dumpStackInFile(*locks()->store());
    if (reader >= 0) {
      ::close(reader);
    }
  }
  std::vector<std::string> said = errors();
  std::erase(said, "monitor usage owner not found");
  EXPECT_THAT(said, ElementsAre(AllOf(HasSubstr(path), HasSubstr("regular file")),
                                AllOf(HasSubstr(path), HasSubstr("regular file"))));
}

TEST_F(stackFile, fifoDoesNotHoldUpADeepStackOfAnEvent) {
  const std::string path = folder() / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  detailWithFileAt(path, "logLevel=1");
  fake::javaThread* const thread = vm.makeThread("t");
  setDeepStack(thread, 100);
  contend(thread, lock);
  EXPECT_THAT(errors(), Contains(AllOf(HasSubstr(path), HasSubstr("regular file"))));
}

TEST_F(stackFile, nullDeviceInPlaceOfTheFileIsTaken) {
  detailWithFileAt("/dev/null", "logLevel=1");
  see({"a.A.x"});
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_THAT(errors(), Not(Contains(HasSubstr("stack trace file"))));
}

TEST_F(stackFile, folderInPlaceOfTheFileIsSaid) {
  detailWithFileAt(folder().string(), "logLevel=1");
  see({"a.A.x"});
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_THAT(errors(), Contains(AllOf(HasSubstr(folder().string()), HasSubstr("Is a directory"))));
}

TEST_F(stackFile, emptyPathIsSaid) {
  detailWithFileAt("", "logLevel=1");
  see({"a.A.x"});
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_THAT(errors(), Contains(HasSubstr("No such file or directory")));
}

TEST_F(stackFile, nothingIsSaidAtLevel0) {
  detailWithFileAt(folder().string(), "logLevel=0");
  see({"a.A.x"});
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(stackFile, deepStackOfAnEventSaysAFailedWriteToo) {
  detailWithFileAt(fullFile(), "logLevel=1");
  fake::javaThread* const thread = vm.makeThread("t");
  setDeepStack(thread, 100);
  {
    const fileLimit limit(kFull);
    contend(thread, lock);
  }
  EXPECT_THAT(errors(), Contains(HasSubstr("File too large")));
}

TEST_F(stackFile, eachSessionHasItsOwnFile) {
  const std::string other = folder() / "other.txt";
  detailWith({"a.A.x"});
  stopProfiling();
  vm.native([&](JNIEnv* jni) {
    return Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_startMutexLockProfilingSession(
        jni, nullptr, 1, vm.ref(vm.makeString("s")), 60, 10, 100, 100, 100, 100, 10,
        vm.ref(vm.makeString(other)));
  });
  startSummary();
  startDetail();
  see({"a.A.y"});
  stopProfiling();
  EXPECT_THAT(stackLines(), ElementsAre(lineOf("a.A.x")));
  EXPECT_EQ(readFile(other), lineOf("a.A.y") + "\n");
}

}  // namespace
