// The agent in a VM that runs already: what it gets of it, what it refuses, and how it leaves.
#include "agent/attach.h"

#include <com_korvane_twutils_nativeagent_AgentAttach.h>
#include <com_korvane_twutils_nativeagent_AgentContention.h>

#include <new>
#include <set>
#include <string>
#include <utility>
#include <variant>

#include "agent/attachCommand.h"
#include "agent/setUp.h"
#include "agentTest.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "eachCall.h"
#include "exceptions/captureMode.h"

#define TW_ATTACH(method) Java_com_korvane_twutils_nativeagent_AgentAttach_##method

extern "C" int twNativeAgentIsInUse();

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr jint kDone = 0;
constexpr jint kFailed = 1;
constexpr jint kAlreadyLoaded = 2;
constexpr jint kNoCompanion = 3;
constexpr jint kCompanionFailed = 4;
constexpr jint kNotSetUp = 5;

class attachTest : public agentTest {
 protected:
  attachTest() { vm.refuseLateCapabilities(); }

  void TearDown() override {
    if (isAttached()) {
      EXPECT_EQ(detach(), "");
    }
    agentTest::TearDown();
  }

  jint attachWith(std::string options) {
    return vm.native([&](JNIEnv*) { return Agent_OnAttach(vm.javaVm(), options.data(), nullptr); });
  }
  jint attach(const std::string& options = "logLevel=4") {
    return attachWith("twHome=" + folder().string() + "," + options);
  }
  // Null for Java is an empty text.
  std::string detach() {
    return vm.native([&](JNIEnv* jni) { return takeText(jni, TW_ATTACH(detach)(jni, nullptr)); });
  }
  std::string missing() {
    return vm.native([&](JNIEnv* jni) { return takeText(jni, TW_ATTACH(missing)(jni, nullptr)); });
  }
  bool isAttached() {
    return vm.native([&](JNIEnv* jni) { return TW_ATTACH(isAttached)(jni, nullptr) != JNI_FALSE; });
  }
  std::string takeText(JNIEnv* jni, jstring text) {
    if (text == nullptr) {
      return {};
    }
    std::string taken = static_cast<fake::javaString*>(vm.target(text))->text;
    jni->DeleteLocalRef(text);
    return taken;
  }

  // The companion's class, as the system class loader finds it, with this method.
  void loadCommands(std::function<fake::value(fake::invocation&)> run) {
    fake::javaClass* const commands =
        vm.makeClass("com.korvane.twutils.nativeagent.companion.Commands");
    if (run) {
      vm.makeMethod(commands, "run", "(Ljava/lang/String;)I",
                    {.isStatic = true, .body = std::move(run)});
    }
    found = commands;
  }
  // The class loader of a program; without the companion it throws.
  void loadLoader() {
    fake::javaClass* const loaders = vm.classNamed("java.lang.ClassLoader");
    fake::object* const loader = vm.makeObject(loaders);
    vm.makeMethod(
        loaders, "getSystemClassLoader", "()Ljava/lang/ClassLoader;",
        {.isStatic = true, .body = [loader](fake::invocation&) { return fake::value{loader}; }});
    vm.makeMethod(loaders, "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;",
                  {.body = [this](fake::invocation&) {
                    if (found == nullptr) {
                      vm.throwInJava(nullptr);
                    }
                    return fake::value{static_cast<fake::object*>(found)};
                  }});
  }

  fake::javaClass* found = nullptr;
};

}  // namespace

TEST_F(attachTest, takesWhatTheVmStillGives) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(attach(), kDone);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  const jvmtiCapabilities given = vm.capabilities();
  EXPECT_EQ(given.can_generate_monitor_events, 1U);
  EXPECT_EQ(given.can_get_monitor_info, 1U);
  EXPECT_EQ(given.can_tag_objects, 1U);
  EXPECT_EQ(given.can_generate_exception_events, 0U);
  EXPECT_EQ(given.can_access_local_variables, 0U);
  EXPECT_EQ(vm.calls("AddCapabilities"), 1U);
  EXPECT_TRUE(isAttached());
}

TEST_F(attachTest, namesWhatTheVmRefuses) {
  ASSERT_EQ(attach(), kDone);
  EXPECT_THAT(missing(), HasSubstr("can_generate_exception_events: "));
  EXPECT_THAT(missing(), HasSubstr("can_access_local_variables: "));
  EXPECT_THAT(missing(), HasSubstr("can_get_owned_monitor_stack_depth_info: "));
  EXPECT_THAT(missing(), Not(HasSubstr("can_generate_monitor_events")));
  EXPECT_THAT(messages("warn"),
              Contains(HasSubstr("does not give an attached agent can_access_local_variables")));
}

TEST_F(attachTest, capturesExceptionsWhereTheyAreMade) {
  ASSERT_EQ(attach("exceptionCapture=thrown"), kDone);
  EXPECT_TRUE(agent::exceptionsAreCapturedWhereMade());
}

TEST_F(attachTest, changesNothingTheSecondTime) {
  ASSERT_EQ(attach("features=mutexprofiling"), kDone);
  vm.resetCalls();
  EXPECT_EQ(attach("features=memoryprofiling,logLevel=1"), kAlreadyLoaded);
  EXPECT_EQ(vm.callNames(), std::set<std::string>{"GetEnv"});
  EXPECT_EQ(agent::findRegistry()->find(agent::kMemoryProfiler), nullptr);
}

TEST_F(attachTest, isAlreadyThereWhenItWasLoadedWithTheVm) {
  ASSERT_EQ(load("logLevel=4"), 0);
  EXPECT_EQ(attach(), kAlreadyLoaded);
  EXPECT_FALSE(isAttached());
  EXPECT_EQ(missing(), "");
}

TEST_F(attachTest, refusesAnOptionThatCannotBeRead) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(attach("logLevel=four"), kFailed);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("not attached: an option"));
  EXPECT_THAT(messages("Error"), Contains(HasSubstr("Not attached: an option cannot be read")));
  EXPECT_EQ(agent::findRegistry(), nullptr);
  EXPECT_FALSE(isAttached());
  EXPECT_EQ(attach(), kDone);
}

// Another copy may be attached with better options.
TEST_F(attachTest, isNotUsedBeforeItIsAttached) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(attach("logLevel=four"), kFailed);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(twNativeAgentIsInUse(), 0);
  EXPECT_EQ(attach(), kDone);
  EXPECT_EQ(twNativeAgentIsInUse(), 1);
  EXPECT_EQ(detach(), "");
  EXPECT_EQ(twNativeAgentIsInUse(), 1) << "natives may be bound to it";
}

// A native of the companion may have asked for the environment.
TEST_F(attachTest, aSetUpThatComesToNothingLeavesAnEnvironmentThatIsUsed) {
  vm.fail("AddCapabilities", {.from = 1, .times = 1});
  testing::internal::CaptureStderr();
  {
    const instruments::handlerGate::pass inside(agent::nativesGate());
    EXPECT_EQ(attach(), kFailed);
  }
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(vm.disposed());
  EXPECT_FALSE(agent::isSetUp());
}

// What starts the profiles may throw between them.
TEST_F(attachTest, aSetUpThatThrowsLeavesNoProfile) {
  bool isOn = false;
  vm.on("RunAgentThread", [&] { isOn = true; });
  vm.on("GetPotentialCapabilities", [&] {
    if (isOn) {
      throw std::bad_alloc();
    }
  });
  EXPECT_EQ(attach("contention=1,allocations=1"), kFailed);
  EXPECT_TRUE(isOn);
  vm.off("GetPotentialCapabilities");
  vm.runAgentThreads();
  EXPECT_FALSE(agent::contentionProfile::ofProcess().isRunning());
  EXPECT_FALSE(agent::isSetUp());
  EXPECT_TRUE(vm.disposed());
}

TEST_F(attachTest, hasNoLogWithoutAFolderForIt) {
  ASSERT_EQ(attachWith("logLevel=4"), kDone);
  EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::current_path()));
}

TEST_F(attachTest, leavesNothingAndComesBack) {
  ASSERT_EQ(attach(), kDone);
  EXPECT_EQ(startProfiling(), 1);
  startSummary();
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  EXPECT_EQ(detach(), "");
  EXPECT_TRUE(vm.disposed());
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  EXPECT_EQ(vm.capabilities().can_generate_monitor_events, 0U);
  EXPECT_FALSE(isAttached());
  EXPECT_EQ(missing(), "");
  EXPECT_EQ(startProfiling(), 0);
  vm.checkNothingHeld();

  ASSERT_EQ(attach(), kDone);
  beginSummary();
  contend(vm.makeThread("worker"), vm.makeObject("com.example.Lock"));
  stopSummary();
  EXPECT_EQ(detach(), "");
}

TEST_F(attachTest, doesNotDetachTwice) {
  ASSERT_EQ(attach(), kDone);
  EXPECT_EQ(detach(), "");
  EXPECT_EQ(detach(), "the agent is not set up in this JVM");
}

TEST_F(attachTest, startsNoProfileAfterItHasLeft) {
  ASSERT_EQ(attach(), kDone);
  EXPECT_EQ(detach(), "");
  vm.native([&](JNIEnv* jni) {
    EXPECT_EQ(agent::contentionProfile::ofProcess().start(vm.javaVm(), jni, {}),
              "the agent is detached");
    EXPECT_EQ(agent::allocationProfile::ofProcess().start(vm.javaVm(), jni, {}),
              "the agent is detached");
  });
}

TEST_F(attachTest, aThreadBlockedMeanwhileCountsNothing) {
  fake::javaThread* const thread = vm.makeThread("worker");
  fake::object* const lock = vm.makeObject("com.example.Lock");
  EXPECT_FALSE(vm.contendedEnter(thread, lock));
  ASSERT_EQ(attach(), kDone);
  beginSummary();
  EXPECT_TRUE(vm.contendedEntered(thread, lock));
  EXPECT_EQ(lockBeanOf(lock), nullptr);
  contend(thread, lock, 5);
  ASSERT_NE(lockBeanOf(lock), nullptr);
  EXPECT_EQ(lockBeanOf(lock)->count.load(), 1);
}

TEST_F(attachTest, setsUpAllOrNothingWhateverTheVmRefuses) {
  testing::internal::CaptureStderr();
  jint answer = kFailed;
  refuseEachCallOf(
      vm, [&] { answer = attach("contention=1"); },
      [&] {
        if (answer == kDone) {
          EXPECT_TRUE(agent::isSetUp());
          vm.native([&](JNIEnv* jni) { agent::contentionProfile::ofProcess().stop(jni); });
          vm.runAgentThreads();
          EXPECT_EQ(detach(), "");
        } else {
          EXPECT_EQ(answer, kFailed);
        }
        EXPECT_FALSE(agent::isSetUp());
        EXPECT_FALSE(isAttached());
        EXPECT_EQ(vm.capabilities().can_generate_monitor_events, 0U);
        vm.checkNothingHeld();
      });
  testing::internal::GetCapturedStderr();
}

TEST_F(attachTest, leavesWhateverTheVmRefuses) {
  ASSERT_EQ(attach("logLevel=1"), kDone);
  refuseEachCallOf(
      vm, [&] { detach(); },
      [&] {
        if (agent::isSetUp()) {
          detach();
        }
        EXPECT_FALSE(isAttached());
        EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
        ASSERT_EQ(attach("logLevel=1"), kDone);
      });
}

// --- Commands.

TEST_F(attachTest, handsACommandToTheCompanion) {
  std::string path;
  loadLoader();
  loadCommands([&](fake::invocation& call) {
    path = static_cast<fake::javaString*>(std::get<fake::object*>(call.arguments.at(0)))->text;
    return fake::value{jint{0}};
  });
  ASSERT_EQ(load("logLevel=4"), 0);
  EXPECT_EQ(attachWith("command=/tmp/a folder/request,1"), kDone);
  EXPECT_EQ(path, "/tmp/a folder/request,1");
}

TEST_F(attachTest, answersWhatBecameOfACommand) {
  EXPECT_EQ(attachWith("command=/tmp/request"), kNotSetUp);
  ASSERT_EQ(load("logLevel=4"), 0);
  loadLoader();
  EXPECT_EQ(attachWith("command=/tmp/request"), kNoCompanion);
  EXPECT_THAT(messages("Error"), Contains(HasSubstr("The companion is not in this JVM")));
  loadCommands([](fake::invocation&) { return fake::value{jint{1}}; });
  EXPECT_EQ(attachWith("command=/tmp/request"), kCompanionFailed);
  loadCommands([&](fake::invocation&) {
    vm.throwInJava(nullptr);
    return fake::value{jint{0}};
  });
  EXPECT_EQ(attachWith("command=/tmp/request"), kCompanionFailed);
  EXPECT_THAT(messages("Error"), Contains(HasSubstr("The companion threw")));
}

TEST_F(attachTest, takesACommandAloneOnly) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(attach("command=/tmp/request"), kFailed);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("'command' stands alone"));
  EXPECT_EQ(agent::findRegistry(), nullptr);
}
