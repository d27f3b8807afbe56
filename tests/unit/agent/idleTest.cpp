// An agent that takes nothing of the VM at first, and then what a running one still gives.
#include "agent/idle.h"

#include <com_korvane_twutils_nativeagent_AgentAttach.h>
#include <com_korvane_twutils_nativeagent_AgentCompanion.h>
#include <com_korvane_twutils_nativeagent_AgentContention.h>

#include <set>
#include <string>

#include "agent/setUp.h"
#include "agentTest.h"
#include "contention/contentionProfile.h"
#include "eachCall.h"
#include "exceptions/captureMode.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class idleTest : public agentTest {
 protected:
  idleTest() { vm.refuseLateCapabilities(); }

  void loadIdle(const std::string& options = "logLevel=4") {
    testing::internal::CaptureStdout();
    ASSERT_EQ(load(("idle=1," + options).c_str()), 0);
    testing::internal::GetCapturedStdout();
    vm.setPhase(JVMTI_PHASE_LIVE);
  }
  void wake() {
    vm.native([](JNIEnv* jni) {
      Java_com_korvane_twutils_nativeagent_AgentCompanion_wake(jni, nullptr);
    });
  }
  std::string detach() {
    return vm.native([&](JNIEnv* jni) {
      jstring const text = Java_com_korvane_twutils_nativeagent_AgentAttach_detach(jni, nullptr);
      if (text == nullptr) {
        return std::string();
      }
      std::string taken = static_cast<fake::javaString*>(vm.target(text))->text;
      jni->DeleteLocalRef(text);
      return taken;
    });
  }
};

TEST_F(idleTest, takesNothingOfTheVm) {
  loadIdle();
  EXPECT_THAT(vm.callNames(), IsEmpty());
  EXPECT_TRUE(agent::isIdle());
  EXPECT_TRUE(agent::isSetUp());
}

TEST_F(idleTest, capturesExceptionsWhereTheyAreMadeFromTheStart) {
  loadIdle("exceptionCapture=thrown");
  EXPECT_TRUE(agent::exceptionsAreCapturedWhereMade());
  wake();
  EXPECT_TRUE(agent::exceptionsAreCapturedWhereMade());
  EXPECT_EQ(vm.capabilities().can_retransform_classes, 0U);  // its hook asks for it
  EXPECT_EQ(vm.capabilities().can_generate_exception_events, 0U);
}

TEST_F(idleTest, takesWhatTheVmStillGivesAndNamesTheRest) {
  loadIdle();
  wake();
  EXPECT_FALSE(agent::isIdle());
  EXPECT_TRUE(agent::isSetUp());
  EXPECT_EQ(vm.capabilities().can_generate_monitor_events, 1U);
  EXPECT_EQ(vm.capabilities().can_access_local_variables, 0U);
  EXPECT_THAT(messages("warn"),
              Contains(HasSubstr("does not give an agent that was idle can_access_local")));
  EXPECT_THAT(messages("warn"), Not(Contains(HasSubstr("can_generate_monitor_events"))));
}

TEST_F(idleTest, logsWhatItDoesNotDo) {
  loadIdle("contentionLocks=none,contention=1,allocations=1");
  EXPECT_THAT(messages("warn"), Contains(HasSubstr("Ignoring option 'contentionLocks=none'")));
  EXPECT_THAT(messages("Error"),
              Contains(HasSubstr("contention profile does not run: the agent is idle")));
  EXPECT_THAT(messages("Error"),
              Contains(HasSubstr("allocation profile does not run: the agent is idle")));
}

TEST_F(idleTest, wakesOnce) {
  loadIdle();
  wake();
  vm.resetCalls();
  wake();
  EXPECT_THAT(vm.callNames(), IsEmpty());
}

TEST_F(idleTest, doesNotWakeAfterItHasLeft) {
  loadIdle();
  EXPECT_EQ(detach(), "");
  EXPECT_FALSE(agent::isSetUp());
  vm.resetCalls();
  wake();
  EXPECT_THAT(vm.callNames(), IsEmpty());
  EXPECT_FALSE(agent::isSetUp());
}

TEST_F(idleTest, staysIdleWhateverTheVmRefusesAndWakesLater) {
  loadIdle("features=mutexprofiling,logLevel=1");
  for (const char* const call :
       {"GetJavaVM", "GetEnv", "GetPotentialCapabilities", "AddCapabilities"}) {
    SCOPED_TRACE(call);
    vm.fail(call, {.error = JVMTI_ERROR_OUT_OF_MEMORY, .times = 1});
    wake();
    EXPECT_TRUE(agent::isIdle());
    EXPECT_EQ(vm.capabilities().can_generate_monitor_events, 0U);
    vm.succeed(call);
  }
  EXPECT_THAT(messages("Error"), Contains(HasSubstr("The agent stays idle: the VM refuses the")));
  wake();
  EXPECT_FALSE(agent::isIdle());
  EXPECT_EQ(vm.capabilities().can_generate_monitor_events, 1U);
}

// --- Natives that need what it has not taken.

TEST_F(idleTest, aLockSessionWakesIt) {
  loadIdle();
  beginSummary();
  EXPECT_FALSE(agent::isIdle());
  fake::object* const lock = vm.makeObject("com.example.Lock");
  contend(vm.makeThread("worker"), lock);
  ASSERT_NE(lockBeanOf(lock), nullptr);
  EXPECT_EQ(lockBeanOf(lock)->count.load(), 1);
}

TEST_F(idleTest, aTagWakesIt) {
  loadIdle();
  vm.native([&](JNIEnv* jni) {
    TW_NATIVE(setObjectTag)(jni, nullptr, vm.ref(vm.makeObject("com.example.Order")));
  });
  EXPECT_FALSE(agent::isIdle());
  EXPECT_EQ(vm.calls("SetTag"), 1U);
}

TEST_F(idleTest, aContentionProfileWakesIt) {
  loadIdle();
  vm.native([&](JNIEnv* jni) {
    jstring const problem = Java_com_korvane_twutils_nativeagent_AgentContention_start(
        jni, nullptr, 1000, 100, 1, 60000, 600000);
    EXPECT_EQ(problem, nullptr);
    EXPECT_FALSE(agent::isIdle());
    agent::contentionProfile::ofProcess().stop(jni);
  });
  vm.runAgentThreads();
}

}  // namespace
