// What the profile's thread finds out about blocked threads, at times that the test chooses.
#include <algorithm>

#include "../stoppedClock.h"
#include "agent/twAprLib.h"
#include "contentionTest.h"

namespace {

using namespace test;
using agent::contentionSamples;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr std::int64_t kTick = 20 * kMilli;  // of 50 samples in a second
constexpr std::int64_t kSecond = 1000 * kMilli;

class contentionSampling : public contentionTest {
 protected:
  void TearDown() override {
    clock_.reset();
    contentionTest::TearDown();
  }

  // All of a processor, so that no look is left out.
  void beginSampling(agent::contentionSettings settings = {}) {
    settings.budgetPercent = 100;
    begin(settings);
  }
  void pass(std::int64_t nanos) { stoppedClock::advance(nanos); }
  // So many looks, one each tick.
  void look(int times = 1) {
    for (int i = 0; i < times; ++i) {
      pass(kTick);
      step(stoppedClock::now());
    }
  }
  nlohmann::json report() { return contentionReport(stoppedClock::now()); }
  nlohmann::json pairsOf(const char* cls) { return lockIn(report(), cls).at("pairs"); }
  nlohmann::json onlyPair(const char* cls = "com.example.Stock") {
    const nlohmann::json pairs = pairsOf(cls);
    EXPECT_THAT(pairs, SizeIs(1));
    return pairs.empty() ? nlohmann::json::object() : pairs.at(0);
  }
  void setStack(fake::javaThread* of, std::string_view cls, const char* method) {
    of->setFrames({fake::makeFrame(vm, nullptr, cls, method, {}, {}),
                   fake::makeFrame(vm, nullptr, "com.example.Main", "run", {}, {})});
  }
  std::vector<std::string> framesOf(const nlohmann::json& id) {
    const nlohmann::json written = report();
    for (const nlohmann::json& each : written.at("stacks")) {
      if (each.at("id") == id) {
        return each.at("frames");
      }
    }
    return {};
  }
  void setOwnerOf(fake::object* synchronizer, fake::javaThread* thread) {
    vm.setField(synchronizer, types.owner, static_cast<fake::object*>(thread));
  }
  // The name of each thread's `n`-th of many.
  static std::string numbered(const char* text, int n) { return text + std::to_string(n); }

  fake::javaThread* worker = vm.makeThread("worker-1");
  fake::javaThread* holder = vm.makeThread("holder");
  fake::object* lock = vm.makeObject("com.example.Stock");
  fake::object* fair = vm.makeObject(types.fairLock);
  fake::object* unfair = vm.makeObject(types.unfairLock);

 private:
  std::unique_ptr<stoppedClock> clock_ = std::make_unique<stoppedClock>();
};

// --- Weights.

TEST_F(contentionSampling, samplesStandForTheTimeThatThreadsWereBlocked) {
  beginSampling();
  fake::object* const rare = vm.makeObject("com.example.Rare");
  for (int i = 0; i < 3; ++i) {
    enter(vm.makeThread(numbered("many-", i)), lock);
  }
  enter(worker, rare);
  look(50);
  std::uint64_t nanos = 0;
  for (const nlohmann::json& each : pairsOf("com.example.Stock")) {
    nanos += each.at("nanos").get<std::uint64_t>();
  }
  EXPECT_EQ(nanos, 3U * kSecond);
  EXPECT_EQ(onlyPair("com.example.Rare").at("nanos"), kSecond);
  EXPECT_EQ(onlyPair("com.example.Rare").at("samples"), 50);
}

TEST_F(contentionSampling, theTimeOfALockBelongsToThoseWhoWaitForIt) {
  beginSampling();
  constexpr int kThreads = 12;  // more than a look shows
  for (int i = 0; i < kThreads; ++i) {
    enter(vm.makeThread(numbered("many-", i)), lock);
  }
  look(500);
  const nlohmann::json pairs = pairsOf("com.example.Stock");
  EXPECT_THAT(pairs, SizeIs(kThreads));
  for (const nlohmann::json& each : pairs) {
    EXPECT_NEAR(each.at("nanos").get<double>(), 10.0 * kSecond, 5.0 * kSecond)
        << each.at("waiterThread");
  }
}

TEST_F(contentionSampling, aLockThatTakesAnothersPlaceHasNoneOfItsTime) {
  beginSampling({.locks = 64});
  vm.fail("PushLocalFrame");  // no look succeeds
  std::vector<fake::object*> locks;
  for (int i = 0; i < 64; ++i) {
    locks.push_back(vm.makeObject("com.example.Stock"));
    enter(worker, locks.back());
    look();
    entered(worker);
  }
  vm.succeed("PushLocalFrame");
  for (fake::object* const each : locks) {
    vm.collect(each);
  }
  look(20);
  ASSERT_EQ(recordCount(), 0U);
  enter(worker, vm.makeObject("com.example.Fresh"));
  look();
  EXPECT_EQ(onlyPair("com.example.Fresh").at("nanos"), kTick);
}

TEST_F(contentionSampling, waitsAreSampledOnceInTwentyLooks) {
  beginSampling();
  wait(worker, lock);
  look(100);
  EXPECT_EQ(onlyPair().at("samples"), 5);
  EXPECT_EQ(onlyPair().at("nanos"), 100 * kTick);
  EXPECT_EQ(onlyPair().at("ownerNote"), "none");
}

TEST_F(contentionSampling, noSamplesAreTakenWhereNoneAreWanted) {
  beginSampling({.samplesPerSecond = 0});
  enter(worker, lock);
  look(50);
  EXPECT_THAT(pairsOf("com.example.Stock"), IsEmpty());
  EXPECT_EQ(report().at("cost").at("ticks"), 0);
  EXPECT_EQ(report().at("locks").at(0).at("stillBlockedNanos"), 50 * kTick);
}

// --- Owners.

TEST_F(contentionSampling, theOwnerOfAMonitorIsNamedWithItsStack) {
  beginSampling();
  setStack(worker, "com.example.Shop", "sell");
  setStack(holder, "com.example.Store", "refill");
  vm.setOwner(lock, holder, 1, 1);
  enter(worker, lock);
  look();
  const nlohmann::json pair = onlyPair();
  EXPECT_EQ(pair.at("waiterThread"), "worker-1");
  EXPECT_EQ(pair.at("ownerThread"), "holder");
  EXPECT_EQ(pair.at("holdingFrame"), 1);
  EXPECT_TRUE(pair.at("ownerNote").is_null());
  EXPECT_TRUE(pair.at("ownerWaitsFor").is_null());
  EXPECT_THAT(framesOf(pair.at("waiterStack")), ElementsAre("com.example.Shop.sell(Shop.java:42)",
                                                            "com.example.Main.run(Main.java:42)"));
  EXPECT_THAT(
      framesOf(pair.at("ownerStack")),
      ElementsAre("com.example.Store.refill(Store.java:42)", "com.example.Main.run(Main.java:42)"));
}

TEST_F(contentionSampling, anOwnerThatHasLetGoMeanwhileIsNone) {
  beginSampling();
  setStack(holder, "com.example.Store", "refill");
  vm.setOwner(lock, holder);
  enter(worker, lock);
  vm.on("GetStackTrace", [&] { vm.setOwner(lock, nullptr); });
  look();
  EXPECT_EQ(onlyPair().at("ownerNote"), "changed");
  EXPECT_TRUE(onlyPair().at("ownerThread").is_null());
  EXPECT_TRUE(onlyPair().at("ownerStack").is_null());
  EXPECT_EQ(report().at("omitted").at("ownersChanged"), 1);
}

TEST_F(contentionSampling, anOwnerIsCheckedByTheMonitorWhereTheVmCannotTellItsFrames) {
  begin({.budgetPercent = 100}, false);
  vm.setOwner(lock, holder);
  enter(worker, lock);
  look();
  EXPECT_EQ(onlyPair().at("ownerThread"), "holder");
  EXPECT_TRUE(onlyPair().at("holdingFrame").is_null());
  EXPECT_EQ(vm.calls("GetOwnedMonitorStackDepthInfo"), 0U);
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 2U);
}

TEST_F(contentionSampling, monitorsOfVirtualThreadsHaveNoNamedOwner) {
  beginSampling();
  vm.setOwner(lock, makeVirtual("v-1"));
  enter(makeVirtual("v-2"), lock);
  look();
  EXPECT_EQ(onlyPair().at("ownerNote"), "virtual");
}

TEST_F(contentionSampling, nobodyMayHoldAMonitor) {
  beginSampling();
  enter(worker, lock);
  look();
  EXPECT_EQ(onlyPair().at("ownerNote"), "none");
}

TEST_F(contentionSampling, theOwnerOfALockIsThatOfItsField) {
  beginSampling();
  setOwnerOf(unfair, holder);
  acquire(worker);
  park(worker, unfair);
  look();
  const nlohmann::json pair = onlyPair("java.util.concurrent.locks.ReentrantLock");
  EXPECT_EQ(pair.at("ownerThread"), "holder");
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 0U);
}

TEST_F(contentionSampling, locksWithoutAnOwnerHaveTheReason) {
  beginSampling();
  acquire(worker);
  park(worker, fair);
  fake::javaThread* const second = vm.makeThread("worker-2");
  park(second, vm.makeObject(types.semaphore));
  fake::javaThread* const third = vm.makeThread("worker-3");
  park(third, vm.makeObject(types.stampedLock));
  pass(5 * kTick);
  look(10);
  EXPECT_EQ(onlyPair("java.util.concurrent.Semaphore").at("ownerNote"), "notKept");
  EXPECT_EQ(onlyPair("java.util.concurrent.locks.StampedLock").at("ownerNote"), "notKept");
}

TEST_F(contentionSampling, aFairLockIsHandedOver) {
  beginSampling();
  enter(worker, lock);
  look(10);  // names of classes are read
  fake::javaThread* const second = vm.makeThread("worker-2");
  fake::javaThread* const third = vm.makeThread("worker-3");
  park(second, fair);
  park(third, unfair);
  stoppedClock::advance(100 * kMilli);
  vm.native([&](JNIEnv* jni) { sampler->catchUp(vm.jvmti(), jni, stoppedClock::now()); });
  look();
  std::vector<std::string> notes;
  const nlohmann::json written = report();
  for (const nlohmann::json& each : written.at("locks")) {
    if (each.at("class") == "java.util.concurrent.locks.ReentrantLock") {
      notes.push_back(each.at("pairs").at(0).at("ownerNote"));
    }
  }
  EXPECT_THAT(notes, ::testing::UnorderedElementsAre("handedOver", "none"));
}

TEST_F(contentionSampling, anOwnerThatWaitsItselfHasTheNextLock) {
  beginSampling();
  fake::object* const next = vm.makeObject("com.example.Next");
  vm.setOwner(lock, holder);
  enter(worker, lock);
  enter(holder, next);
  look();
  EXPECT_EQ(onlyPair().at("ownerWaitsFor"), lockIn(report(), "com.example.Next").at("id"));
}

TEST_F(contentionSampling, aWaiterThatHasGoneOnIsNotShown) {
  beginSampling();
  enter(worker, lock);
  bool isIn = false;
  vm.on("GetStackTrace", [&] {
    if (!std::exchange(isIn, true)) {
      vm.native([&](JNIEnv* jni) {
        recorder->blockEnds(vm.jvmti(), jni, vm.ref(worker), agent::channel::enter);
      });
    }
  });
  look();
  EXPECT_TRUE(isIn);
  EXPECT_THAT(pairsOf("com.example.Stock"), IsEmpty());
}

// --- Bounds.

TEST_F(contentionSampling, aLookPassesOverLocksWhenThereAreTooMany) {
  beginSampling();
  pass(kSecond);
  for (int i = 0; i < 11; ++i) {
    enter(vm.makeThread(numbered("t", i)), vm.makeObject("com.example.Stock"));
  }
  step(stoppedClock::now());
  EXPECT_EQ(report().at("omitted").at("locksNotSampled"), 3);
}

TEST_F(contentionSampling, theBudgetLeavesLooksOut) {
  begin({.budgetPercent = 1});
  enter(worker, lock);
  vm.on("GetObjectMonitorUsage", [] { stoppedClock::useProcessor(kMilli); });  // 5 % of a tick
  constexpr int kLooks = 500;
  look(kLooks);
  const nlohmann::json cost = report().at("cost");
  const int ticks = cost.at("ticks");
  EXPECT_EQ(ticks + cost.at("ticksLeftOut").get<int>(), kLooks);
  EXPECT_EQ(cost.at("processorNanos"), ticks * kMilli);
  // A safepoint counts with half a millisecond beside.
  EXPECT_NEAR(ticks, kLooks * 0.2 / 1.5, 2);
  // What is left out is no time lost: the next sample stands for it.
  EXPECT_NEAR(onlyPair().at("nanos").get<double>(), kLooks * kTick, 10.0 * kTick);
}

TEST_F(contentionSampling, pairsAndNamesWithoutRoomAreCounted) {
  beginSampling();
  constexpr int kThreads = 4200;
  for (int i = 0; i < kThreads; ++i) {
    fake::javaThread* const each = vm.makeThread(numbered("t", i));
    pass(1);
    enter(each, lock);
    look();
    pass(1);
    as(each,
       [&](JNIEnv* jni) { recorder->blockEnds(vm.jvmti(), jni, nullptr, agent::channel::enter); });
  }
  EXPECT_EQ(report().at("omitted").at("names"), kThreads - 4096);
  EXPECT_EQ(report().at("omitted").at("pairs"), 0);
  fake::object* const second = vm.makeObject("com.example.Second");
  fake::object* const third = vm.makeObject("com.example.Third");
  for (fake::object* const each : {second, third}) {
    for (int i = 0; i < 4096; ++i) {
      vm.rename(worker, numbered("t", i));
      enter(worker, each);
      look();
      entered(worker);
    }
  }
  const nlohmann::json omitted = report().at("omitted");
  EXPECT_EQ(omitted.at("pairs"), 4097 + 2 * 4096 - 8192);
  EXPECT_GE(omitted.at("pairNanos"), omitted.at("pairs").get<std::int64_t>() * kTick);
}

// --- Windows.

TEST_F(contentionSampling, timeCountsInTheWindowInWhichItPassed) {
  beginSampling({.windowMillis = 1000});
  look();  // at 20 ms
  pass(480 * kMilli);
  enter(worker, lock);  // at 500 ms
  pass(480 * kMilli);
  look();  // at 1 s: ends the first window
  pass(1980 * kMilli);
  look();  // at 3 s: the second
  pass(kSecond / 4);
  entered(worker);  // at 3250 ms
  const nlohmann::json windows = report().at("windows");
  ASSERT_THAT(windows, SizeIs(3));
  EXPECT_EQ(windows.at(0).at("blockedNanos"), 500 * kMilli);
  EXPECT_EQ(windows.at(0).at("entries"), 0);
  EXPECT_EQ(windows.at(1).at("blockedNanos"), 2000 * kMilli);
  EXPECT_EQ(windows.at(2).at("blockedNanos"), 250 * kMilli);
  EXPECT_EQ(windows.at(2).at("entries"), 1);
  EXPECT_EQ(windows.at(2).at("locks").at(0).at("blockedNanos"), 250 * kMilli);
  EXPECT_EQ(windows.at(0).at("waitNanos"), 0);
}

TEST_F(contentionSampling, windowsAddUpToTheCountsOverRecordsThatGo) {
  beginSampling({.locks = 64, .windowMillis = 1000});
  for (int round = 0; round < 40; ++round) {
    std::vector<fake::object*> locks;
    for (int i = 0; i < 16; ++i) {
      locks.push_back(vm.makeObject("com.example.Stock"));
      enter(worker, locks.back());
      look();
      entered(worker);
      wait(worker, locks.back());
      pass(kMilli);
      waited(worker);
    }
    for (fake::object* const each : locks) {
      vm.collect(each);
    }
  }
  std::uint64_t nanos = 0;
  std::uint64_t entries = 0;
  std::uint64_t waitNanos = 0;
  const nlohmann::json written = report();
  for (const nlohmann::json& each : written.at("windows")) {
    nanos += each.at("blockedNanos").get<std::uint64_t>();
    entries += each.at("entries").get<std::uint64_t>();
    waitNanos += each.at("waitNanos").get<std::uint64_t>();
  }
  EXPECT_EQ(entries, 640U);
  EXPECT_EQ(nanos, 640U * kTick);
  EXPECT_EQ(waitNanos, 640U * kMilli);
  EXPECT_EQ(allEntries(), 1280U);
}

TEST_F(contentionSampling, theOldestWindowsGo) {
  beginSampling({.windowMillis = 1000});
  for (int i = 0; i < 370; ++i) {
    pass(kSecond);
    step(stoppedClock::now());
  }
  EXPECT_THAT(report().at("windows"), SizeIs(361));
  EXPECT_EQ(report().at("omitted").at("windows"), 10);
}

TEST_F(contentionSampling, aWindowHasTheLocksWithMostTime) {
  beginSampling({.windowMillis = 1000});
  look();
  for (int i = 0; i < 40; ++i) {
    enter(worker, vm.makeObject("com.example.Stock"));
    pass((i + 1) * kMicro);
    entered(worker);
  }
  pass(kSecond);
  step(stoppedClock::now());
  const nlohmann::json window = report().at("windows").at(0);
  EXPECT_THAT(window.at("locks"), SizeIs(32));
  EXPECT_EQ(window.at("locks").at(0).at("blockedNanos"), 40 * kMicro);
  EXPECT_EQ(window.at("locks").at(31).at("blockedNanos"), 9 * kMicro);
  EXPECT_EQ(window.at("blockedNanos"), 820 * kMicro);
  EXPECT_EQ(report().at("omitted").at("windowLocks"), 8);
}

// --- Stuck threads.

class contentionStuck : public contentionSampling {
 protected:
  void SetUp() override {
    load("logLevel=4");
    beginSampling({.stuckMillis = 1000});
  }
  nlohmann::json stuck() { return report().at("stuck"); }
};

TEST_F(contentionStuck, areThoseThatAreBlockedForSoLong) {
  vm.setOwner(lock, holder);
  enter(worker, lock);
  pass(kMicro);
  enter(vm.makeThread("another"), vm.makeObject("com.example.Other"));
  wait(vm.makeThread("idle"), vm.makeObject("com.example.Queue"));
  pass(970 * kMilli);
  look();
  EXPECT_THAT(stuck(), IsEmpty());
  look();
  const nlohmann::json all = stuck();
  ASSERT_THAT(all, SizeIs(2));
  EXPECT_EQ(all.at(0).at("waiterCount"), 1);
  EXPECT_EQ(all.at(0).at("waiters").at(0).at("thread"), "worker-1");
  EXPECT_EQ(all.at(0).at("owner").at("thread"), "holder");
  EXPECT_EQ(all.at(1).at("ownerNote"), "none");
  EXPECT_THAT(report().at("deadlocks"), IsEmpty());
  entered(worker);
  look();
  EXPECT_THAT(stuck(), SizeIs(1));
}

TEST_F(contentionStuck, areLoggedOnce) {
  vm.setOwner(lock, holder);
  for (int i = 0; i < 300; ++i) {  // more than a look keeps
    enter(vm.makeThread(numbered("many-", i)), lock);
    pass(i == 0 ? kMilli : kMicro);
  }
  pass(kSecond);
  look(500);
  EXPECT_THAT(messages("warn"),
              ElementsAre(StartsWith("Thread many-0 has been blocked by com.example.Stock@")));
  EXPECT_EQ(stuck().at(0).at("waiterCount"), 300);
  EXPECT_THAT(stuck().at(0).at("waiters"), SizeIs(16));
}

TEST_F(contentionStuck, areLoggedLaterWhenTheFirstLookFails) {
  enter(worker, lock);
  vm.fail("PushLocalFrame");
  pass(kSecond);
  look(10);
  EXPECT_THAT(messages("warn"), IsEmpty());
  vm.succeed("PushLocalFrame");
  look(100);
  EXPECT_THAT(messages("warn"), SizeIs(1));
}

TEST_F(contentionStuck, areSixtyFourLocksAtMost) {
  for (int i = 0; i < 70; ++i) {
    enter(vm.makeThread(numbered("t", i)), vm.makeObject("com.example.Stock"));
  }
  pass(kSecond);
  look();
  EXPECT_THAT(stuck(), SizeIs(64));
  EXPECT_EQ(report().at("omitted").at("stuck"), 6);
}

TEST_F(contentionStuck, threadsThatLeftNoReferenceAreFoundAmongAll) {
  const std::size_t before = vm.globalReferences();
  vm.fail("NewGlobalRef");
  enter(worker, lock);
  vm.succeed("NewGlobalRef");
  EXPECT_EQ(vm.globalReferences(), before);
  pass(kSecond);
  look();
  EXPECT_EQ(stuck().at(0).at("waiters").at(0).at("thread"), "worker-1");
  EXPECT_EQ(vm.globalReferences(), before + 1);
  entered(worker);
  EXPECT_EQ(vm.globalReferences(), before);
}

TEST_F(contentionStuck, threadsThatHaveEndedAreNot) {
  enter(worker, lock);
  pass(kSecond);
  worker->isAlive = false;
  look(60);
  EXPECT_THAT(stuck(), IsEmpty());
  EXPECT_EQ(report().at("locks").size(), 0U) << "nobody is blocked still";
}

TEST_F(contentionStuck, aCircleOfAMonitorAndALockIsADeadlock) {
  vm.setOwner(lock, worker);
  setOwnerOf(unfair, holder);
  acquire(worker);
  park(worker, unfair);
  enter(holder, lock);
  enter(vm.makeThread("bystander"), lock);
  pass(kSecond);
  look(100);
  const nlohmann::json circles = report().at("deadlocks");
  ASSERT_THAT(circles, SizeIs(1));
  ASSERT_THAT(circles.at(0), SizeIs(2));
  const nlohmann::json monitorId = lockIn(report(), "com.example.Stock").at("id");
  for (const nlohmann::json& each : circles.at(0)) {
    EXPECT_EQ(each.at("thread"), each.at("waitsFor") == monitorId ? "holder" : "worker-1");
  }
  const std::vector<std::string> logged = messages("warn");
  EXPECT_EQ(std::count_if(logged.begin(), logged.end(),
                          [](const std::string& each) { return each.starts_with("Deadlock: "); }),
            1);
}

TEST_F(contentionStuck, aChainIsNoDeadlock) {
  fake::object* const next = vm.makeObject("com.example.Next");
  vm.setOwner(lock, holder);
  vm.setOwner(next, vm.makeThread("runs"));
  enter(worker, lock);
  enter(holder, next);
  pass(kSecond);
  look();
  EXPECT_THAT(stuck(), SizeIs(2));
  EXPECT_THAT(report().at("deadlocks"), IsEmpty());
}

}  // namespace
