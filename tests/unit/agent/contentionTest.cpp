// What the events of blocked threads write: counts by lock, blocks, and what there is no room for.
#include "contentionTest.h"

#include <algorithm>
#include <map>

#include "../stoppedClock.h"

namespace {

using namespace test;
using agent::blockCounts;
using agent::blockedThreads;
using agent::blockTotals;
using agent::channel;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// How many are in each bucket that has some.
std::map<std::size_t, std::uint64_t> bucketsOf(const blockTotals& totals) {
  std::map<std::size_t, std::uint64_t> found;
  for (std::size_t i = 0; i < totals.histogram.size(); ++i) {
    if (totals.histogram[i] != 0) {
      found[i] = totals.histogram[i];
    }
  }
  return found;
}

class contention : public contentionTest {
 protected:
  void TearDown() override {
    clock_.reset();
    contentionTest::TearDown();
  }

  static void pass(std::int64_t nanos) { stoppedClock::advance(nanos); }
  void block(fake::javaThread* of, fake::object* by, std::int64_t nanos) {
    enter(of, by);
    pass(nanos);
    entered(of);
  }
  void parkFor(std::int64_t nanos, fake::object* blocker) {
    park(thread, blocker);
    pass(nanos);
    unpark(thread);
  }
  std::vector<fake::object*> makeLocks(fake::javaClass* cls, int count) {
    std::vector<fake::object*> made;
    std::generate_n(std::back_inserter(made), count, [&] { return vm.makeObject(cls); });
    return made;
  }
  // Three looks of the profile's thread, with its upkeep.
  void upkeep() {
    for (int i = 0; i < 3; ++i) {
      pass(100 * kMilli);
      step(stoppedClock::now());
    }
  }
  // Takes every slot, for blocks that stay.
  void useUpSlots() {
    block(other, vm.makeObject("com.example.Crowded"), 0);
    std::uint32_t taken = 0;
    for (std::int64_t since = 0; taken < blockedThreads::kSlots; ++since) {
      const auto token = recorder->threads().enter({.place = 0, .since = since}, nullptr);
      taken += token.slot == blockedThreads::kNone ? 0 : 1;
    }
  }
  std::uint64_t startsNotSeen() const { return recorder->omitted().startsNotSeen; }

  fake::javaThread* thread = vm.makeThread("worker-1");
  fake::javaThread* other = vm.makeThread("worker-2");
  fake::object* lock = vm.makeObject("com.example.Stock");
  fake::object* fair = vm.makeObject(types.fairLock);

 private:
  std::unique_ptr<stoppedClock> clock_ = std::make_unique<stoppedClock>();
};

TEST_F(contention, countsEachWayOfBeingBlockedExactly) {
  begin();
  const std::int64_t start = stoppedClock::now();
  for (const std::int64_t nanos : {5'000, 1, 70'000}) {
    block(thread, lock, nanos);
  }
  wait(thread, lock);
  pass(300);
  waited(thread);
  parkFor(20, lock);
  const blockTotals entries = totalsOf(lock);
  EXPECT_EQ(entries.entries, 3U);
  EXPECT_EQ(entries.nanos, 75'001U);
  EXPECT_EQ(entries.maxNanos, 70'000U);
  EXPECT_EQ(entries.first, start);
  EXPECT_EQ(entries.last, start + 75'001);
  EXPECT_EQ(totalsOf(lock, channel::wait).nanos, 300U);
  EXPECT_EQ(totalsOf(lock, channel::park).nanos, 20U);
  EXPECT_EQ(allEntries(), 5U);
}

TEST_F(contention, histogramHasAPlaceForEachDuration) {
  begin();
  for (const std::int64_t nanos :
       {0LL, 1023LL, 1024LL, 2047LL, 2048LL, 1LL << 39U, 1LL << 40U, 1LL << 41U, 1LL << 50U}) {
    block(thread, lock, nanos);
  }
  EXPECT_EQ(bucketsOf(totalsOf(lock)),
            (std::map<std::size_t, std::uint64_t>{{0, 2}, {1, 2}, {2, 1}, {30, 1}, {31, 3}}));
}

TEST_F(contention, timeThatGoesBackAddsNone) {
  begin();
  block(thread, lock, -5'000);
  EXPECT_EQ(totalsOf(lock).entries, 1U);
  EXPECT_EQ(totalsOf(lock).nanos, 0U);
}

// --- Acquisitions.

TEST_F(contention, parksOfOneAcquisitionCountOnceWithAllTheirTime) {
  begin();
  acquire(thread);
  parkFor(3'000, fair);
  parkFor(5'000, fair);
  parkFor(100'000, fair);
  const blockTotals totals = totalsOf(fair, channel::park);
  EXPECT_EQ(totals.entries, 1U);
  EXPECT_EQ(totals.nanos, 108'000U);
  EXPECT_NEAR(static_cast<double>(totals.maxNanos), 108'000, 2 * 16);
  EXPECT_EQ(bucketsOf(totals), (std::map<std::size_t, std::uint64_t>{{7, 1}}));
}

TEST_F(contention, theNextAcquisitionCountsAgain) {
  begin();
  for (int i = 0; i < 3; ++i) {
    acquire(thread);
    parkFor(3'000, fair);
    parkFor(3'000, fair);
  }
  EXPECT_EQ(totalsOf(fair, channel::park).entries, 3U);
  EXPECT_EQ(totalsOf(fair, channel::park).maxNanos, 5'992U) << "the first part to 16 ns";
}

TEST_F(contention, anAcquisitionGoesOnForItsLockOnly) {
  begin();
  fake::object* const another = vm.makeObject(types.fairLock);
  acquire(thread);
  parkFor(3'000, fair);
  parkFor(4'000, another);
  EXPECT_EQ(totalsOf(fair, channel::park).entries, 1U);
  EXPECT_EQ(totalsOf(another, channel::park).entries, 1U);
  EXPECT_EQ(totalsOf(another, channel::park).maxNanos, 4'000U);
}

TEST_F(contention, parksWithoutAnAcquisitionCountEach) {
  begin();
  parkFor(3'000, fair);
  parkFor(3'000, fair);
  fake::object* const condition = vm.makeObject(types.condition);
  acquire(thread);
  parkFor(3'000, condition);
  parkFor(3'000, condition);
  EXPECT_EQ(totalsOf(fair, channel::park).entries, 2U);
  EXPECT_EQ(totalsOf(condition, channel::park).entries, 2U);
}

TEST_F(contention, anAcquisitionOfMoreThanAnHourKeepsTheHistogramWhole) {
  begin();
  acquire(thread);
  for (int i = 0; i < 3; ++i) {
    parkFor(std::int64_t{1} << 42U, fair);
  }
  const blockTotals totals = totalsOf(fair, channel::park);
  EXPECT_EQ(totals.nanos, std::uint64_t{3} << 42U);
  EXPECT_EQ(bucketsOf(totals), (std::map<std::size_t, std::uint64_t>{{31, 1}}));
}

TEST_F(contention, theBeginningOfAnAcquisitionLeavesTheBlockOfTheCarrier) {
  begin();
  park(thread, fair);
  acquire(thread);
  pass(7'000);
  unpark(thread);
  EXPECT_EQ(totalsOf(fair, channel::park).nanos, 7'000U);
  EXPECT_EQ(startsNotSeen(), 0U);
}

// --- Kinds.

TEST_F(contention, poolsWithoutWorkAreNotRecorded) {
  begin();
  fake::object* const pool = vm.makeObject(types.pool);
  parkFor(5'000, pool);
  EXPECT_EQ(allEntries(), 0U);
  EXPECT_EQ(startsNotSeen(), 0U);
  EXPECT_THAT(contentionReport(stoppedClock::now()).at("locks"), IsEmpty());
}

TEST_F(contention, kindsAreToldByTheClassOfTheBlocker) {
  begin();
  parkFor(1, fair);
  parkFor(1, vm.makeObject(types.latch));
  parkFor(1, vm.makeObject(types.stampedLock));
  parkFor(1, vm.makeObject(types.condition));
  block(thread, lock, 1);
  wait(thread, vm.makeObject("com.example.Queue"));
  waited(thread);
  const nlohmann::json report = contentionReport(stoppedClock::now());
  const std::string concurrent = "java.util.concurrent.";
  const auto kindOf = [&](const std::string& cls) { return lockIn(report, cls).at("kind"); };
  EXPECT_EQ(kindOf(concurrent + "locks.ReentrantLock"), "lock");
  EXPECT_EQ(kindOf(concurrent + "CountDownLatch"), "park");
  EXPECT_EQ(kindOf(concurrent + "locks.StampedLock"), "lock");
  EXPECT_EQ(kindOf(concurrent + "locks.Condition"), "park");
  EXPECT_EQ(kindOf("com.example.Stock"), "monitor");
  EXPECT_EQ(kindOf("com.example.Queue"), "wait");
}

// --- Starts and ends.

TEST_F(contention, anEndWithoutItsStartIsCountedAsOmitted) {
  begin();
  entered(thread);
  waited(thread);
  unpark(thread);
  EXPECT_EQ(allEntries(), 0U);
  EXPECT_EQ(contentionReport(stoppedClock::now()).at("omitted").at("startsNotSeen"), 3);
}

TEST_F(contention, aBlockEndsOnce) {
  begin();
  block(thread, lock, 5);
  entered(thread);
  EXPECT_EQ(totalsOf(lock).entries, 1U);
  EXPECT_EQ(startsNotSeen(), 1U);
}

// From 27 on the VM posts it, as if it were an entry of the program.
TEST_F(contention, aNotifiedWaiterThatComesBackIsNotBlocked) {
  vm.setFeatureVersion(27);
  begin();
  putIntoWait(vm, thread);
  for (const bool timedOut : {false, true}) {
    wait(thread, lock);
    pass(100);
    waited(thread, timedOut);
    block(thread, lock, 20);
    EXPECT_EQ(totalsOf(lock).entries, timedOut ? 1U : 0U) << "a time that is over is none of it";
  }
  EXPECT_EQ(totalsOf(lock, channel::wait).nanos, 200U);
  EXPECT_EQ(startsNotSeen(), 0U);

  wait(thread, lock);
  waited(thread);
  thread->setFrames({});
  block(thread, lock, 20);
  EXPECT_EQ(totalsOf(lock).entries, 2U) << "it had come back without a block";
}

TEST_F(contention, aWaiterThatWasInterruptedIsBlocked) {
  vm.setFeatureVersion(27);
  begin();
  putIntoWait(vm, thread);
  thread->isInterrupted = true;
  wait(thread, lock);
  waited(thread);
  block(thread, lock, 20);
  EXPECT_EQ(totalsOf(lock).nanos, 20U);
}

// From 24 on its way back ends with an event that none comes before.
TEST_F(contention, aVirtualThreadThatComesBackHasNotBegunBefore) {
  begin();
  fake::javaThread* const waiter = makeVirtual("virtual");
  putIntoWait(vm, waiter);
  wait(waiter, lock);
  waited(waiter);
  entered(waiter);
  EXPECT_EQ(totalsOf(lock).entries, 0U);
  EXPECT_EQ(startsNotSeen(), 0U);
}

TEST_F(contention, aBlockWithinABlockLeavesTheOuterOneAsItIs) {
  begin();
  fake::object* const inner = vm.makeObject("com.example.Inner");
  wait(thread, lock);
  pass(100);
  block(thread, inner, 20);
  pass(3);
  EXPECT_EQ(contentionReport(stoppedClock::now()).at("locks").at(0).at("stillBlockedNanos"), 123);
  waited(thread);
  EXPECT_EQ(totalsOf(inner).nanos, 20U);
  EXPECT_EQ(totalsOf(lock, channel::wait).nanos, 123U);
  EXPECT_EQ(startsNotSeen(), 0U);
}

TEST_F(contention, nothingIsRecordedBeforeTheSessionAndAfterIt) {
  block(thread, lock, 5);
  begin();
  block(thread, lock, 5);
  recorder->end();
  block(thread, lock, 5);
  EXPECT_EQ(totalsOf(lock).entries, 1U);
}

// --- No room.

TEST_F(contention, locksBeyondTheLimitAreInTheSumsOfTheirClasses) {
  begin({.locks = 64});
  fake::javaClass* const one = vm.makeClass("com.example.One");
  fake::javaClass* const two = vm.makeClass("com.example.Two");
  for (fake::object* const each : makeLocks(one, 70)) {
    block(thread, each, 1'000);
    block(thread, each, 3'000);
  }
  for (fake::object* const each : makeLocks(two, 30)) {
    block(thread, each, 500);
  }
  EXPECT_EQ(recordCount(), 64U);
  EXPECT_EQ(allEntries(), 170U);
  const nlohmann::json report = contentionReport(stoppedClock::now());
  EXPECT_EQ(report.at("locks").size(), 64U);
  const nlohmann::json othersOfOne = lockIn(report, "com.example.One", "otherLocks");
  EXPECT_EQ(othersOfOne.at("entries"), 12);
  EXPECT_EQ(othersOfOne.at("blockedNanos"), 24'000);
  EXPECT_EQ(othersOfOne.at("maxNanos"), 3'000);
  EXPECT_THAT(othersOfOne.at("histogram"), ElementsAre(6, 0, 6));
  EXPECT_EQ(lockIn(report, "com.example.Two", "otherLocks").at("blockedNanos"), 15'000);
  EXPECT_EQ(report.at("omitted").at("otherLocks"), 42);
  EXPECT_EQ(report.at("omitted").at("classes"), 0);
}

TEST_F(contention, anAcquisitionOfALockWithoutRecordCountsOnce) {
  begin({.locks = 64});
  for (fake::object* const each : makeLocks(vm.makeClass("com.example.One"), 64)) {
    block(thread, each, 1);
  }
  acquire(thread);
  parkFor(3'000, fair);
  parkFor(5'000, fair);
  const blockTotals totals = totalsOf(types.fairLock, channel::park);
  EXPECT_EQ(totals.entries, 1U);
  EXPECT_EQ(totals.nanos, 8'000U);
}

TEST_F(contention, locksOfMoreClassesThanThereIsRoomForHaveNoClass) {
  begin({.locks = 64});
  constexpr int kClasses = 1500;
  for (int i = 0; i < kClasses; ++i) {
    block(thread, vm.makeObject(vm.makeClass("com.example.C" + std::to_string(i))), 10);
  }
  EXPECT_EQ(allEntries(), static_cast<std::uint64_t>(kClasses));
  const nlohmann::json report = contentionReport(stoppedClock::now());
  const auto nameless =
      std::find_if(report.at("otherLocks").begin(), report.at("otherLocks").end(),
                   [](const nlohmann::json& each) { return each.at("class").is_null(); });
  ASSERT_NE(nameless, report.at("otherLocks").end());
  EXPECT_EQ(nameless->at("entries"), report.at("omitted").at("classes"));
  EXPECT_GE(nameless->at("entries"), kClasses - 1023 - 64);
}

TEST_F(contention, deadLocksMakeRoomAndTheirCountsGoToTheirClass) {
  begin({.locks = 64});
  fake::javaClass* const one = vm.makeClass("com.example.One");
  const std::vector<fake::object*> first = makeLocks(one, 64);
  for (fake::object* const each : first) {
    block(thread, each, 2'000);
  }
  for (fake::object* const each : first) {
    vm.collect(each);
  }
  const std::size_t weak = vm.weakReferences();
  upkeep();
  EXPECT_EQ(recordCount(), 0U);
  EXPECT_EQ(vm.weakReferences(), weak - 64);
  EXPECT_EQ(totalsOf(one).entries, 64U);
  EXPECT_EQ(totalsOf(one).nanos, 128'000U);
  EXPECT_NE(totalsOf(one).first, 0);
  for (fake::object* const each : makeLocks(one, 64)) {
    block(thread, each, 1'000);
    EXPECT_EQ(totalsOf(each).entries, 1U) << "a new lock begins from zero";
  }
  EXPECT_EQ(recordCount(), 64U);
  EXPECT_EQ(allEntries(), 128U);
  EXPECT_EQ(recorder->omitted().otherLocks, 0U);
}

TEST_F(contention, aLockThatAThreadIsBlockedByKeepsItsRecord) {
  begin({.locks = 64});
  const std::vector<fake::object*> locks = makeLocks(vm.makeClass("com.example.One"), 64);
  for (fake::object* const each : locks) {
    block(thread, each, 2'000);
  }
  enter(other, locks.front());
  for (fake::object* const each : locks) {
    vm.collect(each);
  }
  upkeep();
  EXPECT_EQ(recordCount(), 1U);
  entered(other);
  EXPECT_EQ(totalsOf(locks.front()).entries, 2U);
  EXPECT_EQ(allEntries(), 65U);
}

TEST_F(contention, twoLocksOfOneHashCodeAreToldApart) {
  begin();
  fake::object* const twin = vm.makeObject(lock->type);
  twin->hash = lock->hash.load();
  block(thread, lock, 1'000);
  block(thread, twin, 4'000);
  EXPECT_EQ(recordCount(), 2U);
  EXPECT_EQ(contentionReport(stoppedClock::now()).at("locks").size(), 2U);
}

// As when two threads meet a lock for the first time at once, and each finds its own.
TEST_F(contention, aLockWithTwoRecordsIsOneInTheReport) {
  begin();
  block(thread, lock, 1'000);
  vm.fail("IsSameObject", {.times = 3});
  enter(other, lock);
  pass(5'000);
  entered(other);
  vm.succeed("IsSameObject");
  ASSERT_EQ(recordCount(), 2U);
  const nlohmann::json report = contentionReport(stoppedClock::now());
  const nlohmann::json row = lockIn(report, "com.example.Stock");
  EXPECT_EQ(row.at("entries"), 2);
  EXPECT_EQ(row.at("blockedNanos"), 6'000);
  for (const nlohmann::json& each : report.at("windows").back().at("locks")) {
    EXPECT_EQ(each.at("id"), row.at("id"));
  }
}

TEST_F(contention, blocksWithoutASlotAreCountedExactly) {
  begin();
  useUpSlots();
  const std::uint64_t before = recorder->omitted().notSampled;
  block(thread, lock, 1 << 20U);
  EXPECT_EQ(recorder->omitted().notSampled, before + 1);
  EXPECT_EQ(totalsOf(lock).entries, 1U);
  EXPECT_NEAR(static_cast<double>(totalsOf(lock).nanos), 1 << 20U, 1024);
  EXPECT_EQ(startsNotSeen(), 0U);
}

TEST_F(contention, blocksWithoutASlotAreRightOnAMachineThatIsUpForMonths) {
  pass(std::int64_t{200} * 24 * 3600 * 1'000'000'000);
  begin();
  useUpSlots();
  block(thread, lock, 5 * kMilli);
  EXPECT_NEAR(static_cast<double>(totalsOf(lock).nanos), 5.0 * kMilli, 1024);
}

TEST_F(contention, aBlockWithoutASlotIsKeptDuringABlockWithinIt) {
  begin();
  useUpSlots();
  wait(thread, lock);
  pass(kMilli);
  sampler->begin(session.settings, {}, true, stoppedClock::now());
  vm.native([&](JNIEnv* jni) { recorder->threads().dropAll(jni); });
  block(thread, vm.makeObject("com.example.Inner"), kMilli);
  waited(thread);
  EXPECT_NEAR(static_cast<double>(totalsOf(lock, channel::wait).nanos), 2.0 * kMilli, 1024);
  EXPECT_EQ(startsNotSeen(), 0U);
}

// As virtual threads are, which have the stack of their carrier.
TEST_F(contention, manyThreadsOnOneStackHaveASlotEach) {
  begin();
  for (int i = 0; i < 10'000; ++i) {
    pass(977);
    enter(vm.makeThread("virtual"), lock);
  }
  EXPECT_EQ(recorder->omitted().notSampled, 0U);
  EXPECT_EQ(contentionReport(stoppedClock::now()).at("locks").at(0).at("stillBlocked"), 10'000);
}

// --- Sessions.

TEST_F(contention, aSecondSessionBeginsFromZero) {
  begin();
  block(thread, lock, 5'000);
  enter(other, lock);
  acquire(thread);
  parkFor(1'000, fair);
  recorder->end();
  begin();
  EXPECT_EQ(recordCount(), 0U);
  EXPECT_EQ(allEntries(), 0U);
  const nlohmann::json report = contentionReport(stoppedClock::now());
  EXPECT_THAT(report.at("locks"), IsEmpty());
  EXPECT_THAT(report.at("otherLocks"), IsEmpty());
}

TEST_F(contention, theEndOfABlockOfAnEarlierSessionCountsAsNotSeen) {
  begin();
  enter(thread, lock);
  recorder->end();
  begin();
  block(other, vm.makeObject("com.example.Another"), 10);
  entered(thread);
  EXPECT_EQ(startsNotSeen(), 1U);
  EXPECT_EQ(allEntries(), 1U);
}

TEST_F(contention, theEndOfABlockWithoutASlotOfAnEarlierSessionCountsAsNotSeen) {
  begin();
  useUpSlots();
  enter(thread, lock);
  pass(kMilli);
  recorder->end();
  begin();
  pass(kMilli);
  entered(thread);
  EXPECT_EQ(startsNotSeen(), 1U);
  EXPECT_EQ(allEntries(), 0U);
}

TEST_F(contention, anAcquisitionDoesNotGoOnInTheNextSession) {
  begin();
  acquire(thread);
  parkFor(3'000, fair);
  recorder->end();
  begin();
  parkFor(70'000, fair);
  const blockTotals totals = totalsOf(fair, channel::park);
  EXPECT_EQ(totals.entries, 1U);
  EXPECT_EQ(totals.maxNanos, 70'000U);
  EXPECT_EQ(bucketsOf(totals), (std::map<std::size_t, std::uint64_t>{{7, 1}}));
}

TEST_F(contention, threadsAreNotHeldWhenAllBlocksAreDropped) {
  begin();
  const std::size_t before = vm.globalReferences();
  enter(thread, lock);
  wait(other, lock);
  EXPECT_EQ(vm.globalReferences(), before + 2);
  vm.native([&](JNIEnv* jni) { recorder->threads().dropAll(jni); });
  EXPECT_EQ(vm.globalReferences(), before);
}

// --- Sums.

TEST(blockCountsTest, sumsTakeTheEarliestStartAndTheLatestEnd) {
  const auto counts = std::make_unique<blockCounts>();
  counts->add(50, 60, false, 0);
  blockTotals moved;
  moved.entries = 2;
  moved.first = 10;
  moved.last = 55;
  moved.maxNanos = 30;
  counts->add(moved);
  EXPECT_EQ(counts->read().first, 10);
  EXPECT_EQ(counts->read().last, 60);
  EXPECT_EQ(counts->read().maxNanos, 30U);
  EXPECT_EQ(counts->entries(), 3U);
  counts->add(blockTotals{});
  EXPECT_EQ(counts->read().first, 10) << "a lock without a block has no first one";
}

}  // namespace
