// Threads that attach themselves and questions for owners keep out of each other's way.
#include "support/attachGate.h"

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>
#include <vector>

#include "agentTest.h"
#include "support/jvmtiRecords.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::attachGate;

class attachGateThreads : public test::agentTest {
 protected:
  void TearDown() override {
    attachGate::ofProcess().remove(vm.javaVm());
    agentTest::TearDown();
  }
  void install() { attachGate::ofProcess().install(vm.javaVm(), vm.jvmti()); }

  // Attaches a thread of its own and detaches it.
  void attachAnother() {
    std::thread([&] {
      void* environment = nullptr;
      EXPECT_EQ(vm.javaVm()->AttachCurrentThread(&environment, nullptr), JNI_OK);
      vm.javaVm()->DetachCurrentThread();
    }).join();
  }
};

TEST_F(attachGateThreads, aVmThatDoesNotNeedItKeepsItsFunctions) {
  const auto* const before = vm.javaVm()->functions;
  for (const jint version : {17, 21, 22}) {
    vm.setFeatureVersion(version);
    install();
    EXPECT_EQ(vm.javaVm()->functions, before);
    const attachGate::attaching other;
    EXPECT_TRUE(attachGate::look()) << "the gate is not used";
  }
  for (const jint version : {23, 25, 28}) {
    vm.setFeatureVersion(version);
    install();
    EXPECT_NE(vm.javaVm()->functions, before);
    install();  // twice changes nothing
    attachAnother();
    attachGate::ofProcess().remove(vm.javaVm());
    EXPECT_EQ(vm.javaVm()->functions, before);
  }
}

// Its table has functions of ours in it, or calls them.
TEST_F(attachGateThreads, isInFrontOfAnotherToolThatIsInFrontOfIt) {
  static int destroyed = 0;
  const auto* const before = vm.javaVm()->functions;
  static JNIInvokeInterface_ own = *before;
  own.DestroyJavaVM = [](JavaVM* /*javaVm*/) -> jint {
    ++destroyed;
    return JNI_OK;
  };
  vm.javaVm()->functions = &own;
  install();
  static const JNIInvokeInterface_* below = nullptr;
  below = vm.javaVm()->functions;
  JNIInvokeInterface_ others = *below;
  others.AttachCurrentThread = [](JavaVM* javaVm, void** environment, void* arguments) {
    return below->AttachCurrentThread(javaVm, environment, arguments);
  };
  vm.javaVm()->functions = &others;
  attachGate::ofProcess().remove(vm.javaVm());
  EXPECT_EQ(vm.javaVm()->functions, &others);
  vm.resetCalls();
  attachAnother();
  EXPECT_EQ(vm.calls("AttachCurrentThread"), 1U);
  install();
  EXPECT_NE(vm.javaVm()->functions, &others);
  attachAnother();
  EXPECT_EQ(vm.calls("AttachCurrentThread"), 2U);
  std::thread([&] {
    void* environment = nullptr;
    EXPECT_EQ(vm.javaVm()->AttachCurrentThreadAsDaemon(&environment, nullptr), JNI_OK);
    vm.javaVm()->DetachCurrentThread();
  }).join();
  EXPECT_EQ(vm.calls("AttachCurrentThreadAsDaemon"), 1U);
  EXPECT_EQ(vm.javaVm()->DestroyJavaVM(), JNI_OK);
  EXPECT_EQ(destroyed, 1);
  attachGate::ofProcess().remove(vm.javaVm());
  EXPECT_EQ(vm.javaVm()->functions, &others);
  vm.javaVm()->functions = before;
}

TEST_F(attachGateThreads, theVmIsNotAskedWhileAThreadAttaches) {
  install();
  fake::object* const monitor = vm.makeObject("a.Lock");
  std::atomic<int> inside{0};
  std::atomic<int> asked{0};
  std::latch begun{1};
  vm.on("AttachCurrentThread", [&](const fake::call&) {
    ++inside;
    begun.count_down();
    std::this_thread::sleep_for(milliseconds(5));
    --inside;
  });
  vm.on("GetObjectMonitorUsage", [&](const fake::call&) {
    ++asked;
    EXPECT_EQ(inside, 0);
  });
  std::thread attaching([&] { attachAnother(); });
  begun.wait();
  EXPECT_TRUE(vm.native(
      [&](JNIEnv* jni) { return support::monitorUsage(vm.jvmti(), jni).read(vm.ref(monitor)); }));
  attaching.join();
  EXPECT_EQ(asked, 1);
}

TEST_F(attachGateThreads, aThreadAttachesWhenTheLookIsOver) {
  install();
  std::atomic<bool> isLooking{true};
  std::latch begun{1};
  vm.on("AttachCurrentThread", [&](const fake::call&) { EXPECT_FALSE(isLooking); });
  std::thread attaching;
  {
    const attachGate::look look;
    ASSERT_TRUE(look);
    attaching = std::thread([&] {
      begun.count_down();
      attachAnother();
    });
    begun.wait();
    std::this_thread::sleep_for(milliseconds(20));
    isLooking = false;
  }
  attaching.join();
}

TEST_F(attachGateThreads, oneThatIsStuckWhileItAttachesHoldsNobodyUpForLong) {
  install();
  const attachGate::attaching stuck;
  const auto begin = steady_clock::now();
  for (int i = 0; i < 100; ++i) {
    EXPECT_FALSE(attachGate::look());
  }
  EXPECT_LT(steady_clock::now() - begin, milliseconds(1000)) << "all but the first do not wait";
}

TEST_F(attachGateThreads, aLookThatIsStuckHoldsNobodyUpForGood) {
  install();
  const attachGate::look stuck;
  ASSERT_TRUE(stuck);
  attachAnother();  // waits for its patience
  const auto begin = steady_clock::now();
  attachAnother();
  EXPECT_LT(steady_clock::now() - begin, milliseconds(1500));
}

TEST_F(attachGateThreads, neitherSideKeepsTheOtherOut) {
  install();
  constexpr int kRounds = 300;
  std::atomic<int> looks{0};
  std::atomic<int> attaches{0};
  std::atomic<int> lookingNow{0};
  std::atomic<int> attachingNow{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      while (looks < kRounds || attaches < kRounds) {
        if (const attachGate::look look; look) {
          ++lookingNow;
          EXPECT_EQ(attachingNow, 0);
          ++looks;
          --lookingNow;
        }
      }
    });
    threads.emplace_back([&] {
      while (looks < kRounds || attaches < kRounds) {
        const attachGate::attaching inside;
        ++attachingNow;
        EXPECT_EQ(lookingNow, 0);
        ++attaches;
        --attachingNow;
      }
    });
  }
  for (std::thread& each : threads) {
    each.join();
  }
}

}  // namespace
