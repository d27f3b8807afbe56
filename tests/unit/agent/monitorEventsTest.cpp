// Monitor events: what each handler records in each phase of a session, and what it says.
#include "locks/mutexlockprofiler.h"

#include <new>
#include <optional>
#include <ostream>
#include <utility>

#include "lockTest.h"

namespace {

using namespace test;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

enum class handler { contendedEnter, contendedEntered, monitorWait, monitorWaited };

class monitorEvents : public lockTest {
 protected:
  fake::object* makeLock(std::string_view type = "a.Lock") { return vm.makeObject(type); }
  fake::javaThread* makeThread(std::string_view name = "worker") { return vm.makeThread(name); }

  bool fire(handler which, fake::javaThread* by, fake::object* on) {
    switch (which) {
      case handler::contendedEnter:
        return vm.contendedEnter(by, on);
      case handler::contendedEntered:
        return vm.contendedEntered(by, on);
      case handler::monitorWait:
        return vm.monitorWait(by, on, 0);
      case handler::monitorWaited:
        return vm.monitorWaited(by, on, false);
    }
    return false;
  }

  std::uint32_t countOf(fake::object* lock) { return lockBeanOf(lock)->count; }
};

// --- Which events count at all.

TEST_F(monitorEvents, nothingIsReadWhenTheProfilerIsGone) {
  load();
  beginSummary();
  unload();
  for (const handler each : {handler::contendedEnter, handler::contendedEntered,
                             handler::monitorWait, handler::monitorWaited}) {
    vm.resetCalls();
    EXPECT_TRUE(fire(each, makeThread(), makeLock()));
    EXPECT_THAT(vm.callNames(), IsEmpty());
  }
}

TEST_F(monitorEvents, nothingIsReadWhenTheProfilerIsSwitchedOff) {
  load();
  beginSummary();
  locks()->setEnabled(false);
  for (const handler each : {handler::contendedEnter, handler::contendedEntered,
                             handler::monitorWait, handler::monitorWaited}) {
    vm.resetCalls();
    EXPECT_TRUE(fire(each, makeThread(), makeLock()));
    EXPECT_THAT(vm.callNames(), IsEmpty());
  }
}

TEST_F(monitorEvents, nothingIsReadOnceADetailSessionWasStopped) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  stopDetail();
  ASSERT_EQ(locks()->state(), 1);
  for (const handler each : {handler::contendedEnter, handler::contendedEntered,
                             handler::monitorWait, handler::monitorWaited}) {
    vm.resetCalls();
    EXPECT_TRUE(fire(each, makeThread(), lock)) << "the events themselves stay on";
    EXPECT_THAT(vm.callNames(), IsEmpty());
  }
  EXPECT_EQ(countOf(lock), 0U);
}

TEST_F(monitorEvents, aStoppedSummaryGoesOnCountingLikeASummary) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  contend(makeThread(), lock);
  stopSummary();
  ASSERT_EQ(locks()->state(), 2);
  EXPECT_TRUE(vm.contendedEnter(makeThread(), lock));
  EXPECT_EQ(countOf(lock), 2U);
}

TEST_F(monitorEvents, afterTheProfilingSessionNoHandlerIsInstalled) {
  load();
  beginSummary();
  stopProfiling();
  EXPECT_FALSE(vm.contendedEnter(makeThread(), makeLock()));
}

// --- Names.

TEST_F(monitorEvents, lockIsNamedByClassAndSignedHash) {
  load();
  fake::object* const lock = makeLock("com.example.Lock");
  lock->hash = -5;
  beginSummary();
  vm.contendedEnter(makeThread(), lock);
  ASSERT_EQ(lockCount(), 1U);
  EXPECT_EQ(lockNames().front(), "com.example.Lock@-5");
}

TEST_F(monitorEvents, twoObjectsOfAClassAreTwoLocks) {
  load();
  fake::object* const first = makeLock();
  fake::object* const second = makeLock();
  beginSummary();
  vm.contendedEnter(makeThread(), first);
  vm.contendedEnter(makeThread(), second);
  vm.contendedEnter(makeThread(), second);
  EXPECT_EQ(countOf(first), 1U);
  EXPECT_EQ(countOf(second), 2U);
}

TEST_F(monitorEvents, classesAndArraysCanBeLocks) {
  load();
  fake::javaClass* const cls = vm.makeClass("a.Type");
  fake::objectArray* const array = vm.makeArray("[La.Type;", {});
  beginSummary();
  vm.contendedEnter(makeThread(), cls);
  vm.contendedEnter(makeThread(), array);
  EXPECT_THAT(lockNames(), ElementsAre(StartsWith("[La.Type;@"), StartsWith("java.lang.Class@")));
}

TEST_F(monitorEvents, nameOfARecordIsEmptyUntilItsFirstUpdate) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  vm.contendedEnter(makeThread(), lock);
  EXPECT_EQ(lockBeanOf(lock)->name(), "");
  vm.contendedEnter(makeThread(), lock);
  EXPECT_EQ(lockBeanOf(lock)->name(), nameOf(lock));
}

TEST_F(monitorEvents, enteredSetsTheNameOfARecord) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  contend(makeThread(), lock);
  EXPECT_EQ(lockBeanOf(lock)->name(), nameOf(lock));
}

TEST_F(monitorEvents, waitedSetsTheNameOfARecord) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  vm.monitorWait(makeThread(), lock, 0);
  ASSERT_EQ(lockBeanOf(lock)->name(), "");
  startDetail();
  wait(makeThread(), lock, 1);
  EXPECT_EQ(lockBeanOf(lock)->name(), nameOf(lock));
}

TEST_F(monitorEvents, threadsOfOneNameShareOneRecord) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  contend(makeThread("twin"), lock);
  contend(makeThread("twin"), lock);
  ASSERT_NE(threadOf(lock, "twin"), nullptr);
  EXPECT_EQ(threadOf(lock, "twin")->count, 2U);
}

TEST_F(monitorEvents, aThreadWithoutANameIsRecordedUnderTheEmptyName) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  contend(vm.makeThread(std::nullopt), lock);
  ASSERT_NE(threadOf(lock, ""), nullptr);
  EXPECT_EQ(threadOf(lock, "")->count, 1U);
}

// --- Summary sessions.

TEST_F(monitorEvents, summaryCountsEntriesAndBlockTimeOfEachLock) {
  load();
  fake::object* const hot = makeLock("hot.Lock");
  fake::object* const cold = makeLock("cold.Lock");
  beginSummary();
  for (int i = 0; i < 3; ++i) {
    contend(makeThread(), hot, 10);
  }
  contend(makeThread(), cold, 7);
  EXPECT_EQ(countOf(hot), 3U);
  EXPECT_EQ(lockBeanOf(hot)->totalBlockTime, 30U);
  EXPECT_EQ(countOf(cold), 1U);
  EXPECT_EQ(lockBeanOf(cold)->totalBlockTime, 7U);
}

TEST_F(monitorEvents, summaryTakesNoStackTraceNoOwnerAndMakesNoThread) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  for (int i = 0; i < 3; ++i) {
    contend(makeThread(), lock, 10);
  }
  EXPECT_EQ(vm.calls("GetStackTrace"), 0U);
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 0U);
  EXPECT_FALSE(lockBeanOf(lock)->hasThreads());
  EXPECT_EQ(minuteOf(lock, 0), 0U) << "the graph counts in detail sessions only";
}

TEST_F(monitorEvents, summaryReadsNoThreadName) {
  load("logLevel=3");
  fake::object* const lock = makeLock();
  beginSummary();
  contend(makeThread(), lock, 10);
  wait(makeThread(), lock, 10);
  EXPECT_EQ(vm.calls("GetThreadInfo"), 0U);
}

TEST_F(monitorEvents, enteredOnAnUnknownLockRecordsNothing) {
  load();
  beginSummary();
  EXPECT_TRUE(vm.contendedEntered(makeThread(), makeLock()));
  EXPECT_EQ(lockCount(), 0U);
}

// --- Detail sessions.

TEST_F(monitorEvents, detailCountsEntriesPerLockAndThread) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  contend(makeThread("one"), lock);
  contend(makeThread("one"), lock);
  contend(makeThread("two"), lock);
  EXPECT_EQ(countOf(lock), 3U);
  EXPECT_EQ(threadOf(lock, "one")->count, 2U);
  EXPECT_EQ(threadOf(lock, "two")->count, 1U);
  EXPECT_EQ(minuteOf(lock, 0), 3U);
}

TEST_F(monitorEvents, aNewThreadRecordHasNoTimes) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  vm.contendedEnter(makeThread("one"), lock);
  const agent::threadBean* const one = threadOf(lock, "one");
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(one->count, 1U);
  EXPECT_EQ(one->lastEnterTime, 0);
  EXPECT_EQ(one->lastWaitTime, 0);
  EXPECT_EQ(one->totalBlockTime, 0U);
  EXPECT_EQ(one->totalWaitTime, 0U);
}

TEST_F(monitorEvents, detailAddsBlockTimeToLockAndThread) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const one = makeThread("one");
  beginDetail({lock});
  contend(one, lock, 40);
  const jlong start = vm.time();
  contend(one, lock, 2);
  contend(makeThread("two"), lock, 100);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 142U);
  EXPECT_EQ(threadOf(lock, "one")->totalBlockTime, 42U);
  EXPECT_EQ(threadOf(lock, "one")->lastEnterTime, start);
  EXPECT_EQ(threadOf(lock, "two")->totalBlockTime, 100U);
}

TEST_F(monitorEvents, enteredOfAThreadWithoutARecordAddsToTheLockOnly) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const early = makeThread("early");
  beginSummary();
  vm.contendedEnter(early, lock);
  startDetail();
  vm.advance(9);
  vm.contendedEntered(early, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 9U);
  EXPECT_EQ(threadOf(lock, "early"), nullptr);
}

TEST_F(monitorEvents, contendedEntryOnALockUnknownInADetailSessionMakesNoLockButKeepsItsStack) {
  load();
  fake::object* const unknown = makeLock("unknown.Lock");
  beginDetail({makeLock()});
  fake::javaThread* const thread = makeThread();
  setStack(thread, {"a.B.run"});
  vm.contendedEnter(thread, unknown);
  EXPECT_EQ(lockBeanOf(unknown), nullptr);
  EXPECT_THAT(stackHashes(), ElementsAre(fnv1a(textOfStack({"a.B.run"}))));
}

TEST_F(monitorEvents, everyLockGetsStackTracesInADetailSessionSelectedOrNot) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock}, {.topLocks = 0});
  fake::javaThread* const thread = makeThread("one");
  setStack(thread, {"a.B.run"});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 0U);
  EXPECT_EQ(tracesOf(lock, "one").size(), 1U);
}

// --- Minutes.

class minuteSlots : public monitorEvents,
                    public ::testing::WithParamInterface<std::pair<jlong, std::size_t>> {};

TEST_P(minuteSlots, entryIsCountedInItsMinute) {
  const auto [sinceStart, slot] = GetParam();
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  locks()->setStartTime(1000 * kMinute);
  vm.setTime(1000 * kMinute + sinceStart);
  vm.contendedEnter(makeThread(), lock);
  EXPECT_EQ(minuteOf(lock, slot), 1U);
  EXPECT_EQ(countOf(lock), 1U);
}

INSTANTIATE_TEST_SUITE_P(monitorEvents, minuteSlots,
                         ::testing::Values(std::pair<jlong, std::size_t>{0, 0},
                                           std::pair<jlong, std::size_t>{kMinute - 1, 0},
                                           std::pair<jlong, std::size_t>{kMinute, 1},
                                           std::pair<jlong, std::size_t>{300 * kMinute, 300},
                                           std::pair<jlong, std::size_t>{301 * kMinute - 1, 300},
                                           std::pair<jlong, std::size_t>{301 * kMinute, 0},
                                           std::pair<jlong, std::size_t>{5000 * kMinute, 0},
                                           std::pair<jlong, std::size_t>{-1, 0},
                                           std::pair<jlong, std::size_t>{-kMinute, 0},
                                           std::pair<jlong, std::size_t>{-999 * kMinute, 0}));

TEST_F(monitorEvents, originOfTheMinutesIsTheFirstContendedEntry) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  EXPECT_EQ(locks()->startTime(), 0);
  wait(makeThread(), lock, 5);
  EXPECT_EQ(locks()->startTime(), 0) << "a wait is none";
  const jlong first = vm.time();
  contend(makeThread(), lock, 5);
  contend(makeThread(), lock, 5);
  EXPECT_EQ(locks()->startTime(), first);
}

TEST_F(monitorEvents, originBelow1IsSetAnew) {
  load();
  beginSummary();
  locks()->setStartTime(-5);
  vm.contendedEnter(makeThread(), makeLock());
  EXPECT_EQ(locks()->startTime(), vm.time());
  locks()->setStartTime(1);
  vm.contendedEnter(makeThread(), makeLock());
  EXPECT_EQ(locks()->startTime(), 1);
}

TEST_F(monitorEvents, entryWithoutAnObjectSetsTheOriginToo) {
  load();
  beginSummary();
  fake::javaThread* const thread = makeThread();
  vm.contendedEnter(thread, nullptr);
  EXPECT_EQ(locks()->startTime(), vm.time());
  EXPECT_EQ(reinterpret_cast<jlong>(thread->storage.load()), vm.time());
}

// --- Starts of blocks and waits.

TEST_F(monitorEvents, enterAndWaitLeaveTheirTimeInTheThreadsStorage) {
  load();
  beginSummary();
  fake::javaThread* const thread = makeThread();
  vm.contendedEnter(thread, makeLock());
  EXPECT_EQ(reinterpret_cast<jlong>(thread->storage.load()), vm.time());
  vm.advance(10);
  vm.monitorWait(thread, makeLock(), 0);
  EXPECT_EQ(reinterpret_cast<jlong>(thread->storage.load()), vm.time());
}

TEST_F(monitorEvents, enteredWithoutAKnownStartAddsNoTime) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = makeThread("one");
  beginDetail({lock});
  vm.contendedEnter(thread, lock);
  thread->storage = nullptr;
  vm.advance(50);
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
  EXPECT_EQ(threadOf(lock, "one")->totalBlockTime, 0U);
  EXPECT_EQ(threadOf(lock, "one")->lastEnterTime, 0);
}

TEST_F(monitorEvents, waitedWithoutAKnownStartAddsNoTimeButMakesItsThread) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  vm.monitorWaited(makeThread("one"), lock, false);
  ASSERT_NE(threadOf(lock, "one"), nullptr);
  EXPECT_EQ(threadOf(lock, "one")->totalWaitTime, 0U);
  EXPECT_EQ(threadOf(lock, "one")->lastWaitTime, 0);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 0U);
}

TEST_F(monitorEvents, waitedUsesTheTimeThatAnEarlierEventOfTheThreadLeft) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = makeThread("one");
  beginSummary();
  contend(thread, lock, 100);
  startDetail();
  vm.advance(400);
  vm.monitorWaited(thread, lock, false);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 500U);
}

// --- Starts that are not this session's, or that an event was lost after.

class earlierStarts : public monitorEvents {
 protected:
  void switchOtherProfiler() { agent::getRegistry()->switchProfiler(agent::kMemoryProfiler, true); }

  fake::object* lock = makeLock();
  fake::javaThread* thread = makeThread("one");
  fake::javaThread* other = makeThread("other");
};

// The thread has contended in the first session, and blocks while none runs.
TEST_F(earlierStarts, aBlockFromBetweenTwoSessionsAddsNoTime) {
  load();
  beginDetail({lock});
  contend(thread, lock, 100);
  stopDetail();
  stopProfiling();
  vm.advance(20 * kSecond);
  beginSummary();
  contend(other, lock, 5);
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 5U);
}

TEST_F(earlierStarts, aWaitFromBetweenTwoSessionsAddsNoTime) {
  load();
  beginDetail({lock});
  wait(thread, lock, 100);
  stopDetail();
  stopProfiling();
  vm.advance(20 * kSecond);
  beginDetail({lock});
  vm.advance(7);
  vm.monitorWaited(thread, lock, false);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 0U);
  ASSERT_NE(threadOf(lock, "one"), nullptr);
  EXPECT_EQ(threadOf(lock, "one")->totalWaitTime, 0U);
  EXPECT_EQ(threadOf(lock, "one")->lastWaitTime, 0);
}

// It has come back from a wait of the first session, and blocks while none runs.
TEST_F(earlierStarts, aBlockFromBetweenTwoSessionsIsNoReturnFromAWait) {
  load();
  beginSummary();
  wait(thread, lock, 100);
  stopDetail();
  stopProfiling();
  vm.advance(20 * kSecond);
  beginSummary();
  vm.monitorWait(other, lock, 0);
  ASSERT_NE(lockBeanOf(lock), nullptr);
  EXPECT_FALSE(lockBeanOf(lock)->named);
  vm.contendedEntered(thread, lock);
  EXPECT_TRUE(lockBeanOf(lock)->named) << "it was contended";
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
}

TEST_F(earlierStarts, theNextBlockOfTheSameThreadCounts) {
  load();
  beginDetail({lock});
  contend(thread, lock, 100);
  beginDetail({lock});
  vm.contendedEntered(thread, lock);
  contend(thread, lock, 30);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 30U);
  EXPECT_EQ(threadOf(lock, "one")->totalBlockTime, 30U);
}

// With one lock to select, the time that nobody was blocked would choose another one.
TEST_F(earlierStarts, doNotRankALock) {
  load();
  fake::object* const hot = makeLock("hot.Lock");
  beginSummary();
  contend(thread, lock, 100);
  stopDetail();
  stopProfiling();
  vm.advance(30 * kSecond);
  beginSummary({.topLocks = 1});
  contend(other, lock, 20);
  vm.contendedEntered(thread, lock);
  contend(other, hot, 2000);
  startDetail();
  EXPECT_TRUE(isSelected(hot));
  EXPECT_FALSE(isSelected(lock));
}

// The VM has no handler for a moment while another profiler is switched.
TEST_F(earlierStarts, aStartLostWhileAnotherProfilerIsSwitchedAddsNoTime) {
  load();
  beginSummary();
  contend(thread, lock, 100);
  vm.advance(10 * kSecond);
  switchOtherProfiler();
  vm.advance(10 * kSecond);
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 100U);
}

TEST_F(earlierStarts, aStartLostAfterAWaitWhileAnotherProfilerIsSwitchedAddsNoTime) {
  load();
  beginSummary();
  wait(thread, lock, 100);
  vm.advance(10 * kSecond);
  switchOtherProfiler();
  vm.advance(10 * kSecond);
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
}

TEST_F(earlierStarts, aBlockThatGoesOnWhileAnotherProfilerIsSwitchedCounts) {
  load();
  beginSummary();
  contend(other, lock);
  vm.contendedEnter(thread, lock);
  vm.advance(40);
  switchOtherProfiler();
  vm.advance(60);
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 100U);
}

TEST_F(earlierStarts, aWaitThatGoesOnWhileTheDetailPhaseIsStoppedCounts) {
  load();
  beginDetail({lock});
  vm.monitorWait(thread, lock, 0);
  vm.advance(40);
  stopDetail();
  vm.advance(40);
  startDetail();
  vm.advance(20);
  vm.monitorWaited(thread, lock, false);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 100U);
}

TEST_F(earlierStarts, aStartLostWhileTheDetailPhaseIsStoppedAddsNoTime) {
  load();
  beginDetail({lock});
  contend(thread, lock, 100);
  stopDetail();
  vm.advance(10 * kSecond);
  vm.contendedEnter(thread, lock);
  vm.advance(10 * kSecond);
  startSummary();
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 100U);
}

// Its end was missed, and the start of the block that ends now.
TEST_F(earlierStarts, aWaitThatEndsWhileTheDetailPhaseIsStoppedAddsNoTime) {
  load();
  beginDetail({lock});
  vm.monitorWait(thread, lock, 0);
  stopDetail();
  vm.advance(10);
  vm.monitorWaited(thread, lock, false);
  vm.contendedEnter(thread, lock);
  vm.advance(10 * kSecond);
  startSummary();
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
}

TEST_F(earlierStarts, aStartThatTheVmDoesNotStoreIsNoStart) {
  load();
  beginSummary();
  contend(thread, lock, 100);
  vm.advance(10 * kSecond);
  vm.fail("SetThreadLocalStorage", {.times = 1});
  contend(thread, lock, 50);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 100U);
  contend(thread, lock, 25);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 125U);
}

// Stopping leaves the events enabled, so the next session's settings find them so.
TEST_F(earlierStarts, aSecondSessionCountsFromItsStartOn) {
  load();
  startProfiling();
  EXPECT_FALSE(vm.contendedEnter(thread, lock)) << "the first one counts from its summary on";
  startSummary();
  stopDetail();
  stopProfiling();
  startProfiling();
  contend(thread, lock, 10);
  contend(thread, lock, 10);
  ASSERT_NE(lockBeanOf(lock), nullptr);
  EXPECT_EQ(lockBeanOf(lock)->count, 2U);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 20U);
  startDetail();
  EXPECT_TRUE(isSelected(lock)) << "without a summary";
}

TEST_F(monitorEvents, enterAndEnteredMayRunOnTwoCarriersOfAVirtualThread) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = vm.makeVirtualThread("virtual");
  beginDetail({lock});
  {
    fake::attachedThread carrier(vm, "carrier-1",
                                 [&](JNIEnv*) { vm.contendedEnter(thread, lock); });
  }
  vm.advance(25);
  {
    fake::attachedThread carrier(vm, "carrier-2",
                                 [&](JNIEnv*) { vm.contendedEntered(thread, lock); });
  }
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 25U);
  EXPECT_EQ(threadOf(lock, "virtual")->totalBlockTime, 25U);
  EXPECT_EQ(threadOf(lock, "virtual")->count, 1U);
}

// --- Waiters that come back.

// From 27 on the VM posts it, as if it were an entry of the program.
TEST_F(monitorEvents, aNotifiedWaiterThatComesBackIsNoEntry) {
  vm.setFeatureVersion(27);
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = makeThread();
  beginDetail({lock});
  putIntoWait(vm, thread);
  wait(thread, lock, 10);
  contend(thread, lock, 5);
  EXPECT_EQ(countOf(lock), 0U);
  EXPECT_EQ(threadOf(lock, "worker")->totalWaitTime, 10U);
  EXPECT_EQ(threadOf(lock, "worker")->totalBlockTime, 0U);
  EXPECT_EQ(threadOf(lock, "worker")->stackTraces().size(), 0U);

  wait(thread, lock, 10);
  thread->setFrames({});
  contend(thread, lock, 5);
  EXPECT_EQ(countOf(lock), 1U) << "it had come back without a block";
  EXPECT_EQ(threadOf(lock, "worker")->totalBlockTime, 5U);
}

TEST_F(monitorEvents, aNotifiedWaiterThatComesBackIsNoEntryOfASummary) {
  vm.setFeatureVersion(28);
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = makeThread();
  beginSummary();
  putIntoWait(vm, thread);
  wait(thread, lock, 10);
  contend(thread, lock, 5);
  EXPECT_EQ(countOf(lock), 1U) << "the wait has made it";
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
}

TEST_F(monitorEvents, otherWaitersThatComeBackAreEntries) {
  vm.setFeatureVersion(27);
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = makeThread();
  beginDetail({lock});
  putIntoWait(vm, thread);
  vm.monitorWait(thread, lock, 10);
  vm.monitorWaited(thread, lock, true);
  contend(thread, lock, 5);
  EXPECT_EQ(countOf(lock), 1U) << "its time was over";
  thread->isInterrupted = true;
  wait(thread, lock, 10);
  contend(thread, lock, 5);
  EXPECT_EQ(countOf(lock), 2U) << "it was interrupted";
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 10U);
}

// From 24 on its way back ends with an event that none comes before.
TEST_F(monitorEvents, aVirtualThreadThatComesBackFromAWaitAddsNoBlock) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = vm.makeVirtualThread("virtual");
  beginSummary();
  wait(thread, lock, 1000);
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
  startDetail();
  wait(thread, lock, 1000);
  vm.advance(5);
  vm.contendedEntered(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 1000U);
}

// --- Waits.

TEST_F(monitorEvents, waitMakesAnUnknownLockWithCountOne) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  vm.monitorWait(makeThread(), lock, 0);
  ASSERT_NE(lockBeanOf(lock), nullptr);
  EXPECT_EQ(countOf(lock), 1U);
  EXPECT_FALSE(lockBeanOf(lock)->hasThreads());
  EXPECT_EQ(locksLeft(), 99);
}

TEST_F(monitorEvents, waitOnAKnownLockCountsNothing) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  contend(makeThread(), lock);
  for (int i = 0; i < 3; ++i) {
    wait(makeThread(), lock, 10);
  }
  EXPECT_EQ(countOf(lock), 1U);
}

TEST_F(monitorEvents, waitsAreNotMeasuredInASummary) {
  load();
  fake::object* const lock = makeLock();
  beginSummary();
  wait(makeThread(), lock, 10);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 0U);
  EXPECT_FALSE(lockBeanOf(lock)->hasThreads());
}

TEST_F(monitorEvents, waitsAreMeasuredInADetailSession) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = makeThread("one");
  beginDetail({lock});
  wait(thread, lock, 10);
  const jlong start = vm.time();
  wait(thread, lock, 20);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 30U);
  EXPECT_EQ(threadOf(lock, "one")->totalWaitTime, 30U);
  EXPECT_EQ(threadOf(lock, "one")->lastWaitTime, start);
}

TEST_F(monitorEvents, threadMadeByAWaitHasCount0AndTheLocksCountsStay) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  wait(makeThread("one"), lock, 10);
  EXPECT_EQ(threadOf(lock, "one")->count, 0U);
  EXPECT_EQ(countOf(lock), 0U);
  EXPECT_EQ(minuteOf(lock, 0), 0U);
}

TEST_F(monitorEvents, entryOfAThreadThatAWaitHasMadeCountsFrom0) {
  load();
  fake::object* const lock = makeLock();
  fake::javaThread* const thread = makeThread("one");
  beginDetail({lock});
  wait(thread, lock, 10);
  contend(thread, lock);
  EXPECT_EQ(threadOf(lock, "one")->count, 1U);
}

TEST_F(monitorEvents, waitOnAnUnknownLockInADetailSessionRecordsNothing) {
  load();
  fake::object* const unknown = makeLock("unknown.Lock");
  beginDetail({makeLock()});
  wait(makeThread(), unknown, 10);
  EXPECT_EQ(lockBeanOf(unknown), nullptr);
}

// --- What the handlers say.

struct refusal {
  handler which;
  const char* function;
  const char* objectIsNull;  // null: not said
  const char* noGetClass;
  const char* noGetName;
  const char* classIsEmpty;
  const char* threadIsNull;
};

std::ostream& operator<<(std::ostream& out, const refusal& r) {
  return out << r.function;
}

class handlerMessages : public monitorEvents, public ::testing::WithParamInterface<refusal> {
 protected:
  void expectSaid(const char* message) {
    std::vector<std::string> said;
    for (const logRecord& each : log()) {
      if (each.severity != "Error") {
        continue;
      }
      said.push_back(each.message);
      EXPECT_EQ(each.function, GetParam().function);
      EXPECT_THAT(each.sourceFile, StartsWith("mutexlockprofiler"));
    }
    if (message == nullptr) {
      EXPECT_THAT(said, IsEmpty());
    } else {
      EXPECT_THAT(said, ElementsAre(message));
    }
    EXPECT_EQ(lockCount(), 0U);
  }
};

TEST_P(handlerMessages, objectIsNull) {
  load("logLevel=1");
  beginSummary();
  fire(GetParam().which, makeThread(), nullptr);
  expectSaid(GetParam().objectIsNull);
}

TEST_P(handlerMessages, noMethodIdOfGetClass) {
  load("logLevel=1");
  beginSummary();
  vm.fail("GetMethodID", {.name = "getClass", .throwing = true});
  fire(GetParam().which, makeThread(), makeLock());
  expectSaid(GetParam().noGetClass);
}

TEST_P(handlerMessages, noMethodIdOfGetName) {
  load("logLevel=1");
  beginSummary();
  vm.fail("GetMethodID", {.name = "getName", .throwing = true});
  fire(GetParam().which, makeThread(), makeLock());
  expectSaid(GetParam().noGetName);
}

TEST_P(handlerMessages, classNameIsEmpty) {
  load("logLevel=1");
  beginSummary();
  fire(GetParam().which, makeThread(), vm.makeObject(vm.makeClass("")));
  expectSaid(GetParam().classIsEmpty);
}

TEST_P(handlerMessages, callIntoJavaThrows) {
  load("logLevel=1");
  beginSummary();
  vm.fail("CallObjectMethod", {.name = "getName", .throwing = true});
  fire(GetParam().which, makeThread(), makeLock());
  expectSaid(GetParam().classIsEmpty);
}

TEST_P(handlerMessages, threadIsNull) {
  load("logLevel=1");
  beginSummary();
  fire(GetParam().which, nullptr, makeLock());
  expectSaid(GetParam().threadIsNull);
}

TEST_P(handlerMessages, nothingIsSaidAtLevel0) {
  load("logLevel=0");
  beginSummary();
  fire(GetParam().which, makeThread(), nullptr);
  fire(GetParam().which, nullptr, makeLock());
  EXPECT_THAT(log(), IsEmpty());
}

TEST_P(handlerMessages, exceptionIsSaidAndStaysInside) {
  load("logLevel=1");
  beginSummary();
  locks()->setState(agent::kLockDetail);  // where every handler reads the time
  vm.on("GetTime", [] { throw std::bad_alloc(); });
  fire(GetParam().which, makeThread(), makeLock());
  const char* const message = GetParam().which == handler::contendedEnter
                                  ? "Exception occured in mutexprofiler : MonitorContendedEnter"
                              : GetParam().which == handler::contendedEntered
                                  ? "Exception occured in  mutexprofiler : MonitorContendedEntered"
                              : GetParam().which == handler::monitorWait
                                  ? "Exception occured in  mutexprofiler : MonitorWait"
                                  : "Exception occured in  mutexprofiler : MonitorWaited";
  expectSaid(message);
}

TEST_P(handlerMessages, exceptionIsNotSaidAtLevel0) {
  load("logLevel=0");
  beginSummary();
  locks()->setState(agent::kLockDetail);
  vm.on("GetTime", [] { throw std::bad_alloc(); });
  fire(GetParam().which, makeThread(), makeLock());
  EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    monitorEvents, handlerMessages,
    ::testing::Values(refusal{handler::contendedEnter, "mutexLockProfiler::MonitorContendedEnter",
                              "monitor object is NULL", "Unable to get method id of class object",
                              "Unable to get method id for java/lang/string",
                              "object class is empty", "object thread is NULL"},
                      refusal{handler::contendedEntered,
                              "mutexLockProfiler::MonitorContendedEntered",
                              "monitor entered object is NULL", "entered method is not found",
                              "entered mid for java/lang/string not found", "enter class is empty",
                              "entered thread is NULL"},
                      refusal{handler::monitorWait, "mutexLockProfiler::MonitorWait",
                              "wait object is NULL", "wait method is is empty",
                              "wait mid for java/lang/string is empty", "wait class is empty",
                              "wait thread is NULL"},
                      refusal{handler::monitorWaited, "mutexLockProfiler::MonitorWaited", nullptr,
                              nullptr, nullptr, nullptr, "waited thread is NULL"}));

TEST_F(monitorEvents, debugLineOfEachEventNamesThreadAndLock) {
  load("logLevel=4");
  fake::object* const lock = makeLock();
  beginSummary();
  const std::string said = "Current Thread is : worker , Curent lock name : " + nameOf(lock);
  std::size_t expected = 0;
  for (const handler each :
       {handler::contendedEnter, handler::contendedEntered, handler::monitorWait}) {
    fire(each, makeThread(), lock);
    EXPECT_THAT(debugLines(), Contains(said).Times(static_cast<int>(++expected)));
  }
  fire(handler::monitorWaited, makeThread(), lock);
  EXPECT_THAT(debugLines(), Contains(said).Times(static_cast<int>(expected)))
      << "the end of a wait has none";
}

TEST_F(monitorEvents, noDebugLineAtTrace) {
  load("logLevel=3");
  fake::object* const lock = makeLock();
  beginDetail({lock});
  contend(makeThread(), lock);
  wait(makeThread(), lock);
  EXPECT_THAT(debugLines(), IsEmpty());
}

TEST_F(monitorEvents, newLockIsSaidAtDebug) {
  load("logLevel=4");
  beginSummary({.topLocks = 10, .locks = 100});
  fake::object* const entered = makeLock();
  fake::object* const waited = makeLock();
  vm.contendedEnter(makeThread(), entered);
  vm.monitorWait(makeThread(), waited, 0);
  EXPECT_THAT(debugLines(), Contains("Going to create lockbean obj,Max Locks Count is :  99 and "
                                     "top n mutex lock is : 10"));
  EXPECT_THAT(debugLines(), Contains("Going to create lockbean obj,Max Locks Count is :  98 and "
                                     "top n mutex lock is : 10"));
  EXPECT_THAT(errors(),
              ElementsAre("add new object " + nameOf(entered), "add new object " + nameOf(waited)));
}

TEST_F(monitorEvents, newLockIsNotSaidBelowDebug) {
  load("logLevel=3");
  beginSummary();
  vm.contendedEnter(makeThread(), makeLock());
  EXPECT_THAT(debugLines(), IsEmpty());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(monitorEvents, refusedLockIsNotSaid) {
  load("logLevel=4");
  beginSummary({.locks = 0});
  vm.contendedEnter(makeThread(), makeLock());
  EXPECT_THAT(debugLines(), Not(Contains(StartsWith("Going to create"))));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(monitorEvents, startOfAWaitIsSaidAtDebug) {
  load("logLevel=4");
  beginSummary();
  vm.monitorWait(makeThread(), makeLock(), 0);
  EXPECT_THAT(debugLines(),
              Contains(AllOf(StartsWith("wait start time"), HasSubstr(std::to_string(vm.time())))));
}

TEST_F(monitorEvents, hostileNamesAreLoggedAsTheyAre) {
  load("logLevel=4");
  fake::object* const lock = makeLock("odd.\"%s%n\\\tLock");
  beginSummary();
  vm.contendedEnter(makeThread("worker %s %n \x01\x7F"), lock);
  EXPECT_THAT(
      debugLines(),
      Contains("Current Thread is : worker %s %n \x01\x7F , Curent lock name : " + nameOf(lock)));
}

TEST_F(monitorEvents, vmInitSaysThatTheProfilerIsStopped) {
  load("logLevel=1");
  beginDetail({makeLock()});
  stopDetail();
  ASSERT_TRUE(vm.vmInit(makeThread()));
  EXPECT_THAT(errors(), ElementsAre("profiler is already stopped"));
  EXPECT_EQ(log().back().function, "mutexLockProfiler::VMInit");
}

TEST_F(monitorEvents, vmInitSaysThatThereIsNoProfiler) {
  load("logLevel=1");
  beginSummary();
  unload();
  ASSERT_TRUE(vm.vmInit(makeThread()));
  EXPECT_THAT(errors(), ElementsAre("Unable to get mutex profiler"));
  EXPECT_EQ(log().back().function, "mutexLockProfiler::VMInit");
}

TEST_F(monitorEvents, vmInitSaysNothingWhileASessionRuns) {
  load("logLevel=4");
  beginDetail({});
  const std::size_t before = log().size();
  ASSERT_TRUE(vm.vmInit(makeThread()));
  EXPECT_EQ(log().size(), before);
}

TEST_F(monitorEvents, vmInitSaysNothingAtLevel0) {
  load("logLevel=0");
  beginDetail({});
  stopDetail();
  ASSERT_TRUE(vm.vmInit(makeThread()));
  EXPECT_THAT(log(), IsEmpty());
}

// --- Switching the events.

TEST_F(monitorEvents, eventsAreSwitchedInOrderAndOnlyInState2) {
  load();
  startProfiling();
  startSummary();
  const std::vector<fake::eventMode> on = {{JVMTI_ENABLE, JVMTI_EVENT_VM_INIT},
                                           {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_WAIT},
                                           {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_WAITED},
                                           {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTER},
                                           {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTERED}};
  EXPECT_EQ(vm.eventModes(), on);
  startDetail();
  stopDetail();
  stopSummary();
  EXPECT_EQ(vm.eventModes(), on) << "in no other state than 2 is anything switched";
}

TEST_F(monitorEvents, eventsAreSwitchedOffFromState2) {
  load();
  beginSummary();
  stopSummary();
  ASSERT_EQ(locks()->state(), 2);
  stopSummary();
  for (const jvmtiEvent each :
       {JVMTI_EVENT_VM_INIT, JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED,
        JVMTI_EVENT_MONITOR_CONTENDED_ENTER, JVMTI_EVENT_MONITOR_CONTENDED_ENTERED}) {
    EXPECT_FALSE(vm.isEnabled(each)) << each;
  }
}

TEST_F(monitorEvents, everyEventIsSwitchedThoughOneIsRefused) {
  load();
  startProfiling();
  vm.fail("SetEventNotificationMode", {.times = 1});
  startSummary();
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_WAIT));
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTERED));
}

TEST_F(monitorEvents, anySwitchOfAProfilerPutsADetailSessionBackIntoState2) {
  load();
  fake::object* const lock = makeLock();
  beginDetail({lock});
  agent::getRegistry()->switchProfiler(agent::kMemoryProfiler, true);
  EXPECT_EQ(locks()->state(), 2);
  contend(makeThread("one"), lock);
  EXPECT_EQ(countOf(lock), 1U) << "counted as in a summary";
  EXPECT_EQ(threadOf(lock, "one"), nullptr);
}

}  // namespace
