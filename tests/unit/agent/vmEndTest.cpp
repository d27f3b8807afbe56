// The end of the VM: no handler is at work any more when the thread that ends it goes on.
#include "agent/vmEnd.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <memory>
#include <thread>

#include "agent/attach.h"
#include "agent/idle.h"
#include "agent/setUp.h"
#include "exceptionTest.h"

namespace {

using namespace test;
using std::chrono::steady_clock;
using ::testing::IsEmpty;

constexpr const char* kOwnerUnknown = "monitor usage owner not found";

class vmEnd : public exceptionTest {
 protected:
  // ThreadEnd as the VM posts it for the thread that calls System.exit.
  void exit() {
    ending_->setFrames({frameOf("java.lang.Shutdown.halt0")});
    vm.threadEnd(ending_);
  }

  // Runs `event` on a thread of its own that gets stuck in its first call of `function`, and, while
  // it is stuck, `meanwhile`; then lets it go on and waits for its end.
  void whileStuckIn(const char* function, const std::function<void(fake::javaThread*)>& event,
                    const std::function<void()>& meanwhile) {
    fake::javaThread* const stuck = vm.makeThread("stuck");
    std::atomic<bool> once{false};
    vm.on(function, [&](const fake::call&) {
      if (vm.currentThread() != stuck || once.exchange(true)) {
        return;
      }
      reached_.count_down();
      release_.wait();
    });
    fake::attachedThread handler(vm, stuck, [&](JNIEnv*) {
      event(stuck);
      isOut_ = true;
    });
    reached_.wait();
    meanwhile();
    if (!release_.try_wait()) {
      release_.count_down();
    }
    handler.join();
    vm.off(function);
  }
  void letGo() { release_.count_down(); }
  // The end begins while a handler is stuck, and the handler goes on after that.
  void exitAndThenLetGo() {
    std::thread releasing([&] {
      while (!agent::vmIsEnding()) {
        std::this_thread::yield();
      }
      letGo();
    });
    exit();
    releasing.join();
  }
  bool isOut() const { return isOut_; }

  void contendedEnter(fake::javaThread* thread) { vm.contendedEnter(thread, lock); }
  void thrown(fake::javaThread* thread) {
    const fake::frame frame = frameOf("a.A.m", {{"x", "I", jint{1}}, {"y", "I", jint{2}}});
    thread->setFrames({frame});
    vm.exception(thread, frame.code, frame.location, vm.makeObject(kFailure));
  }

  fake::object* lock = vm.makeObject("a.Lock");

 private:
  fake::javaThread* ending_ = vm.makeThread("main");
  std::latch reached_{1};
  std::latch release_{1};
  std::atomic<bool> isOut_{false};
};

TEST_F(vmEnd, aThreadThatEndsOtherwiseChangesNothing) {
  load();
  beginDetail({lock});
  vm.threadEnd(vm.makeThread("worker"));
  vm.threadEnd(vm.makeThread(std::nullopt));
  EXPECT_FALSE(agent::vmIsEnding());
  contend(vm.makeThread("A"), lock);
  EXPECT_EQ(lockBeanOf(lock)->count, 1U);
}

TEST_F(vmEnd, afterExitNoEventIsEnabledAndNoHandlerWorks) {
  begin({.methodArguments = true}, "logLevel=1");
  beginDetail({lock});
  exit();
  EXPECT_TRUE(agent::vmIsEnding());
  for (const jvmtiEvent event :
       {JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED, JVMTI_EVENT_MONITOR_CONTENDED_ENTER,
        JVMTI_EVENT_MONITOR_CONTENDED_ENTERED, JVMTI_EVENT_EXCEPTION,
        JVMTI_EVENT_GARBAGE_COLLECTION_FINISH}) {
    EXPECT_FALSE(vm.isEnabled(event)) << event;
  }
  // An event that the VM had decided to post before.
  vm.resetCalls();
  vm.contendedEnter(vm.makeThread("A"), lock, fake::delivery::always);
  EXPECT_THAT(vm.callNames(), IsEmpty());
  EXPECT_EQ(agent::getMutexProfiler(), nullptr);
  EXPECT_EQ(agent::getExceptionProfiler(), nullptr);
}

TEST_F(vmEnd, theThreadThatDestroysTheVmAfterMainIsTheEndToo) {
  load();
  vm.threadEnd(vm.makeThread("DestroyJavaVM"));
  EXPECT_TRUE(agent::vmIsEnding());
  EXPECT_EQ(agent::getMutexProfiler(), nullptr);
}

TEST_F(vmEnd, anAttachedThreadThatDestroysTheVmIsTheEndToo) {
  static std::function<void()> destroy;
  static JNIInvokeInterface_ functions;
  functions = *vm.javaVm()->functions;
  functions.DestroyJavaVM = [](JavaVM* /*vm*/) -> jint {
    destroy();
    return JNI_OK;
  };
  vm.javaVm()->functions = &functions;
  load();
  fake::javaThread* const main = vm.makeThread("main");
  destroy = [this, main] { vm.threadEnd(main); };
  vm.threadEnd(main);
  EXPECT_FALSE(agent::vmIsEnding()) << "it is detached";
  vm.javaVm()->DestroyJavaVM();
  EXPECT_TRUE(agent::vmIsEnding());
  EXPECT_EQ(agent::getMutexProfiler(), nullptr);
}

// One that was set up before: nothing watches for the end before that.
TEST_F(vmEnd, anAgentThatIsIdleAgainDoesNotWakeAnyMore) {
  load();
  exit();
  agent::beIdle("features=mutexprofiling");
  vm.resetCalls();
  vm.native([](JNIEnv* jni) { agent::wakeIdle(jni); });
  EXPECT_THAT(vm.callNames(), IsEmpty());
  EXPECT_TRUE(agent::isIdle());
  agent::forgetIdle();
}

TEST_F(vmEnd, nothingIsAttachedAnyMore) {
  load();
  exit();
  std::string options = "logLevel=1";
  testing::internal::CaptureStderr();
  EXPECT_EQ(
      vm.native([&](JNIEnv*) { return Agent_OnAttach(vm.javaVm(), options.data(), nullptr); }), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "javanativeagent: not attached: the JVM is ending\n");
  EXPECT_FALSE(agent::isSetUp());
}

// Another thread may be setting the agent up while the VM begins to end.
TEST_F(vmEnd, aSetUpThatItMeetsComesToNothing) {
  load("features=none");
  vm.native([&](JNIEnv* jni) { EXPECT_EQ(agent::detach(jni), ""); });
  std::string options = "twHome=" + folder().string() + ",logLevel=1";
  vm.on("AddCapabilities", [&] { exit(); });
  testing::internal::CaptureStderr();
  EXPECT_EQ(
      vm.native([&](JNIEnv*) { return Agent_OnAttach(vm.javaVm(), options.data(), nullptr); }), 1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("the JVM is ending"));
  EXPECT_FALSE(agent::isSetUp());
  EXPECT_EQ(agent::getMutexProfiler(), nullptr);
}

TEST_F(vmEnd, anEndThatTheVmDoesNotExplainIsNone) {
  load();
  vm.fail("GetFrameCount");
  exit();
  EXPECT_FALSE(agent::vmIsEnding());
}

TEST_F(vmEnd, aVmThatCannotBeWatchedIsProfiledAllTheSame) {
  vm.fail("GetEnv", {.from = 2});
  load();
  vm.succeed("GetEnv");
  exit();
  EXPECT_FALSE(agent::vmIsEnding());
  EXPECT_NE(locks(), nullptr);
}

TEST_F(vmEnd, aVmThatWaitsForNobodyIsNotWatched) {
  vm.setFeatureVersion(25);
  load();
  exit();
  EXPECT_FALSE(agent::vmIsEnding());
  EXPECT_NE(locks(), nullptr);
}

TEST_F(vmEnd, aVmThatGivesNoVersionIsNotWatched) {
  vm.fail("GetVersionNumber");
  load();
  exit();
  EXPECT_FALSE(agent::vmIsEnding());
}

TEST_F(vmEnd, threadsThatEndAfterItCallNothing) {
  load();
  exit();
  vm.resetCalls();
  EXPECT_FALSE(vm.threadEnd(vm.makeThread("worker")));
  exit();
  EXPECT_THAT(vm.callNames(), IsEmpty());
}

TEST_F(vmEnd, aSinkThatEndsTheVmDoesNotWaitForItself) {
  begin();
  inCallback = [this](fake::invocation&) {
    const auto begun = steady_clock::now();
    exit();
    EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(1));
    EXPECT_TRUE(agent::vmIsEnding());
  };
  recordOf({frameOf("a.A.m")});
}

TEST_F(vmEnd, unloadingAfterItFindsNothingToDo) {
  load();
  exit();
  unload();
  vm.checkNothingHeld();
}

TEST_F(vmEnd, aHandlerAtWorkIsWaitedFor) {
  load();
  beginDetail({lock});
  whileStuckIn(
      "GetObjectMonitorUsage", [&](fake::javaThread* thread) { contendedEnter(thread); },
      [&] {
        std::thread releasing([&] {
          while (!agent::vmIsEnding()) {
            std::this_thread::yield();
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
          letGo();
        });
        exit();
        EXPECT_TRUE(isOut());
        releasing.join();
      });
}

TEST_F(vmEnd, aHandlerThatIsStuckIsNotWaitedForForEver) {
  load();
  beginDetail({lock});
  whileStuckIn(
      "GetStackTrace", [&](fake::javaThread* thread) { contendedEnter(thread); },
      [&] {
        const auto begun = steady_clock::now();
        exit();
        EXPECT_FALSE(isOut());
        EXPECT_GE(steady_clock::now() - begun, std::chrono::seconds(2));
        EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(4));
      });
}

// The entry is held up before it asks for the owner; by then the VM is ending.
TEST_F(vmEnd, noOwnerIsAskedForAnyMore) {
  load("logLevel=1");
  beginDetail({lock});
  vm.resetCalls();
  whileStuckIn(
      "GetTime", [&](fake::javaThread* thread) { contendedEnter(thread); },
      [&] { exitAndThenLetGo(); });
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 0U);
  EXPECT_EQ(errorsSaying(kOwnerUnknown), 0U);
}

TEST_F(vmEnd, noVariableIsReadAnyMoreAndNoPartOfARecordIsDelivered) {
  begin({.methodArguments = true}, "logLevel=1");
  vm.resetCalls();
  whileStuckIn(
      "GetLocalInt", [&](fake::javaThread* thread) { thrown(thread); },
      [&] { exitAndThenLetGo(); });
  EXPECT_EQ(vm.calls("GetLocalInt"), 1U);
  EXPECT_THAT(deliveries(), IsEmpty());
}

}  // namespace
