// The limits of a lock session: how each is used up, and what happens then.
#include <limits>

#include "lockTest.h"

namespace {

using namespace test;
using ::testing::IsEmpty;

class lockLimits : public lockTest {
 protected:
  fake::object* lock = vm.makeObject("a.Lock");
};

TEST_F(lockLimits, lockFirstMetWithoutBudgetIsNeverRecorded) {
  load();
  beginSummary({.locks = 0});
  fake::javaThread* const thread = vm.makeThread("t");
  for (int i = 0; i < 2; ++i) {
    contend(thread, lock, 10);
  }
  EXPECT_EQ(lockCount(), 0U);
  EXPECT_EQ(locksLeft(), -2) << "each entry counts down, also below zero";
  wait(thread, lock, 10);
  EXPECT_EQ(lockCount(), 0U);
  EXPECT_EQ(locksLeft(), -3) << "so does a wait";
  startDetail();
  contend(thread, lock, 10);
  wait(thread, lock, 10);
  EXPECT_EQ(lockCount(), 0U);
}

TEST_F(lockLimits, lastLockOfTheBudgetIsRecorded) {
  load();
  beginSummary({.locks = 1});
  fake::object* const second = vm.makeObject("b.Lock");
  for (int i = 0; i < 3; ++i) {
    contend(vm.makeThread("t"), lock);
    contend(vm.makeThread("t"), second);
  }
  ASSERT_EQ(lockCount(), 1U);
  EXPECT_EQ(lockBeanOf(lock)->count, 3U);
  EXPECT_EQ(locksLeft(), -3) << "a known lock takes nothing";
}

TEST_F(lockLimits, negativeLockBudgetRecordsNothing) {
  load();
  beginSummary({.locks = -5});
  vm.contendedEnter(vm.makeThread("t"), lock);
  EXPECT_EQ(lockCount(), 0U);
  EXPECT_EQ(locksLeft(), -6);
}

TEST_F(lockLimits, lockUnknownInADetailSessionTakesFromTheBudgetAllTheSame) {
  load();
  beginDetail({lock}, {.locks = 5});
  ASSERT_EQ(locksLeft(), 4);
  fake::object* const unknown = vm.makeObject("unknown.Lock");
  contend(vm.makeThread("t"), unknown);
  EXPECT_EQ(locksLeft(), 3);
  wait(vm.makeThread("t"), unknown);
  EXPECT_EQ(locksLeft(), 2);
}

TEST_F(lockLimits, lockWithoutThreadBudgetIsRecordedWithCountOneAndNeverCountsMore) {
  load();
  beginSummary({.threadsPerLock = 0});
  vm.contendedEnter(vm.makeThread("t"), lock);
  EXPECT_EQ(lockBeanOf(lock)->count, 1U);
  locks()->setState(agent::kLockDetail);  // without the ranking, which would reset the count
  for (int i = 0; i < 3; ++i) {
    contend(vm.makeThread("t"), lock);
  }
  EXPECT_FALSE(lockBeanOf(lock)->hasThreads());
  EXPECT_EQ(lockBeanOf(lock)->count, 1U);
  EXPECT_EQ(minuteOf(lock, 0), 0U);
}

TEST_F(lockLimits, lockPastItsThreadBudgetStillGetsOwnerAndStack) {
  load();
  fake::javaThread* const owner = vm.makeThread("owner");
  fake::javaThread* const thread = vm.makeThread("t");
  setStack(thread, {"a.B.run"});
  beginDetail({lock}, {.threadsPerLock = 0});
  vm.setOwner(lock, owner);
  contend(thread, lock);
  EXPECT_EQ(threadOf(lock, "t"), nullptr);
  ASSERT_TRUE(ownerOf(lock, "owner"));
  EXPECT_EQ(ownerOf(lock, "owner")->blockingCount, 1U);
  EXPECT_THAT(stackHashes(), ::testing::ElementsAre(fnv1a(textOfStack({"a.B.run"}))));
}

TEST_F(lockLimits, threadsPastTheBudgetOfALockAreNotCounted) {
  load();
  beginDetail({lock}, {.threadsPerLock = 2});
  for (int round = 0; round < 2; ++round) {
    for (const char* name : {"one", "two", "three"}) {
      contend(vm.makeThread(name), lock, 5);
    }
  }
  EXPECT_EQ(threadOf(lock, "one")->count, 2U);
  EXPECT_EQ(threadOf(lock, "two")->count, 2U);
  EXPECT_EQ(threadOf(lock, "three"), nullptr);
  EXPECT_EQ(lockBeanOf(lock)->count, 4U);
  EXPECT_EQ(minuteOf(lock, 0), 4U);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 30U) << "its time counts for the lock";
}

TEST_F(lockLimits, waitsAndEntriesShareTheThreadBudgetOfALock) {
  load();
  beginDetail({lock}, {.threadsPerLock = 1});
  wait(vm.makeThread("waits"), lock, 5);
  contend(vm.makeThread("enters"), lock);
  EXPECT_NE(threadOf(lock, "waits"), nullptr);
  EXPECT_EQ(threadOf(lock, "enters"), nullptr);
}

TEST_F(lockLimits, waitRefusedAThreadSlotStillAddsToTheLocksWaitTime) {
  load();
  beginDetail({lock}, {.threadsPerLock = 0});
  wait(vm.makeThread("t"), lock, 5);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 5U);
  EXPECT_FALSE(lockBeanOf(lock)->hasThreads());
}

TEST_F(lockLimits, everyLockHasItsOwnThreadBudget) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  beginDetail({lock, other}, {.threadsPerLock = 1});
  contend(vm.makeThread("one"), lock);
  contend(vm.makeThread("two"), other);
  EXPECT_NE(threadOf(lock, "one"), nullptr);
  EXPECT_NE(threadOf(other, "two"), nullptr);
}

TEST_F(lockLimits, ownersPastTheBudgetAreNotRecordedButTheirNameIs) {
  load();
  beginDetail({lock}, {.threads = 1});
  vm.setOwner(lock, vm.makeThread("first"));
  contend(vm.makeThread("t"), lock);
  vm.setOwner(lock, vm.makeThread("second"));
  contend(vm.makeThread("t"), lock);
  EXPECT_TRUE(ownerOf(lock, "first"));
  EXPECT_FALSE(ownerOf(lock, "second"));
  EXPECT_EQ(ownerNameOf(lock), "second");
  EXPECT_EQ(ownersLeft(), -1);
}

TEST_F(lockLimits, knownOwnerGoesOnCountingWithoutBudget) {
  load();
  beginDetail({lock}, {.threads = 1});
  vm.setOwner(lock, vm.makeThread("first"));
  for (int i = 0; i < 3; ++i) {
    contend(vm.makeThread("t"), lock);
  }
  EXPECT_EQ(ownerOf(lock, "first")->blockingCount, 3U);
  EXPECT_EQ(ownersLeft(), 0);
}

TEST_F(lockLimits, locksShareTheBudgetOfOwners) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  fake::javaThread* const owner = vm.makeThread("owner");
  beginDetail({lock, other}, {.threads = 1});
  vm.setOwner(lock, owner);
  vm.setOwner(other, owner);
  contend(vm.makeThread("t"), lock);
  contend(vm.makeThread("t"), other);
  EXPECT_TRUE(ownerOf(lock, "owner"));
  EXPECT_FALSE(ownerOf(other, "owner"));
}

TEST_F(lockLimits, stackTracesAreKeptWithoutBudget) {
  load();
  fake::javaThread* const thread = vm.makeThread("t");
  beginDetail({lock}, {.stackTraces = 0});
  for (const char* frame : {"a.A.x", "a.A.y", "a.A.z"}) {
    setStack(thread, {frame});
    contend(thread, lock);
  }
  EXPECT_EQ(tracesOf(lock, "t").size(), 3U);
  EXPECT_EQ(stackTexts().size(), 3U);
  EXPECT_EQ(tracesLeft(), -3);
}

TEST_F(lockLimits, stackTracesPerThreadAreNotLimited) {
  load();
  fake::javaThread* const thread = vm.makeThread("t");
  beginDetail({lock}, {.stackTracesPerThread = 0});
  for (const char* frame : {"a.A.x", "a.A.y"}) {
    setStack(thread, {frame});
    contend(thread, lock);
  }
  EXPECT_EQ(tracesOf(lock, "t").size(), 2U);
}

TEST_F(lockLimits, nothingIsGivenBackWithinASession) {
  load();
  beginDetail({lock}, {.locks = 3, .threadsPerLock = 1, .threads = 1});
  vm.setOwner(lock, vm.makeThread("owner"));
  contend(vm.makeThread("t"), lock);
  stopProfiling();
  startSummary();
  startDetail();
  EXPECT_EQ(locksLeft(), 2);
  EXPECT_EQ(ownersLeft(), 0);
  EXPECT_EQ(lockBeanOf(lock)->threadSlotsLeft(), 0);
}

TEST_F(lockLimits, nextSessionRestoresAll) {
  load();
  beginDetail({lock}, {.locks = 1, .threadsPerLock = 1, .threads = 1, .stackTraces = 1});
  vm.setOwner(lock, vm.makeThread("owner"));
  contend(vm.makeThread("t"), lock);
  beginDetail({lock}, {.locks = 2, .threadsPerLock = 2, .threads = 2, .stackTraces = 2});
  EXPECT_EQ(locksLeft(), 1);
  EXPECT_EQ(ownersLeft(), 2);
  EXPECT_EQ(tracesLeft(), 2);
  EXPECT_EQ(lockBeanOf(lock)->threadSlotsLeft(), 2);
}

// A whole session with every limit at a value that allows nothing.
class lockLimitsAllAt : public lockLimits, public ::testing::WithParamInterface<jint> {};

TEST_P(lockLimitsAllAt, sessionRunsAndReportsNothing) {
  const jint limit = GetParam();
  load();
  fake::javaThread* const thread = vm.makeThread("t");
  setDeepStack(thread, 100);
  beginDetail({lock}, {.duration = limit,
                       .topLocks = limit,
                       .locks = limit,
                       .threadsPerLock = limit,
                       .threads = limit,
                       .stackTraces = limit,
                       .stackTracesPerThread = limit});
  for (int i = 0; i < 3; ++i) {
    contend(thread, lock, 5);
    wait(thread, lock, 5);
  }
  stopDetail();
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_EQ(lockCount(), 0U);
  EXPECT_TRUE(report()["lockmap"].empty());
  EXPECT_TRUE(report()["blockingThreads"].empty());
  EXPECT_EQ(report()["stacktracemap"].size(), 1U) << "traces are kept all the same";
}

// The same, with a lock that another thread owns and that is selected: only the limits of threads
// and owners are spent.
TEST_P(lockLimitsAllAt, selectedLockWithoutThreadsIsNotReported) {
  const jint limit = GetParam();
  load();
  beginDetail({lock}, {.topLocks = -1, .threadsPerLock = limit, .threads = limit});
  vm.setOwner(lock, vm.makeThread("owner"));
  for (int i = 0; i < 3; ++i) {
    contend(vm.makeThread("t"), lock, 5);
  }
  EXPECT_EQ(ownerNameOf(lock), "owner");
  EXPECT_FALSE(ownerOf(lock, "owner"));
  stopDetail();
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_TRUE(report()["lockmap"].empty());
}

INSTANTIATE_TEST_SUITE_P(lockLimits, lockLimitsAllAt,
                         ::testing::Values(0, -1, std::numeric_limits<jint>::min()));

}  // namespace
