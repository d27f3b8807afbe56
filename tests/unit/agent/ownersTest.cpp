// Owners of contended locks: who is found owning one, and how long each held others up.
#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <random>

#include "lockTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;

class owners : public lockTest {
 protected:
  // The monitor asks of the VM that `action` makes.
  template <typename Action>
  std::uint64_t asks(Action&& action) {
    const std::uint64_t before = vm.calls("GetObjectMonitorUsage");
    action();
    return vm.calls("GetObjectMonitorUsage") - before;
  }

  fake::object* lock = vm.makeObject("a.Lock");
  fake::javaThread* a = vm.makeThread("A");
  fake::javaThread* b = vm.makeThread("B");
  fake::javaThread* c = vm.makeThread("C");
};

// --- Whom a contended entry finds.

TEST_F(owners, ownerOfASelectedLockIsCounted) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  vm.contendedEnter(b, lock);
  ASSERT_TRUE(ownerOf(lock, "A"));
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 1U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
  EXPECT_EQ(ownerOf(lock, "A")->totalBlockingTime, 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockStartTime, 0);
  EXPECT_TRUE(ownerOf(lock, "A")->stacktracebean.empty());
  vm.contendedEnter(c, lock);
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 2U);
  EXPECT_EQ(ownerNameOf(lock), "A");
  EXPECT_TRUE(ownerSeen(lock));
}

TEST_F(owners, theLastOwnerFoundIsTheOwner) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  vm.contendedEnter(c, lock);
  vm.setOwner(lock, b);
  vm.contendedEnter(c, lock);
  EXPECT_EQ(ownerNameOf(lock), "B");
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 1U);
  EXPECT_EQ(ownerOf(lock, "B")->blockingCount, 1U);
}

TEST_F(owners, ownerOfALockThatIsNotSelectedIsNotAskedFor) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  beginDetail({lock, other}, {.topLocks = 1});
  vm.setOwner(other, a);
  EXPECT_EQ(asks([&] { contend(b, other); }), 0U);
  EXPECT_EQ(ownerNameOf(other), "(not selected)");
}

TEST_F(owners, lockThatOnlyAnEarlierSessionHasSelectedGetsNoOwner) {
  load();
  beginDetail({lock});
  startProfiling();
  startSummary();
  locks()->setState(agent::kLockDetail);  // no ranking: the lock map is empty
  vm.setOwner(lock, a);
  EXPECT_EQ(asks([&] { vm.contendedEnter(b, lock); }), 0U);
  EXPECT_EQ(ownerNameOf(lock), "(not selected)");
  EXPECT_EQ(lockBeanOf(lock), nullptr);
}

TEST_F(owners, noOwnerIsSaidAndCountsNobody) {
  load("logLevel=1");
  beginDetail({lock});
  vm.setOwner(lock, nullptr);
  vm.contendedEnter(b, lock);
  EXPECT_THAT(errors(), ElementsAre("monitor usage owner not found"));
  EXPECT_EQ(log().back().function, "mutexLockProfiler::MonitorContendedEnter");
  EXPECT_EQ(ownerNameOf(lock), "");
  EXPECT_TRUE(ownerSeen(lock));
  EXPECT_EQ(ownersLeft(), 100) << "no budget was taken";
}

TEST_F(owners, noOwnerIsNotSaidAtLevel0) {
  load("logLevel=0");
  beginDetail({lock});
  vm.contendedEnter(b, lock);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(owners, virtualOwnerIsNotNamed) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, vm.makeVirtualThread("virtual"));
  vm.contendedEnter(b, lock);
  EXPECT_THAT(errors(), Contains("monitor usage owner not found"));
  EXPECT_FALSE(ownerOf(lock, "virtual"));
}

TEST_F(owners, ownerThatIsNotFoundLeavesTheEarlierOne) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  vm.contendedEnter(b, lock);
  vm.setOwner(lock, nullptr);
  vm.contendedEnter(c, lock);
  EXPECT_EQ(ownerNameOf(lock), "A");
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 1U);
}

TEST_F(owners, stackTraceIsTakenThoughNoOwnerWasFound) {
  load();
  beginDetail({lock});
  setStack(b, {"a.B.run"});
  vm.contendedEnter(b, lock);
  EXPECT_EQ(tracesOf(lock, "B").size(), 1U);
}

TEST_F(owners, refusedMonitorUsageCountsAsNoOwner) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  vm.fail("GetObjectMonitorUsage");
  vm.contendedEnter(b, lock);
  EXPECT_THAT(errors(), Contains("monitor usage owner not found"));
  EXPECT_FALSE(ownerOf(lock, "A"));
}

TEST_F(owners, ownerIsSaidAtDebug) {
  load("logLevel=4");
  beginDetail({lock});
  vm.setOwner(lock, a);
  vm.contendedEnter(b, lock);
  EXPECT_THAT(debugLines(), Contains("Monitor owner name :  A"));
}

TEST_F(owners, ownerIsNotSaidAtTrace) {
  load("logLevel=3");
  beginDetail({lock});
  vm.setOwner(lock, a);
  contend(b, lock);
  EXPECT_THAT(debugLines(), IsEmpty());
}

TEST_F(owners, waitersOfTheMonitorAreGivenBack) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  vm.setWaiters(lock, {b, c});
  vm.setNotifyWaiters(lock, {vm.makeThread("N"), vm.makeThread("M")});
  vm.contendedEnter(b, lock);
  vm.contendedEntered(b, lock);
  EXPECT_EQ(vm.memoryHeld(), 0U);
  EXPECT_EQ(vm.localReferences(), 0U);
}

// --- Periods in which an owner held others up.

TEST_F(owners, aPeriodLastsFromEnteringWithWaitersToTheNextEntry) {
  load();
  beginDetailWithOwner(lock, a, b);  // A is known as an owner, B owns the lock now
  vm.setOwner(lock, b);
  vm.contendedEnter(a, lock);
  vm.contendedEnter(c, lock);
  vm.setOwner(lock, a);
  vm.setWaiters(lock, {c});
  const jlong opened = vm.time();
  vm.contendedEntered(a, lock);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 1U);
  EXPECT_EQ(ownerOf(lock, "A")->blockStartTime, opened);
  EXPECT_EQ(ownerOf(lock, "A")->totalBlockingTime, 0U);

  vm.contendedEnter(b, lock);  // finds A owning it
  vm.advance(700);
  vm.setOwner(lock, c);
  vm.setWaiters(lock, {b});
  vm.contendedEntered(c, lock);
  EXPECT_EQ(ownerOf(lock, "A")->totalBlockingTime, 700U);
  EXPECT_EQ(ownerOf(lock, "A")->blockStartTime, 0);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 1U);
}

TEST_F(owners, aPeriodIsChargedOnce) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(a, lock);
  vm.contendedEnter(c, lock);
  vm.contendedEntered(a, lock);
  vm.contendedEnter(b, lock);
  vm.advance(700);
  vm.contendedEntered(c, lock);
  vm.advance(50);
  vm.contendedEntered(b, lock);
  EXPECT_EQ(ownerOf(lock, "A")->totalBlockingTime, 700U);
}

TEST_F(owners, enteringWithoutWaitersOpensNoPeriod) {
  load();
  beginDetailWithOwner(lock, a, b);
  contend(a, lock);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockStartTime, 0);
}

TEST_F(owners, threadsNotKnownAsOwnersOpenNoPeriod) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.setWaiters(lock, {c});
  EXPECT_EQ(asks([&] { vm.contendedEntered(b, lock); }), 0U);
  EXPECT_FALSE(ownerOf(lock, "B"));
}

TEST_F(owners, anEntryWithoutAKnownStartStillClosesAndOpensPeriods) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(a, lock);
  vm.contendedEnter(c, lock);
  a->storage = nullptr;
  vm.contendedEntered(a, lock);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 1U);
  vm.advance(30);
  c->storage = nullptr;
  vm.contendedEntered(c, lock);
  EXPECT_EQ(ownerOf(lock, "A")->totalBlockingTime, 30U);
}

TEST_F(owners, summaryOpensNoPeriod) {
  load();
  beginDetailWithOwner(lock, a, b);
  startSummary();
  vm.setWaiters(lock, {c});
  EXPECT_EQ(asks([&] { contend(a, lock); }), 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
}

TEST_F(owners, closedPeriodIsSaidAtDebug) {
  load("logLevel=4");
  beginDetailWithOwner(lock, a, b);
  EXPECT_THAT(debugLines(), Contains("Current blocking thread : A ,flag is : 1"));
}

TEST_F(owners, periodOfAnOwnerWithoutARecordIsNotSaid) {
  load("logLevel=4");
  beginDetailWithOwner(lock, a, b, {.threads = 0});
  EXPECT_THAT(debugLines(), Not(Contains("Current blocking thread : A ,flag is : 1")));
}

TEST_F(owners, anotherDetailSessionForgetsOwners) {
  load();
  beginDetailWithOwner(lock, a, b);
  startDetail();
  EXPECT_FALSE(ownerOf(lock, "A"));
  EXPECT_EQ(ownerNameOf(lock), "");
  EXPECT_FALSE(ownerSeen(lock));
}

// --- What the events tell of waiters need not be asked.

TEST_F(owners, monitorIsNotAskedWhileOthersAreKnownToWait) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(a, lock);
  vm.contendedEnter(c, lock);
  vm.setWaiters(lock, {c});
  EXPECT_EQ(asks([&] { vm.contendedEntered(a, lock); }), 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 1U);
}

TEST_F(owners, monitorIsAskedWhenNobodyIsKnownToWait) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(a, lock);
  EXPECT_EQ(asks([&] { vm.contendedEntered(a, lock); }), 1U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
}

TEST_F(owners, waiterThatOnlyTheVmKnowsCounts) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(a, lock);
  vm.setWaiters(lock, {c});
  EXPECT_EQ(asks([&] { vm.contendedEntered(a, lock); }), 1U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 1U);
}

TEST_F(owners, threadsInObjectWaitAreNoWaiters) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(a, lock);
  vm.setNotifyWaiters(lock, {c});
  vm.contendedEntered(a, lock);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
}

TEST_F(owners, waiterOfAnotherLockDoesNotCount) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  beginDetail({lock, other});
  vm.setOwner(lock, a);
  contend(b, lock);
  vm.contendedEnter(c, other);
  vm.contendedEnter(a, lock);
  vm.contendedEntered(a, lock);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
}

// A thread that began to wait before the phase changed may have stopped waiting unseen.
TEST_F(owners, waitersKnownBeforeAChangeOfPhaseAreAskedForAnew) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(c, lock);
  startSummary();
  vm.contendedEntered(c, lock);  // not counted as a detail event
  locks()->setState(agent::kLockDetail);
  vm.contendedEnter(a, lock);
  EXPECT_EQ(asks([&] { vm.contendedEntered(a, lock); }), 1U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
}

TEST_F(owners, waiterMissedWhileTheProfilerWasOffIsAskedForAnew) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(c, lock);
  locks()->setEnabled(false);
  vm.contendedEntered(c, lock);
  agent::getRegistry()->switchProfiler(agent::kMutexLockProfiler, true);
  locks()->setState(agent::kLockDetail);
  vm.contendedEnter(a, lock);
  vm.contendedEntered(a, lock);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
}

// The end of a wait for the monitor that a handler could not make out: each call that may refuse.
class ownersMissedEnd : public owners, public ::testing::WithParamInterface<const char*> {};

TEST_P(ownersMissedEnd, waiterWhoseEndWasNotUnderstoodDoesNotWaitForEver) {
  load();
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(c, lock);
  const std::string call = GetParam();
  if (call == "null object") {
    vm.contendedEntered(c, nullptr);
  } else if (call == "null thread") {
    vm.contendedEntered(nullptr, lock);
  } else {
    vm.fail(call, {.error = JVMTI_ERROR_OUT_OF_MEMORY});
    vm.contendedEntered(c, lock);
    vm.succeed(call);
  }
  vm.contendedEnter(a, lock);
  EXPECT_EQ(asks([&] { vm.contendedEntered(a, lock); }), 1U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
}

INSTANTIATE_TEST_SUITE_P(owners, ownersMissedEnd,
                         ::testing::Values("null object", "null thread", "GetTime",
                                           "GetThreadLocalStorage", "GetObjectClass",
                                           "GetObjectHashCode", "GetThreadInfo"));

// --- At most so many looks a second.

class ownersLimit : public owners {
 protected:
  // How many looks `entries` contended entries at one time make.
  std::uint64_t looksOf(int entries) {
    return asks([&] {
      for (int i = 0; i < entries; ++i) {
        vm.contendedEnter(b, lock);
      }
    });
  }
  // What the log says of those left out.
  std::vector<std::string> leftOut() const {
    std::vector<std::string> found;
    for (const std::string& each : messages("Trace")) {
      if (each.find("lookups left out") != std::string::npos) {
        found.push_back(each);
      }
    }
    return found;
  }
  // Ends the session; what its report says of the looks.
  std::string reportedLooks() {
    stopDetail();
    EXPECT_EQ(stopProfiling(), 1);
    return report()["ownerLookups"].dump();
  }
};

TEST_F(ownersLimit, entriesBeyondItAreCountedAndTimedAndKeepTheirStack) {
  load("ownerLookupsPerSecond=20");
  beginDetail({lock});
  vm.setOwner(lock, a);
  setStack(b, {"a.B.run"});
  EXPECT_EQ(looksOf(2), 2U);
  EXPECT_EQ(asks([&] { contend(b, lock, 700); }), 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 2U);
  EXPECT_EQ(lockBeanOf(lock)->count, 3U);
  EXPECT_EQ(threadOf(lock, "B")->count, 3U);
  EXPECT_EQ(threadOf(lock, "B")->totalBlockTime, 700U);
  const auto traces = tracesOf(lock, "B");
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces.begin()->second.count, 3U);
}

TEST_F(ownersLimit, entryWithoutALookSaysNothingOfItsOwner) {
  load("ownerLookupsPerSecond=1,logLevel=1");
  beginDetail({lock});
  looksOf(3);
  EXPECT_THAT(errors(), ElementsAre("monitor usage owner not found"));
  EXPECT_TRUE(ownerSeen(lock));
}

TEST_F(ownersLimit, isThatOfASecond) {
  load("ownerLookupsPerSecond=40");
  beginDetail({lock});
  vm.setOwner(lock, a);
  std::uint64_t looks = 0;
  for (int i = 0; i < 100; ++i) {
    looks += looksOf(5);
    vm.advance(kSecond / 100);
  }
  EXPECT_GE(looks, 36U);
  EXPECT_LE(looks, 40U);
}

TEST_F(ownersLimit, isThatOfAllLocks) {
  load("ownerLookupsPerSecond=1");
  fake::object* const other = vm.makeObject("b.Lock");
  beginDetail({lock, other});
  EXPECT_EQ(looksOf(1), 1U);
  EXPECT_EQ(asks([&] { vm.contendedEnter(b, other); }), 0U);
}

TEST_F(ownersLimit, coversTheQuestionForWaiters) {
  load("ownerLookupsPerSecond=20");
  beginDetailWithOwner(lock, a, b);
  EXPECT_EQ(asks([&] { vm.contendedEnter(a, lock); }), 1U);
  vm.setWaiters(lock, {c});
  EXPECT_EQ(asks([&] { vm.contendedEntered(a, lock); }), 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 0U);
  EXPECT_THAT(ownerLookups(), Pair(2, 0));  // which are for owners alone
}

TEST_F(ownersLimit, isNotTouchedByPeriodsThatNeedNoLook) {
  load("ownerLookupsPerSecond=1");
  beginDetailWithOwner(lock, a, b);
  vm.contendedEnter(a, lock);
  vm.contendedEnter(c, lock);
  vm.contendedEntered(a, lock);  // C is known to wait
  EXPECT_EQ(ownerOf(lock, "A")->blockCount, 1U);
  EXPECT_THAT(ownerLookups(), Pair(1, 2));  // those of A's and of C's entry are left out
}

class noOwnersLimit : public ownersLimit, public ::testing::WithParamInterface<const char*> {};

TEST_P(noOwnersLimit, eachEntryLooks) {
  load(GetParam());
  beginDetail({lock});
  EXPECT_EQ(looksOf(500), 500U);
  stopProfiling();
  EXPECT_THAT(leftOut(), IsEmpty());
  EXPECT_THAT(ownerLookups(), Pair(0, 0));
  EXPECT_FALSE(report().contains("ownerLookups"));
}

INSTANTIATE_TEST_SUITE_P(owners, noOwnersLimit,
                         ::testing::Values("", "ownerLookupsPerSecond=0",
                                           "ownerLookupsPerSecond=-5"));

TEST_F(ownersLimit, mayStandBehindTheFeatures) {
  load("features=mutexprofiling,OwnerLookupsPerSecond=30");
  beginDetail({lock});
  EXPECT_EQ(looksOf(10), 3U);
}

TEST_F(ownersLimit, whatWasLeftOutInASessionIsLoggedWithItsReport) {
  load("ownerLookupsPerSecond=20");
  beginDetail({lock});
  looksOf(10);
  stopDetail();
  stopProfiling();
  beginDetail({lock});
  vm.advance(kSecond);
  looksOf(2);
  stopDetail();
  stopProfiling();
  EXPECT_THAT(leftOut(), ElementsAre("Owner lookups left out : 8 , at most 20 a second were made",
                                     "Owner lookups left out : 0 , at most 20 a second were made"));
}

TEST_F(ownersLimit, reportCountsTheLooksOfItsSession) {
  load("ownerLookupsPerSecond=20");
  beginDetail({lock});
  looksOf(10);
  EXPECT_EQ(reportedLooks(), R"({"perSecond":20,"made":2,"leftOut":8})");
  vm.advance(kSecond);
  beginDetail({lock});
  looksOf(1);
  EXPECT_EQ(reportedLooks(), R"({"perSecond":20,"made":1,"leftOut":0})");
  beginDetail({lock});
  looksOf(2);
  EXPECT_EQ(reportedLooks(), R"({"perSecond":20,"made":1,"leftOut":1})");
}

TEST_F(ownersLimit, isNoMatterOfALookThatIsShared) {
  load("ownerLookupsPerSecond=1");
  beginDetail({lock});
  vm.setOwner(lock, a);
  EXPECT_EQ(looksOf(1), 1U);
  pendingLookup(lock)->publish(agent::foundOwner{true, "A"});
  EXPECT_EQ(looksOf(1), 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 2U);
  EXPECT_THAT(ownerLookups(), Pair(1, 0));
}

// --- Events that share one look for the owner.

using ownersLook = owners;

TEST_F(ownersLook, entryTakesWhatALookThatHadNotBegunFinds) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  pendingLookup(lock)->publish(agent::foundOwner{true, "A"});
  EXPECT_EQ(asks([&] { vm.contendedEnter(b, lock); }), 0U);
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 1U);
  EXPECT_EQ(ownerNameOf(lock), "A");
}

TEST_F(ownersLook, sharedLookThatNamesNobodyIsSaidByEachEntry) {
  load("logLevel=1");
  beginDetail({lock});
  pendingLookup(lock)->publish(agent::foundOwner{});
  for (int i = 0; i < 2; ++i) {
    vm.contendedEnter(b, lock);
  }
  EXPECT_THAT(errors(),
              ElementsAre("monitor usage owner not found", "monitor usage owner not found"));
}

TEST_F(ownersLook, entryAsksItselfWhenTheLookHasBegun) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  const auto look = pendingLookup(lock);
  look->begin();
  look->publish(agent::foundOwner{true, "outdated"});
  EXPECT_EQ(asks([&] { vm.contendedEnter(b, lock); }), 1U);
  EXPECT_EQ(ownerNameOf(lock), "A");
  EXPECT_FALSE(ownerOf(lock, "outdated"));
}

TEST_F(ownersLook, entryAsksItselfWhenTheLookCameToNothing) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  pendingLookup(lock)->publish(std::nullopt);
  EXPECT_EQ(asks([&] { vm.contendedEnter(b, lock); }), 1U);
  EXPECT_EQ(ownerOf(lock, "A")->blockingCount, 1U);
}

TEST_F(ownersLook, isLeftOutOnceWhereItCameToNothingAndNoneIsLeft) {
  load("ownerLookupsPerSecond=1");
  beginDetail({lock});
  vm.contendedEnter(b, lock);
  pendingLookup(lock)->publish(std::nullopt);
  EXPECT_EQ(asks([&] { vm.contendedEnter(b, lock); }), 0U);
  EXPECT_THAT(ownerLookups(), Pair(1, 1));
}

TEST_F(ownersLook, oneAfterTheOtherEachEntryAsksItself) {
  load();
  beginDetail({lock});
  vm.setOwner(lock, a);
  vm.contendedEnter(b, lock);
  vm.setOwner(lock, c);
  EXPECT_EQ(asks([&] { vm.contendedEnter(b, lock); }), 1U);
  EXPECT_EQ(ownerNameOf(lock), "C");
}

// A random run of threads over one monitor, kept in the VM as it is. What the profiler gathers is
// compared with what asking the VM at every event would give.
class ownersSimulation : public owners, public ::testing::WithParamInterface<unsigned> {
 protected:
  struct literalOwner {
    std::uint32_t blockingCount = 0;
    std::uint32_t blockCount = 0;
    std::uint64_t totalBlockingTime = 0;
    jlong blockStartTime = 0;
  };

  void enter(fake::javaThread* thread) {
    waiting.push_back(thread);
    vm.setWaiters(lock, {waiting.begin(), waiting.end()});
    vm.contendedEnter(thread, lock);
    lastOwner = *owner->name;
    ++known[lastOwner].blockingCount;
  }

  void handOver() {
    owner = waiting.front();
    waiting.pop_front();
    vm.setOwner(lock, owner);
    vm.setWaiters(lock, {waiting.begin(), waiting.end()});
    vm.contendedEntered(owner, lock);
    if (const auto closed = known.find(lastOwner); closed != known.end()) {
      literalOwner& last = closed->second;
      if (last.blockStartTime > 0) {
        last.totalBlockingTime += static_cast<std::uint64_t>(vm.time() - last.blockStartTime);
      }
      last.blockStartTime = 0;
    }
    if (const auto own = known.find(*owner->name); own != known.end() && !waiting.empty()) {
      ++own->second.blockCount;
      own->second.blockStartTime = vm.time();
    }
  }

  fake::javaThread* owner = nullptr;
  std::deque<fake::javaThread*> waiting;
  std::string lastOwner;
  std::map<std::string, literalOwner> known;
};

TEST_P(ownersSimulation, givesWhatAskingTheVmEachTimeWouldGive) {
  load("logLevel=1");
  std::vector<fake::javaThread*> threads;
  for (int i = 0; i < 6; ++i) {
    threads.push_back(vm.makeThread("T" + std::to_string(i)));
  }
  beginDetail({lock});
  owner = threads[0];
  vm.setOwner(lock, owner);

  std::mt19937 random(GetParam());
  for (int step = 0; step < 400; ++step) {
    vm.advance(static_cast<jlong>(random() % 1000));
    fake::javaThread* const one = threads[random() % threads.size()];
    const bool busy =
        one == owner || std::find(waiting.begin(), waiting.end(), one) != waiting.end();
    if (random() % 2 == 0 && !busy) {
      enter(one);
    } else if (!waiting.empty()) {
      handOver();
    } else if (one != owner) {  // taken without contention: no event
      owner = one;
      vm.setOwner(lock, owner);
    }
  }

  ASSERT_FALSE(known.empty());
  for (const auto& [name, expected] : known) {
    SCOPED_TRACE(name);
    const auto got = ownerOf(lock, name);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->blockingCount, expected.blockingCount);
    EXPECT_EQ(got->blockCount, expected.blockCount);
    EXPECT_EQ(got->totalBlockingTime, expected.totalBlockingTime);
    EXPECT_EQ(got->blockStartTime, expected.blockStartTime);
  }
}

INSTANTIATE_TEST_SUITE_P(owners, ownersSimulation, ::testing::Values(1U, 2U, 3U, 4U, 5U));

}  // namespace
