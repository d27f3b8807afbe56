// The records of a lock session, by themselves.
#include "locks/lockStore.h"

#include <atomic>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "lockTest.h"

namespace {

using namespace test;
using agent::countdown;
using agent::lockBean;
using agent::LockSessionConfig;
using agent::lockStore;
using agent::waiterTally;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class lockStoreTest : public lockTest {
 protected:
  static std::unique_ptr<LockSessionConfig> settings(std::int32_t locks,
                                                     std::int32_t threadsPerLock = 100) {
    return std::make_unique<LockSessionConfig>(1, "s", 60, 10, locks, threadsPerLock, 7, 100, 10,
                                               "", 1);
  }
  std::shared_ptr<const support::namedClass> named(std::string_view name) {
    fake::javaClass* const cls = vm.classNamed(name);
    return std::make_shared<const support::namedClass>(vm.env(), vm.ref(cls), std::string(name));
  }
};

TEST(countdownTest, givesAsManyAsItHoldsAndGoesBelowZero) {
  countdown budget(2);
  EXPECT_TRUE(budget.take());
  EXPECT_TRUE(budget.take());
  EXPECT_FALSE(budget.take());
  EXPECT_FALSE(budget.take());
  EXPECT_EQ(budget.value(), -2);
}

TEST(countdownTest, neverComesBackFromFarBelowZero) {
  countdown budget(std::numeric_limits<std::int32_t>::min());
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(budget.take());
  }
  EXPECT_LT(budget.value(), 0);
}

TEST(stackTraceBeanTest, hashIsStoredOnTheSecondSighting) {
  agent::stackTraceBeans beans;
  agent::countStackTrace(beans, 77);
  EXPECT_EQ(beans.at(77).count, 1U);
  EXPECT_EQ(beans.at(77).hashcode, 0U);
  agent::countStackTrace(beans, 77);
  EXPECT_EQ(beans.at(77).count, 2U);
  EXPECT_EQ(beans.at(77).hashcode, 77U);
}

TEST(lockBeanTest, startsWithOneEntryAndNothingElse) {
  lockBean bean("a.Lock@1", 5);
  EXPECT_EQ(bean.name(), "");
  EXPECT_EQ(bean.count, 1U);
  EXPECT_EQ(bean.totalBlockTime, 0U);
  EXPECT_EQ(bean.totalWaitTime, 0U);
  EXPECT_EQ(bean.threadSlotsLeft(), 5);
  EXPECT_FALSE(bean.hasThreads());
}

TEST(lockBeanTest, entryMakesAThreadWithCountOneAndAWaitOneWithCountZero) {
  lockBean bean("a.Lock@1", 5);
  EXPECT_EQ(bean.countEntry("enters", 0)->count, 1U);
  EXPECT_EQ(bean.threadForWait("waits")->count, 0U);
  EXPECT_EQ(bean.count, 2U) << "1 when made, and one entry; a wait does not count";
  EXPECT_EQ(bean.snapshot().graph.at(0), 1U);
}

TEST(lockBeanTest, refusedThreadLeavesCountAndGraphAlone) {
  lockBean bean("a.Lock@1", 1);
  ASSERT_NE(bean.countEntry("first", 3), nullptr);
  EXPECT_EQ(bean.countEntry("second", 3), nullptr);
  EXPECT_EQ(bean.threadForWait("third"), nullptr);
  EXPECT_EQ(bean.count, 2U);
  EXPECT_EQ(bean.snapshot().graph.at(3), 1U);
  EXPECT_EQ(bean.threadSlotsLeft(), -2) << "each attempt takes one";
}

TEST(lockBeanTest, graphReachesToTheLatestMinuteWithAnEntry) {
  lockBean bean("a.Lock@1", 5);
  EXPECT_TRUE(bean.snapshot().graph.empty());
  bean.countEntry("t", 2);
  EXPECT_THAT(bean.snapshot().graph, ElementsAre(0, 0, 1));
  bean.countEntry("t", 0);
  EXPECT_THAT(bean.snapshot().graph, ElementsAre(1, 0, 1));
  bean.countEntry("t", 300);
  EXPECT_EQ(bean.snapshot().graph.size(), 301U);
  EXPECT_EQ(bean.snapshot().graph[300], 1U);
}

TEST(lockBeanTest, knownThreadTakesNoSlot) {
  lockBean bean("a.Lock@1", 1);
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(bean.countEntry("same", 0), nullptr);
  }
  EXPECT_EQ(bean.threadSlotsLeft(), 0);
  EXPECT_EQ(bean.findThread("same")->count, 3U);
}

TEST(lockBeanTest, threadSlotsAtTheirLowestDoNotWrapAround) {
  lockBean bean("a.Lock@1", std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(bean.countEntry("first", 0), nullptr);
  EXPECT_EQ(bean.countEntry("second", 0), nullptr);
}

TEST(waiterTallyTest, countsWhoElseWaits) {
  waiterTally tally;
  tally.enter(1);
  tally.enter(1);
  EXPECT_EQ(tally.leave(1), 1U);
  EXPECT_EQ(tally.leave(1), 0U);
  EXPECT_EQ(tally.leave(1), 0U) << "a leave without an enter counts nobody";
}

TEST(waiterTallyTest, knowsNobodyOfAnotherEpoch) {
  waiterTally tally;
  tally.enter(1);
  tally.enter(1);
  EXPECT_EQ(tally.leave(2), 0U);
  tally.enter(2);
  EXPECT_EQ(tally.leave(2), 0U);
}

TEST(waiterTallyTest, enterOfAnOldEpochChangesNothing) {
  waiterTally tally;
  tally.enter(5);
  tally.enter(4);
  tally.enter(5);
  EXPECT_EQ(tally.leave(5), 1U);
}

TEST(waiterTallyTest, epochsMayWrapAround) {
  waiterTally tally;
  const std::uint32_t last = std::numeric_limits<std::uint32_t>::max();
  tally.enter(last);
  tally.enter(last);
  tally.enter(last + 1);
  EXPECT_EQ(tally.leave(last + 1), 0U) << "only the one of the new epoch was counted";
}

TEST(topLockBeanTest, clearLeavesAnEmptyRecord) {
  agent::topLockBean top({"owner", true, {{"owner", {}}}});
  top.clear();
  EXPECT_EQ(top.snapshot().ownerName, "");
  EXPECT_TRUE(top.snapshot().blockingThreads.empty());
  EXPECT_FALSE(top.snapshot().ownerSeen);
}

TEST(topLockBeanTest, countsWhoIsFoundWithinTheBudget) {
  agent::topLockBean top;
  countdown budget(1);
  for (const char* const name : {"a", "b", "a"}) {
    top.found(name, &budget);
  }
  EXPECT_EQ(top.snapshot().ownerName, "a");
  EXPECT_EQ(top.snapshot().blockingThreads.at("a").blockingCount, 2U);
  EXPECT_TRUE(top.knows("a"));
  EXPECT_FALSE(top.knows("b"));
  EXPECT_EQ(budget.value(), -1);
  top.found("c", nullptr);
  EXPECT_FALSE(top.knows("c")) << "without settings nobody is recorded";
  EXPECT_EQ(top.snapshot().ownerName, "c");
}

TEST(topLockBeanTest, aPeriodLastsFromItsOpeningToTheNextClosing) {
  agent::topLockBean top({"a", true, {{"a", {}}}});
  top.openPeriod("a", 100);
  top.openPeriod("stranger", 100);
  std::string owner;
  EXPECT_TRUE(top.closePeriod(130, &owner));
  EXPECT_EQ(owner, "a");
  EXPECT_TRUE(top.closePeriod(150, nullptr));
  const agent::blockingThreadBean a = top.snapshot().blockingThreads.at("a");
  EXPECT_EQ(a.blockCount, 1U);
  EXPECT_EQ(a.totalBlockingTime, 30U);
  EXPECT_EQ(a.blockStartTime, 0);
  EXPECT_FALSE(top.knows("stranger"));
}

TEST(topLockBeanTest, aPeriodStaysOpenWhereNoOwnerWasLookedFor) {
  agent::topLockBean top({"a", false, {{"a", {1, 1, 0, 100, {}}}}});
  std::string owner;
  EXPECT_FALSE(top.closePeriod(130, &owner));
  EXPECT_EQ(owner, "");
  EXPECT_EQ(top.snapshot().blockingThreads.at("a").blockStartTime, 100);
  EXPECT_EQ(top.snapshot().blockingThreads.at("a").totalBlockingTime, 0U);
}

TEST(topLockBeanTest, countsTheStacksOfKnownOwners) {
  agent::topLockBean top({"a", true, {{"a", {}}}});
  top.countStack("a", 5);
  top.countStack("a", 5);
  top.countStack("stranger", 5);
  EXPECT_EQ(top.snapshot().blockingThreads.at("a").stacktracebean.at(5).count, 2U);
  EXPECT_FALSE(top.knows("stranger"));
}

TEST(lockNameTest, isClassNameAtSignedDecimalHash) {
  EXPECT_EQ(agent::lockNameOf("a.b.C", 17), "a.b.C@17");
  EXPECT_EQ(agent::lockNameOf("a.b.C", -17), "a.b.C@-17");
  EXPECT_EQ(agent::lockNameOf("[I", 0), "[I@0");
}

TEST(lockSessionConfigTest, takesTheThreadLimitTwice) {
  const LockSessionConfig config(1, "name", 60, 2, 3, 4, 5, 6, 7, "stacks", 1);
  EXPECT_EQ(config.topLockCount, 2);
  EXPECT_EQ(config.maxLockCount.value(), 3);
  EXPECT_EQ(config.maxThreadPerLockCount, 4);
  EXPECT_EQ(config.maxThreadCount, 5);
  EXPECT_EQ(config.maxThreadCountCopy.value(), 5);
  EXPECT_EQ(config.maxStackTraceCount.value(), 6);
  EXPECT_EQ(config.maxStackTraceCountPerThread, 7);
  EXPECT_EQ(config.stackFilePath, "stacks");
}

TEST_F(lockStoreTest, findsALockByClassAndHash) {
  lockStore store(settings(10));
  const auto cls = named("a.Lock");
  lockBean* const bean = store.recordLock(cls, 5).bean;
  ASSERT_NE(bean, nullptr);
  EXPECT_EQ(bean->lockName, "a.Lock@5");
  EXPECT_EQ(store.findLock(*cls, 5), bean);
  EXPECT_EQ(store.findLock(vm.env(), vm.ref(vm.classNamed("a.Lock")), 5), bean);
  EXPECT_EQ(store.findLock(*cls, 6), nullptr);
  EXPECT_EQ(store.findLock(*named("b.Lock"), 5), nullptr);
  EXPECT_EQ(store.findLock(vm.env(), vm.ref(vm.classNamed("b.Lock")), 5), nullptr);
}

TEST_F(lockStoreTest, locksOfTwoClassesShareAHash) {
  lockStore store(settings(10));
  const lockStore::recordedLock first = store.recordLock(named("a.Lock"), 5);
  const lockStore::recordedLock second = store.recordLock(named("b.Lock"), 5);
  EXPECT_TRUE(first.made);
  EXPECT_TRUE(second.made);
  EXPECT_NE(first.bean, second.bean);
}

TEST_F(lockStoreTest, secondMakerGetsTheRecordOfTheFirst) {
  lockStore store(settings(10));
  const lockStore::recordedLock first = store.recordLock(named("a.Lock"), 5);
  const lockStore::recordedLock second = store.recordLock(named("a.Lock"), 5);
  EXPECT_EQ(second.bean, first.bean);
  EXPECT_FALSE(second.made);
  EXPECT_EQ(store.lockCount(), 1U);
}

TEST_F(lockStoreTest, locksComeInTheByteOrderOfTheirNames) {
  lockStore store(settings(10));
  for (const char* name : {"b", "\xC3\xA9", "B", "a"}) {
    store.recordLock(named(name), 1);
  }
  store.recordLock(named("a"), 10);
  store.recordLock(named("a"), -1);
  std::vector<std::string> names;
  for (const lockBean* each : store.locksByName()) {
    names.push_back(each->lockName);
  }
  EXPECT_THAT(names, ElementsAre("B@1", "a@-1", "a@1", "a@10", "b@1", "\xC3\xA9@1"));
}

TEST_F(lockStoreTest, refusesLocksPastTheBudget) {
  lockStore store(settings(1));
  EXPECT_NE(store.recordLock(named("a"), 1).bean, nullptr);
  EXPECT_EQ(store.recordLock(named("b"), 1).bean, nullptr);
  EXPECT_EQ(store.recordLock(named("c"), 1).bean, nullptr);
  EXPECT_EQ(store.config->maxLockCount.value(), -2);
  EXPECT_EQ(store.lockCount(), 1U);
}

TEST_F(lockStoreTest, storesAStackTraceOnceWithItsLinesJoinedByCommas) {
  lockStore store(settings(1));
  EXPECT_FALSE(store.stackTraces.knows(9));
  EXPECT_TRUE(store.stackTraces.add(9, "at a.A.x()\nat b.B.y()\n"));
  EXPECT_FALSE(store.stackTraces.add(9, "at a.A.x()\nat b.B.y()\n"));
  EXPECT_TRUE(store.stackTraces.knows(9));
  EXPECT_EQ(store.stackTraces.texts().at(9), "at a.A.x(),at b.B.y()");
  EXPECT_TRUE(store.stackTraces.add(8, ""));
  EXPECT_EQ(store.stackTraces.texts().at(8), "");
}

TEST_F(lockStoreTest, stackHashesAreInAscendingOrder) {
  lockStore store(settings(1));
  const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  for (const std::uint64_t hash : {most, std::uint64_t{10}, std::uint64_t{0}, std::uint64_t{9}}) {
    store.stackTraces.add(hash, "at a()\n");
  }
  EXPECT_THAT(store.stackTraces.hashes(), ElementsAre(0U, 9U, 10U, most));
}

// Run under a thread sanitizer: lookups take no lock while locks and hashes are put in.
TEST_F(lockStoreTest, lookupsAreRightWhileOthersInsert) {
  constexpr int kLocks = 500;
  lockStore store(settings(kLocks));
  const auto cls = named("a.Lock");
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!done) {
        for (int hash = 0; hash < kLocks; ++hash) {
          const lockBean* const bean = store.findLock(*cls, hash);
          if (bean != nullptr && bean->lockName != agent::lockNameOf("a.Lock", hash)) {
            ADD_FAILURE() << hash << " found " << bean->lockName;
          }
          store.stackTraces.knows(static_cast<std::uint64_t>(hash));
        }
      }
    });
  }
  for (int hash = 0; hash < kLocks; ++hash) {
    store.recordLock(cls, hash);
    store.stackTraces.add(static_cast<std::uint64_t>(hash), "at a()\n");
  }
  done = true;
  for (std::thread& each : readers) {
    each.join();
  }
  EXPECT_EQ(store.locksByName().size(), static_cast<std::size_t>(kLocks));
  EXPECT_EQ(store.stackTraces.hashes().size(), static_cast<std::size_t>(kLocks));
}

// --- The profiler's store over sessions.

TEST_F(lockStoreTest, newSessionEmptiesLocksHashesAndTexts) {
  load();
  fake::object* const lock = vm.makeObject("a.Lock");
  beginDetail({lock});
  contend(vm.makeThread("t"), lock);
  ASSERT_EQ(lockCount(), 1U);
  ASSERT_FALSE(stackHashes().empty());

  startProfiling();

  EXPECT_EQ(lockCount(), 0U);
  EXPECT_THAT(stackHashes(), IsEmpty());
  EXPECT_TRUE(stackTexts().empty());
}

TEST(blockStartsTest, startsFromBeforeItsFirstAreNotItsOwn) {
  agent::blockStarts starts;
  EXPECT_FALSE(starts.hasLeft(1000));
  starts.note(0);  // the VM gave no time
  EXPECT_FALSE(starts.hasLeft(1000));
  starts.note(50);
  starts.note(60);
  EXPECT_TRUE(starts.hasLeft(50));
  EXPECT_FALSE(starts.hasLeft(49));
  starts.note(40);  // of a thread that read the time before
  EXPECT_TRUE(starts.hasLeft(40));
}

TEST(blockStartsTest, startsFromBeforeEventsWereLostAreToldApart) {
  agent::blockStarts starts;
  starts.note(50);
  EXPECT_TRUE(starts.hasLeftSinceLoss(50));
  starts.noteLostEvents();
  EXPECT_FALSE(starts.hasLeftSinceLoss(50));
  EXPECT_TRUE(starts.hasLeft(50));
  starts.note(70);
  EXPECT_FALSE(starts.hasLeftSinceLoss(60));
  EXPECT_TRUE(starts.hasLeftSinceLoss(70));
  EXPECT_TRUE(starts.hasLeft(60));
}

TEST_F(lockStoreTest, newSessionLeavesStartTimeAloneAndHasNoSelectedLocks) {
  load();
  fake::object* const lock = vm.makeObject("a.Lock");
  beginDetail({lock});
  const std::int64_t origin = locks()->startTime();
  ASSERT_GT(origin, 0);
  startProfiling();
  EXPECT_EQ(locks()->startTime(), origin);
  EXPECT_FALSE(isSelected(lock));
  EXPECT_FALSE(anySelected());
}

}  // namespace
