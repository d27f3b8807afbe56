// Exception capture on many threads at once.
#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <memory>
#include <thread>

#include "exceptionTest.h"
#include "exceptions/exceptionCounts.h"
#include "exceptions/undeliveredRecords.h"

namespace {

using namespace test;
using ::testing::AnyOf;
using ::testing::Each;
using ::testing::StartsWith;

constexpr int kThreads = 16;

class exceptionThreads : public exceptionTest {
 protected:
  // A thread that runs `body` with itself.
  using task = std::function<void(fake::javaThread*)>;
  std::unique_ptr<fake::attachedThread> start(const task& body) {
    fake::javaThread* const java = vm.makeThread("thrower");
    return std::make_unique<fake::attachedThread>(vm, java, [=](JNIEnv*) { body(java); });
  }
  std::vector<std::unique_ptr<fake::attachedThread>> startAll(const task& body) {
    std::vector<std::unique_ptr<fake::attachedThread>> all;
    for (int i = 0; i < kThreads; ++i) {
      all.push_back(start(body));
    }
    return all;
  }
  // Throws in a frame with an argument and a local.
  void throwOn(fake::javaThread* java) {
    java->setFrames({frame_});
    vm.exception(java, frame_.code, frame_.location, thrown_);
  }
  void makeFrameAndException() {
    frame_ = frameOf("a.A.m", {{"x", "I", jint{1}}}, {{"y", "I", jint{2}}});
    thrown_ = vm.makeObject(kFailure);
  }
  std::vector<std::string> records() {
    std::vector<std::string> all;
    for (const delivered& each : deliveries()) {
      all.push_back(each.record);
    }
    return all;
  }

  // Its records with arguments only, and with locals only.
  const char* const kArguments = "a.A.m(A.java:42)%40%41%42x%3A4%3A1%2C%43%44";
  const char* const kLocals = "a.A.m(A.java:42)%40%41%42%43y%3A4%3A2%2C%44";

 private:
  fake::frame frame_;
  fake::object* thrown_ = nullptr;
};

TEST_F(exceptionThreads, everyThreadsExceptionsAreDelivered) {
  begin({.methodArguments = true});
  makeFrameAndException();
  startAll([&](fake::javaThread* java) {
    for (int i = 0; i < 50; ++i) {
      throwOn(java);
    }
  }).clear();
  EXPECT_EQ(deliveries().size(), 50U * kThreads);
  EXPECT_THAT(records(), Each(kArguments));
}

TEST_F(exceptionThreads, everyThreadsExceptionsAreCounted) {
  begin({.rate = 100});
  makeFrameAndException();
  startAll([&](fake::javaThread* java) {
    for (int i = 0; i < 50; ++i) {
      throwOn(java);
    }
  }).clear();
  const agent::exceptionCounts& counts = agent::exceptionCounts::ofProcess();
  EXPECT_EQ(counts.get(agent::exceptionCount::seen), 50U * kThreads);
  EXPECT_EQ(counts.get(agent::exceptionCount::delivered), 100U);
  EXPECT_EQ(counts.get(agent::exceptionCount::overRate), 50U * kThreads - 100U);
}

TEST_F(exceptionThreads, recordsWithoutStackAreKeptAndTakenByManyThreads) {
  begin();
  makeFrameAndException();
  agent::undeliveredRecords& records = agent::undeliveredRecords::ofProcess();
  records.take();
  inCallback = [](fake::invocation& call) {
    call.vm.throwInJava(call.vm.makeObject("java.lang.StackOverflowError"));
  };
  std::atomic<std::size_t> taken = 0;
  std::atomic<bool> isOver = false;
  const auto takeAll = [&] {
    for (auto each = records.take(); each; each = records.take()) {
      EXPECT_EQ(each->text, "a.A.m(A.java:42)%40%41%42%43%44");
      ++taken;
    }
  };
  auto taker = start([&](fake::javaThread*) {
    while (!isOver) {
      takeAll();
    }
  });
  startAll([&](fake::javaThread* java) {
    for (int i = 0; i < 50; ++i) {
      throwOn(java);
    }
  }).clear();
  isOver = true;
  taker.reset();
  takeAll();
  const agent::exceptionCounts& counts = agent::exceptionCounts::ofProcess();
  EXPECT_EQ(counts.get(agent::exceptionCount::noStack), 50U * kThreads);
  EXPECT_GE(taken, 64U);
  EXPECT_LE(taken, 50U * kThreads);
}

// An enabling call is held up between its steps until the disabling one that it meets has ended, or
// is seen to wait for it.
TEST_F(exceptionThreads, anEnablingCallThatMeetsADisablingOneLeavesAllOnOrAllOff) {
  begin({.methodArguments = true});
  makeFrameAndException();
  for (const char* step : {"SetEventCallbacks", "SetEventNotificationMode"}) {
    enable({.enable = false});
    std::promise<void> disabled;
    std::future<void> end = disabled.get_future();
    std::unique_ptr<fake::attachedThread> disabling;
    std::atomic<bool> first = true;
    vm.on(step, [&] {
      if (!first.exchange(false)) {
        return;
      }
      disabling = start([&](fake::javaThread*) {
        enable({.enable = false});
        disabled.set_value();
      });
      end.wait_for(std::chrono::milliseconds(300));
    });
    enable({.methodArguments = true});
    disabling.reset();
    vm.off(step);
    const bool isOn = vm.isEnabled(JVMTI_EVENT_EXCEPTION);
    EXPECT_EQ(vm.callbacks().Exception != nullptr, isOn) << step;
    EXPECT_EQ(exceptions()->enabled(), isOn) << step;
    const std::size_t before = records().size();
    fake::object* const thrown = vm.makeObject(kFailure);
    callHandler(thrown);
    EXPECT_EQ(records().size() > before, isOn) << step << ": the settings are those of the events";
  }
}

TEST_F(exceptionThreads, settingsMayChangeWhileOthersThrow) {
  begin({.methodArguments = true});
  makeFrameAndException();
  std::latch allThrown(kThreads);
  std::atomic<bool> enough = false;
  auto threads = startAll([&](fake::javaThread* java) {
    throwOn(java);
    allThrown.count_down();
    while (!enough) {
      throwOn(java);
    }
  });
  allThrown.wait();
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(enable({.localVariables = true}), 1);
    EXPECT_EQ(enable({.enable = false}), 1);
    EXPECT_EQ(enable({.methodArguments = true}), 1);
  }
  enough = true;
  threads.clear();
  EXPECT_GE(deliveries().size(), static_cast<std::size_t>(kThreads));
  EXPECT_THAT(records(), Each(AnyOf(kArguments, kLocals))) << "never some of each";
  EXPECT_EQ(vm.globalReferences(), 1U) << "all replaced settings let go of the class";
}

TEST_F(exceptionThreads, theRateHoldsOverAllThreads) {
  load();
  std::atomic<int> taken = 0;
  startAll([&](fake::javaThread*) {
    for (int i = 0; i < 1000; ++i) {
      taken += exceptions()->takeRate("x.failure", 100, 1'000'000);
    }
  }).clear();
  EXPECT_EQ(taken, 100);
}

TEST_F(exceptionThreads, aHandlerKeepsTheSettingsThatItBeganWith) {
  begin({.methodArguments = true});
  makeFrameAndException();
  std::latch inHandler(1);
  std::latch replaced(1);
  vm.on("GetStackTrace", [&] {
    inHandler.count_down();
    replaced.wait();
  });
  auto thrower = start([&](fake::javaThread* java) { throwOn(java); });
  inHandler.wait();
  EXPECT_EQ(enable({.localVariables = true}), 1);
  EXPECT_EQ(vm.globalReferences(), 2U) << "those in use are not gone";
  replaced.count_down();
  thrower.reset();
  EXPECT_THAT(records(), ::testing::ElementsAre(kArguments));
  EXPECT_EQ(vm.globalReferences(), 1U);
}

TEST_F(exceptionThreads, aHandlerOutlivesTheUnloading) {
  begin({.methodArguments = true});
  makeFrameAndException();
  std::latch inHandler(1);
  std::latch unloaded(1);
  vm.on("GetStackTrace", [&] {
    inHandler.count_down();
    unloaded.wait();
  });
  auto thrower = start([&](fake::javaThread* java) { throwOn(java); });
  inHandler.wait();
  unload();
  unloaded.count_down();
  thrower.reset();
  EXPECT_EQ(vm.globalReferences(), 0U);
  EXPECT_EQ(vm.weakReferences(), 0U);
}

TEST_F(exceptionThreads, aCallbackThatBlocksStopsNoOtherThread) {
  begin({.methodArguments = true});
  makeFrameAndException();
  std::latch blocked(1);
  std::latch goOn(1);
  std::atomic<bool> first = true;
  inCallback = [&](fake::invocation&) {
    if (!first.exchange(false)) {
      return;
    }
    blocked.count_down();
    goOn.wait();
  };
  auto blocking = start([&](fake::javaThread* java) { throwOn(java); });
  blocked.wait();
  throwOn(thread());
  EXPECT_EQ(deliveries().size(), 2U);
  EXPECT_EQ(enable({.enable = false}), 1) << "nor a control call";
  goOn.count_down();
}

TEST_F(exceptionThreads, whileOneThreadRunsTheCallbackOthersAreRecorded) {
  begin({.methodArguments = true});
  makeFrameAndException();
  std::atomic<bool> first = true;
  inCallback = [&](fake::invocation&) {
    if (first.exchange(false)) {
      start([&](fake::javaThread* java) { throwOn(java); });
    }
  };
  throwOn(thread());
  EXPECT_EQ(deliveries().size(), 2U);
}

// Who has waited a second for its turn goes on without one, as on a slow machine. So the test takes
// the first round in which nobody had to.
TEST_F(exceptionThreads, localsAreReadByOneThreadAtATime) {
  constexpr std::size_t kEach = 5;
  constexpr std::size_t kRounds = 20;
  begin({.methodArguments = true, .localVariables = true});
  makeFrameAndException();
  std::atomic<int> reading = 0;
  std::atomic<int> most = 0;
  vm.on("GetLocalInt", [&] {
    const int now = ++reading;
    if (now > most) {
      most = now;
    }
    std::this_thread::yield();
    --reading;
  });
  std::atomic<bool> anyoneWaited = true;
  std::size_t rounds = 0;
  for (; anyoneWaited && rounds < kRounds; ++rounds) {
    anyoneWaited = false;
    most = 0;
    startAll([&](fake::javaThread* java) {
      for (std::size_t i = 0; i < kEach; ++i) {
        const auto before = std::chrono::steady_clock::now();
        throwOn(java);
        if (std::chrono::steady_clock::now() - before > std::chrono::milliseconds(900)) {
          anyoneWaited = true;
        }
      }
    }).clear();
  }
  EXPECT_FALSE(anyoneWaited);
  EXPECT_EQ(most, 1) << "calls that queue for a safepoint take turns";
  EXPECT_EQ(deliveries().size(), rounds * kEach * kThreads);
}

TEST_F(exceptionThreads, classesGoWhileOthersThrow) {
  begin({.methodArguments = true});
  makeFrameAndException();
  std::atomic<bool> enough = false;
  auto threads = startAll([&](fake::javaThread* java) {
    do {
      throwOn(java);
    } while (!enough);
  });
  for (int i = 0; i < 100; ++i) {
    const fake::frame frame = frameOf("gone.C" + std::to_string(i) + ".m");
    thread()->setFrames({frame});
    vm.exception(thread(), frame.code, 10, vm.makeObject(kFailure));
    thread()->setFrames({});
    vm.unload(frame.code->declaringClass);
  }
  enough = true;
  threads.clear();
  EXPECT_THAT(records(), Each(AnyOf(kArguments, StartsWith("gone.C"))));
}

}  // namespace
