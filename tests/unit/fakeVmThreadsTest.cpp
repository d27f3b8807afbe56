// The fake VM when several threads use it.
#include <gtest/gtest-spi.h>

#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "fakevm/fakeVm.h"

namespace {

using fake::attachedThread;

// What the installed callback does; set by the test. Callbacks are plain functions, so this is
// where it finds it.
std::function<void(JNIEnv*, jthread, jobject)> onEvent;

void JNICALL contendedEnter(jvmtiEnv*, JNIEnv* jni, jthread thread, jobject object) {
  onEvent(jni, thread, object);
}

class fakeVmThreads : public fake::vmTest {
 protected:
  void SetUp() override {
    jvmti = vm.jvmti();
    jni = vm.env();
  }
  void TearDown() override {
    onEvent = nullptr;
    vmTest::TearDown();
  }
  void install() {
    jvmtiEventCallbacks callbacks{};
    callbacks.MonitorContendedEnter = contendedEnter;
    ASSERT_EQ(jvmti->SetEventCallbacks(&callbacks, sizeof callbacks), JVMTI_ERROR_NONE);
    ASSERT_EQ(
        jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTER, nullptr),
        JVMTI_ERROR_NONE);
  }

  jvmtiEnv* jvmti = nullptr;
  JNIEnv* jni = nullptr;
};

TEST_F(fakeVmThreads, aThreadIsDetachedUntilItAttaches) {
  std::thread([this] {
    void* found = nullptr;
    jlong time = 0;
    EXPECT_EQ(vm.javaVm()->GetEnv(&found, JNI_VERSION_1_8), JNI_EDETACHED);
    EXPECT_EQ(jvmti->GetTime(&time), JVMTI_ERROR_NONE);
    EXPECT_EQ(jvmti->SetThreadLocalStorage(nullptr, nullptr), JVMTI_ERROR_UNATTACHED_THREAD);
    EXPECT_EQ(vm.javaVm()->AttachCurrentThread(&found, nullptr), JNI_OK);
    EXPECT_EQ(jvmti->SetThreadLocalStorage(nullptr, nullptr), JVMTI_ERROR_NONE);
    EXPECT_EQ(vm.javaVm()->DetachCurrentThread(), JNI_OK);
    EXPECT_EQ(vm.javaVm()->GetEnv(&found, JNI_VERSION_1_8), JNI_EDETACHED);
  }).join();
  EXPECT_EQ(vm.calls("SetThreadLocalStorage"), 2U);
}

TEST_F(fakeVmThreads, referencesOfAnotherThreadFail) {
  jobject mine = vm.ref(vm.makeObject("com.example.Lock"));
  attachedThread other(vm, "other", [&](JNIEnv* itsJni) {
    EXPECT_NONFATAL_FAILURE(itsJni->GetObjectClass(mine), "a local reference of another thread");
    EXPECT_NONFATAL_FAILURE(itsJni->DeleteLocalRef(mine), "a local reference of another thread");
    EXPECT_NONFATAL_FAILURE(jni->ExceptionCheck(), "the JNIEnv of another thread");
  });
}

TEST_F(fakeVmThreads, aDetachingThreadReportsWhatItHolds) {
  std::thread([this] {
    JNIEnv* env = vm.attach();
    env->FindClass("java/lang/String");
    EXPECT_NONFATAL_FAILURE(vm.detach(), "local references not deleted: 1 of FindClass");
  }).join();
}

TEST_F(fakeVmThreads, aHookMayBlockAThreadInsideACall) {
  std::latch inside(1);
  std::latch go(1);
  vm.on("GetObjectMonitorUsage", [&] {
    inside.count_down();
    go.wait();
  });
  auto* lock = vm.makeObject("com.example.Lock");
  attachedThread other(vm, "other", [&](JNIEnv*) {
    jvmtiMonitorUsage usage{};
    EXPECT_EQ(jvmti->GetObjectMonitorUsage(vm.ref(lock), &usage), JVMTI_ERROR_NONE);
  });
  inside.wait();
  vm.setTime(5);  // the machine is usable meanwhile
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 1U);
  go.count_down();
}

TEST_F(fakeVmThreads, manyThreadsUseItAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 200;
  install();
  std::atomic<int> events{0};
  auto* lock = vm.makeObject("com.example.Lock");
  jweak weak = jni->NewWeakGlobalRef(vm.ref(lock->type));
  onEvent = [&](JNIEnv* env, jthread thread, jobject object) {
    ++events;
    jvmtiThreadInfo info{};
    jvmti->GetThreadInfo(thread, &info);
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(info.name));
    env->DeleteLocalRef(info.thread_group);
    env->DeleteLocalRef(info.context_class_loader);
    jclass type = env->GetObjectClass(object);
    EXPECT_TRUE(env->IsSameObject(weak, type));
    env->DeleteGlobalRef(env->NewGlobalRef(type));
    env->DeleteLocalRef(type);
  };
  std::latch start(kThreads);
  {
    std::vector<std::unique_ptr<attachedThread>> threads;
    for (int number = 0; number < kThreads; ++number) {
      threads.push_back(std::make_unique<attachedThread>(vm, "worker", [&](JNIEnv*) {
        start.arrive_and_wait();
        for (int round = 0; round < kRounds; ++round) {
          vm.contendedEnter(vm.currentThread(), lock);
          vm.setWaiters(lock, {vm.currentThread()});
        }
      }));
    }
    for (int round = 0; round < kRounds; ++round) {  // the test meddles meanwhile
      vm.fail("GetTag", {.times = 1});
      vm.globalReferencesTo(lock);
      vm.collect(vm.makeObject("com.example.Garbage"));
      vm.calls("GetThreadInfo");
      vm.rename(vm.currentThread(), "renamed");
    }
  }
  EXPECT_EQ(events, kThreads * kRounds);
  EXPECT_EQ(vm.calls("GetThreadInfo"), std::uint64_t{kThreads} * kRounds);
  jni->DeleteWeakGlobalRef(weak);
}

}  // namespace
