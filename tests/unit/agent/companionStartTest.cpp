// The companion as the agent starts it: before main, late, on demand, once, and whatever throws.
#include "agent/companionStart.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <new>
#include <optional>
#include <string>
#include <variant>

#include "agentTest.h"

namespace {

using namespace test;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr const char* kStart = "(Ljava/lang/String;ZZZZ)V";

class companionStartTest : public agentTest {
 protected:
  void SetUp() override {
    // Beside the program, which stands for the library; tests of other processes want it, too.
    const std::filesystem::path jar =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "javanativeagent.jar";
    ::close(::open(jar.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));

    fake::javaClass* const loaders = vm.classNamed("java.lang.ClassLoader");
    fake::object* const loader = vm.makeObject(loaders);
    vm.makeMethod(
        loaders, "getSystemClassLoader", "()Ljava/lang/ClassLoader;",
        {.isStatic = true, .body = [loader](fake::invocation&) { return fake::value{loader}; }});
    vm.makeMethod(loaders, "getParent", "()Ljava/lang/ClassLoader;",
                  {.body = [](fake::invocation&) {
                    return fake::value{static_cast<fake::object*>(nullptr)};
                  }});
    vm.makeMethod(loaders, "appendToClassPathForInstrumentation", "(Ljava/lang/String;)V",
                  {.body = [this](fake::invocation& call) {
                    appended = textIn(call);
                    return fake::value{};
                  }});
    fake::javaClass* const companion =
        vm.makeClass("com.korvane.twutils.nativeagent.companion.Companion");
    vm.makeMethod(loaders, "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;",
                  {.body = [companion](fake::invocation&) {
                    return fake::value{static_cast<fake::object*>(companion)};
                  }});
    vm.makeMethod(companion, "start", kStart,
                  {.isStatic = true, .body = [this](fake::invocation& call) {
                     ++starts;
                     settings = textIn(call);
                     isLate = std::get<jboolean>(call.arguments.at(1)) != JNI_FALSE;
                     if (throws) {
                       vm.throwInJava(nullptr);
                     }
                     return fake::value{};
                   }});
  }

  static std::string textIn(const fake::invocation& call) {
    return static_cast<fake::javaString*>(std::get<fake::object*>(call.arguments.at(0)))->text;
  }
  std::string settingsFile() const { return folder() / "settings.properties"; }
  void loadQuietly(const std::string& options) {
    testing::internal::CaptureStdout();
    ASSERT_EQ(load(("quiet=1,companion=" + settingsFile() + options).c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  }
  bool startNow() {
    return vm.native([](JNIEnv* jni) { return agent::companionStart::ofProcess().startNow(jni); });
  }

  int starts = 0;
  bool throws = false;
  std::optional<bool> isLate;
  std::string settings;
  std::string appended;
};

TEST_F(companionStartTest, comesBeforeMain) {
  loadQuietly("");
  EXPECT_EQ(starts, 0);
  vm.vmInit(vm.makeThread("main"));
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(settings, settingsFile());
  EXPECT_EQ(isLate, false);
  EXPECT_THAT(appended, testing::EndsWith("/javanativeagent.jar"));
}

TEST_F(companionStartTest, isNotStartedWithoutTheOption) {
  ASSERT_EQ(load("logLevel=1"), 0);
  vm.vmInit(vm.makeThread("main"));
  EXPECT_EQ(starts, 0);
  EXPECT_FALSE(startNow());
}

TEST_F(companionStartTest, comesLateOnAThreadOfItsOwnWhenItIsAskedFor) {
  vm.on("RunAgentThread", [] {});
  loadQuietly(",companionLate=1");
  vm.vmInit(vm.makeThread("main"));
  vm.runAgentThreads();  // nothing tells when hooks run: it does not wait
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(isLate, true);
  EXPECT_TRUE(startNow());
  EXPECT_EQ(starts, 1);
}

TEST_F(companionStartTest, ofAnIdleAgentIsStartedWhereItIsAskedFor) {
  loadQuietly(",idle=1");
  EXPECT_EQ(starts, 0);
  EXPECT_TRUE(startNow());
  EXPECT_TRUE(startNow());
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(isLate, true);
}

TEST_F(companionStartTest, anExceptionOfItsIsPrintedAndCleared) {
  throws = true;
  loadQuietly(",logLevel=1");
  testing::internal::CaptureStderr();
  vm.vmInit(vm.makeThread("main"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "javanativeagent: the companion cannot be started: it has failed\n");
  EXPECT_EQ(vm.pendingException(), nullptr);
  EXPECT_THAT(messages("Error"), Contains(HasSubstr("The companion cannot be started: it has")));
}

// Nobody waits for one that will not come.
TEST_F(companionStartTest, anErrorInTheAgentEndsTheStart) {
  loadQuietly(",idle=1");
  vm.on("NewStringUTF", [] { throw std::bad_alloc(); });
  testing::internal::CaptureStderr();
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_TRUE(startNow());
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "javanativeagent: the companion cannot be started: an error in the agent\n");
  vm.off("NewStringUTF");
  EXPECT_EQ(starts, 0);
}

// It may be killed before its companion comes.
TEST_F(companionStartTest, aVmIsListedOnceWhenItIsLoaded) {
  const std::string line = std::to_string(::getpid()) + " -\n";
  loadQuietly(",idle=1");
  EXPECT_EQ(readFile(folder() / "settings.jvms"), line);
  EXPECT_TRUE(startNow());
  unload();
  EXPECT_EQ(readFile(folder() / "settings.jvms"), line);
}

TEST_F(companionStartTest, aVmThatEndsBeforeHasNone) {
  loadQuietly(",idle=1");
  unload();
  EXPECT_FALSE(startNow());
  EXPECT_EQ(starts, 0);
}

}  // namespace
