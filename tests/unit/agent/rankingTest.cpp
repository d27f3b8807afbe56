// The ranking of locks at the start of a detail session, and the reset of their counters.
#include <cstdint>
#include <vector>

#include "lockTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class ranking : public lockTest {
 protected:
  // A summary in which locks of the classes "A", "B", ... were blocked for `times`.
  void summaryWith(const std::vector<jlong>& times, jint topLocks) {
    load("logLevel=4");
    beginSummary({.topLocks = topLocks});
    for (const jlong time : times) {
      const std::string type(1, static_cast<char>('A' + all.size()));
      all.push_back(vm.makeObject(type));
      contend(vm.makeThread("t"), all.back(), time);
    }
  }
  // The class of a lock's name: "A" of "A@17".
  static std::string classOf(const std::string& lockName) {
    return lockName.substr(0, lockName.find('@'));
  }
  // Takes what the ranking handed over, in its order.
  static std::vector<std::string> takeNames(std::vector<std::int64_t>* times = nullptr) {
    std::vector<std::string> names;
    for (auto queue = takeRanked(); !queue.empty(); queue.pop()) {
      names.push_back(classOf(queue.top().lockName));
      if (times != nullptr) {
        times->push_back(queue.top().blockTime);
      }
    }
    return names;
  }
  std::vector<std::string> selected() {
    std::vector<std::string> names;
    for (fake::object* const each : all) {
      if (isSelected(each)) {
        names.push_back(each->type->name);
      }
    }
    return names;
  }

  std::vector<fake::object*> all;
};

TEST_F(ranking, longestBlockedAreTakenAndComeOutShortestFirst) {
  summaryWith({5, 1, 4, 4, 2}, 3);
  startDetail();
  EXPECT_THAT(selected(), ElementsAre("A", "C", "D"));
  std::vector<std::int64_t> times;
  EXPECT_THAT(takeNames(&times), UnorderedElementsAre("A", "C", "D"));
  EXPECT_THAT(times, ElementsAre(4, 4, 5));
}

TEST_F(ranking, amongEqualTimesAtTheCutTheFirstByNameStay) {
  summaryWith({4, 4, 4, 4}, 2);
  startDetail();
  EXPECT_THAT(selected(), ElementsAre("A", "B"));
}

TEST_F(ranking, longerBlockedLockDisplacesTheShortestKept) {
  summaryWith({1, 2, 3, 4, 5}, 2);
  startDetail();
  EXPECT_THAT(selected(), ElementsAre("D", "E"));
}

TEST_F(ranking, moreThanThereAreTakesAll) {
  summaryWith({3, 0, 2}, 100);
  startDetail();
  EXPECT_THAT(selected(), ElementsAre("A", "B", "C"));
  EXPECT_THAT(takeNames(), ElementsAre("B", "C", "A"));
}

TEST_F(ranking, negativeCountTakesAll) {
  summaryWith({3, 1, 2}, -1);
  startDetail();
  EXPECT_THAT(takeNames(), ElementsAre("B", "C", "A"));
}

TEST_F(ranking, countOf0TakesNoneAndStillResets) {
  summaryWith({3, 1}, 0);
  startDetail();
  EXPECT_THAT(selected(), IsEmpty());
  EXPECT_THAT(takeNames(), IsEmpty());
  EXPECT_EQ(lockBeanOf(all[0])->count, 0U);
  EXPECT_EQ(lockBeanOf(all[0])->totalBlockTime, 0U);
}

TEST_F(ranking, countOf1TakesTheLongestBlocked) {
  summaryWith({3, 9, 1, 9}, 1);
  startDetail();
  EXPECT_THAT(selected(), ElementsAre("B"));
}

TEST_F(ranking, blockTimesAreComparedAsSignedNumbers) {
  summaryWith({3, 1}, 1);
  lockBeanOf(all[0])->totalBlockTime = std::uint64_t{1} << 63U;  // the lowest, read as signed
  startDetail();
  EXPECT_THAT(selected(), ElementsAre("B"));
}

TEST_F(ranking, noLockIsSaidAndChangesNothing) {
  load("logLevel=1");
  beginSummary();
  startDetail();
  EXPECT_THAT(errors(), ElementsAre("No lock object found"));
  EXPECT_EQ(log().back().function, "mutexLockProfiler::sortData");
  EXPECT_THAT(takeNames(), IsEmpty());
  EXPECT_EQ(locks()->state(), 4);
}

TEST_F(ranking, noLockIsNotSaidAtLevel0) {
  load("logLevel=0");
  beginSummary();
  startDetail();
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ranking, detailSessionBeforeAnyProfilingSessionFindsNoLock) {
  load("logLevel=1");
  startDetail();
  EXPECT_THAT(errors(), ElementsAre("No lock object found"));
  EXPECT_EQ(locks()->state(), 4);
}

TEST_F(ranking, sizeAndResetAreSaidAtDebug) {
  summaryWith({1, 2}, 1);
  startDetail();
  EXPECT_THAT(debugLines(), Contains("In sort data size of Lock Map is :2"));
  EXPECT_THAT(debugLines(), Contains("Going to reset count"));
  for (const logRecord& each : log()) {
    if (each.message == "Going to reset count") {
      EXPECT_EQ(each.function, "mutexLockProfiler::sortData");
    }
  }
}

TEST_F(ranking, nothingIsSaidAtTrace) {
  load("logLevel=3");
  beginDetail({vm.makeObject("A")});
  EXPECT_THAT(debugLines(), IsEmpty());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(ranking, profilerThatIsNotRegisteredSaysSo) {
  load("logLevel=1,features=memoryprofiling");
  agent::mutexLockProfiler loose;
  loose.sortData();
  EXPECT_THAT(errors(), ElementsAre("Unable to get mutex profiler"));
  EXPECT_EQ(log().back().function, "mutexLockProfiler::sortData");
}

TEST_F(ranking, profilerThatIsNotRegisteredIsSilentAtLevel0) {
  load("logLevel=0,features=memoryprofiling");
  agent::mutexLockProfiler loose;
  loose.sortData();
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ranking, countAndBlockTimeOfEveryLockAreReset) {
  summaryWith({3, 1}, 1);
  startDetail();
  for (fake::object* const each : all) {
    EXPECT_EQ(lockBeanOf(each)->count, 0U);
    EXPECT_EQ(lockBeanOf(each)->totalBlockTime, 0U);
  }
}

TEST_F(ranking, waitTimeGraphAndThreadsStay) {
  summaryWith({3}, 1);
  startDetail();
  fake::javaThread* const thread = vm.makeThread("one");
  contend(thread, all[0], 5);
  wait(thread, all[0], 7);
  startDetail();
  EXPECT_EQ(lockBeanOf(all[0])->totalWaitTime, 7U);
  EXPECT_EQ(minuteOf(all[0], 0), 1U);
  ASSERT_NE(threadOf(all[0], "one"), nullptr);
  EXPECT_EQ(threadOf(all[0], "one")->count, 1U);
  EXPECT_EQ(threadOf(all[0], "one")->totalBlockTime, 5U);
  EXPECT_EQ(lockBeanOf(all[0])->count, 0U);
}

TEST_F(ranking, secondRankingRanksWhatTheFirstDetailSessionGathered) {
  summaryWith({9, 1}, 1);
  startDetail();
  takeRanked();
  contend(vm.makeThread("t"), all[1], 5);
  startDetail();
  EXPECT_THAT(takeNames(), ElementsAre("B"));
}

TEST_F(ranking, secondRankingWithoutAReportAddsToTheFirst) {
  summaryWith({9, 1}, -1);
  startDetail();
  contend(vm.makeThread("t"), all[0], 5);
  startDetail();
  std::vector<std::int64_t> times;
  EXPECT_THAT(takeNames(&times), UnorderedElementsAre("A", "B", "A", "B"));
  EXPECT_THAT(times, ElementsAre(0, 1, 5, 9));
}

TEST_F(ranking, lockSelectedBeforeStaysInTheTableOfSelectedLocks) {
  summaryWith({9, 1}, 1);
  startDetail();
  contend(vm.makeThread("t"), all[1], 5);
  startDetail();
  EXPECT_THAT(selected(), ElementsAre("A", "B"));
}

TEST_F(ranking, lockThatOnlyTheSecondRankingSelectsGetsItsOwners) {
  summaryWith({9, 1}, 1);
  fake::javaThread* const thread = vm.makeThread("t");
  fake::javaThread* const owner = vm.makeThread("owner");
  vm.setOwner(all[1], owner);
  startDetail();
  contend(thread, all[1], 5);
  EXPECT_FALSE(ownerOf(all[1], "owner")) << "not selected yet";
  startDetail();
  contend(thread, all[1], 5);
  ASSERT_TRUE(ownerOf(all[1], "owner"));
  EXPECT_EQ(ownerOf(all[1], "owner")->blockingCount, 1U);
  stopProfiling();
  EXPECT_EQ(report()["blockingThreads"]["owner"]["blockingCount"], 1);
}

TEST_F(ranking, lockSelectedAnewAfterAReportBeginsWithoutOwners) {
  summaryWith({9}, 1);
  fake::javaThread* const thread = vm.makeThread("t");
  vm.setOwner(all[0], vm.makeThread("first"));
  startDetail();
  contend(thread, all[0], 5);
  locks()->dumpJsonObjectFromMapDS(vm.env(), vm.ref(vm.makeString(reportPath())));
  EXPECT_THAT(selected(), IsEmpty());
  vm.setOwner(all[0], vm.makeThread("second"));
  contend(thread, all[0], 5);
  EXPECT_FALSE(ownerOf(all[0], "second")) << "not selected any more";
  startDetail();
  EXPECT_FALSE(ownerOf(all[0], "first"));
  contend(thread, all[0], 5);
  EXPECT_TRUE(ownerOf(all[0], "second"));
}

TEST_F(ranking, orderIsThatOfTheRankingWhateverHappensLater) {
  summaryWith({2, 1}, -1);
  startDetail();
  contend(vm.makeThread("t"), all[1], 100);
  std::vector<std::int64_t> times;
  EXPECT_THAT(takeNames(&times), ElementsAre("B", "A"));
  EXPECT_THAT(times, ElementsAre(1, 2));
}

TEST_F(ranking, everyEventCountsFrom0AfterTheRanking) {
  summaryWith({5}, 1);
  startDetail();
  contend(vm.makeThread("t"), all[0], 2);
  EXPECT_EQ(lockBeanOf(all[0])->count, 1U);
  EXPECT_EQ(lockBeanOf(all[0])->totalBlockTime, 2U);
}

}  // namespace
