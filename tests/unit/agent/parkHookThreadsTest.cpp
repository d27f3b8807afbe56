// The hook while threads park.
#include <atomic>
#include <latch>
#include <list>
#include <string>
#include <thread>

#include "agentTest.h"
#include "classFileBuilder.h"
#include "contention/parkHook.h"

namespace {

using agent::parkHook;

std::atomic<int> begun{0};
const agent::parkCallbacks kCallbacks{[](JNIEnv*) { ++begun; }, [](JNIEnv*, jthread, jobject) {}};

class parkHookThreads : public test::agentTest {
 protected:
  parkHookThreads() {
    test::classFileBuilder builder;
    builder.method("setBlocker", "(Ljava/lang/Thread;Ljava/lang/Object;)V", {});
    fake::javaClass* const made = vm.makeClass("java.util.concurrent.locks.LockSupport");
    made->originalBytes = builder.build();
    jvmtiCapabilities wanted{};
    wanted.can_retransform_classes = 1;
    vm.jvmti()->AddCapabilities(&wanted);
    jvmtiEventCallbacks callbacks{};
    callbacks.ClassFileLoadHook = &parkHook::ClassFileLoadHook;
    vm.jvmti()->SetEventCallbacks(&callbacks, sizeof callbacks);
  }

  agent::parkHookLevel install() {
    return vm.native([&](JNIEnv* jni) { return parkHook::install(vm.jvmti(), jni, kCallbacks); })
        .level;
  }
  std::string remove() {
    return vm.native([&](JNIEnv* jni) { return parkHook::remove(vm.jvmti(), jni); });
  }
};

TEST_F(parkHookThreads, callbacksComeAndGoWhileOthersPark) {
  constexpr int kThreads = 3;
  constexpr int kRounds = 50;
  ASSERT_EQ(install(), agent::parkHookLevel::parks);
  using native = void(JNICALL*)(JNIEnv*, jclass);
  const auto& natives = vm.classNamed("com.korvane.twutils.nativeagent.hook.ParkHook")->natives;
  const auto begins = reinterpret_cast<native>(natives.find("acquisitionBegins")->second);
  const int before = begun;

  std::atomic<bool> isOver{false};
  std::latch ready{kThreads};
  std::list<fake::attachedThread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(vm, "parks", [&](JNIEnv*) {
      ready.count_down();
      while (!isOver) {
        vm.native([&](JNIEnv* jni) { begins(jni, nullptr); });
      }
    });
  }
  ready.wait();
  for (int round = 0; round < kRounds; ++round) {
    EXPECT_EQ(remove(), "");
    parkHook::deliverTo(&kCallbacks);
    parkHook::deliverTo(nullptr);
    EXPECT_EQ(install(), agent::parkHookLevel::parks);
  }
  while (begun == before) {
    std::this_thread::yield();
  }
  isOver = true;
  threads.clear();
  EXPECT_EQ(remove(), "");
  const int last = begun;
  vm.native([&](JNIEnv* jni) { begins(jni, nullptr); });
  EXPECT_EQ(begun, last);
}

}  // namespace
