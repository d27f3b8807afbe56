// Which of the exceptions that are thrown get a record: one for each object, and a rate that is
// spread over the minute.
#include <com_korvane_twutils_nativeagent_AgentExceptions.h>

#include "exceptionTest.h"
#include "exceptions/exceptionCounts.h"
#include "exceptions/rateSpread.h"
#include "exceptions/recordedObjects.h"
#include "exceptions/siteCounts.h"

namespace {

using namespace test;
using agent::exceptionCount;
using agent::rateSpread;
using agent::siteRow;
using ::testing::SizeIs;

class exceptionChoice : public exceptionTest {
 protected:
  void raise(fake::object* thrown) {
    thread()->setFrames({frame_});
    vm.exception(thread(), frame_.code, frame_.location, thrown);
  }
  static std::uint64_t count(exceptionCount which) {
    return agent::exceptionCounts::ofProcess().get(which);
  }
  void oneRecordEach(bool isOn) {
    vm.native([&](JNIEnv* jni) {
      Java_com_korvane_twutils_nativeagent_AgentExceptions_oneRecordEach(
          jni, nullptr, isOn ? JNI_TRUE : JNI_FALSE);
    });
  }
  void spreadRate() {
    vm.native([&](JNIEnv* jni) {
      Java_com_korvane_twutils_nativeagent_AgentExceptions_spreadRate(jni, nullptr, JNI_TRUE);
    });
  }

 private:
  fake::frame frame_ = frameOf("a.A.m");
};

// --- Thrown again.

TEST_F(exceptionChoice, eachThrowHasARecordUnlessAskedOtherwise) {
  begin();
  fake::object* const thrown = vm.makeObject(kFailure);
  raise(thrown);
  raise(thrown);
  EXPECT_THAT(deliveries(), SizeIs(2));
  EXPECT_EQ(count(exceptionCount::rethrown), 0U);
}

TEST_F(exceptionChoice, oneRecordForAnObjectThatIsThrownAgain) {
  begin({.rate = 2});
  oneRecordEach(true);
  fake::object* const thrown = vm.makeObject(kFailure);
  for (int i = 0; i < 5; ++i) {
    raise(thrown);
  }
  EXPECT_THAT(deliveries(), SizeIs(1));
  EXPECT_EQ(count(exceptionCount::seen), 5U);
  EXPECT_EQ(count(exceptionCount::rethrown), 4U);
  raise(vm.makeObject(kFailure));
  EXPECT_THAT(deliveries(), SizeIs(2)) << "what is thrown again takes nothing of the rate";
  const auto totals = agent::siteCounts::ofProcess().all().sites.at(0).second->read();
  EXPECT_EQ(totals[static_cast<std::size_t>(agent::siteCount::rethrown)], 4U);
  EXPECT_EQ(totals[static_cast<std::size_t>(agent::siteCount::recorded)], 2U);
}

TEST_F(exceptionChoice, objectsOfOneHashCodeAreToldApart) {
  begin();
  oneRecordEach(true);
  fake::object* const one = vm.makeObject(kFailure);
  fake::object* const two = vm.makeObject(kFailure);
  two->hash = one->hash.load();
  raise(one);
  raise(two);
  raise(one);
  EXPECT_THAT(deliveries(), SizeIs(2));
  EXPECT_EQ(count(exceptionCount::rethrown), 1U);
}

TEST_F(exceptionChoice, anObjectWithoutARecordIsNotThrownAgain) {
  begin({.rate = 1});
  oneRecordEach(true);
  raise(vm.makeObject(kFailure));
  fake::object* const late = vm.makeObject(kFailure);
  raise(late);
  raise(late);
  EXPECT_EQ(count(exceptionCount::overRate), 2U);
  EXPECT_EQ(count(exceptionCount::rethrown), 0U);
}

TEST_F(exceptionChoice, soManyObjectsAreRemembered) {
  begin();
  oneRecordEach(true);
  constexpr std::size_t kMost = agent::recordedObjects::kSets * agent::recordedObjects::kWays;
  std::vector<fake::object*> all;
  for (std::size_t i = 0; i < 3 * kMost; ++i) {
    all.push_back(vm.makeObject(kFailure));
    raise(all.back());
  }
  EXPECT_LE(vm.weakReferences(), kMost + 10) << "those of classes included";
  const std::size_t before = deliveries().size();
  for (fake::object* const each : all) {
    raise(each);
  }
  EXPECT_GE(deliveries().size() - before, 2 * kMost) << "the others have a record once more";
  oneRecordEach(false);
  EXPECT_LE(vm.weakReferences(), 10U);
  raise(all.back());
  EXPECT_LE(vm.weakReferences(), 10U);
}

TEST_F(exceptionChoice, anObjectThatTheVmGivesNoReferenceToHasARecordEachTime) {
  begin();
  oneRecordEach(true);
  fake::object* const thrown = vm.makeObject(kFailure);
  raise(vm.makeObject(kFailure));  // the classes are known from here on
  vm.fail("NewWeakGlobalRef", {.throwing = true});
  raise(thrown);
  EXPECT_EQ(vm.pendingException(), nullptr);
  vm.succeed("NewWeakGlobalRef");
  raise(thrown);
  raise(thrown);
  EXPECT_THAT(deliveries(), SizeIs(3));
}

// --- The rate.

class spreadRates : public ::testing::Test {
 protected:
  // How many of so many throws at the site are within the rate of 10.
  int taken(siteRow& site, std::int64_t now, int throws = 100) {
    int count = 0;
    for (int i = 0; i < throws; ++i) {
      count += spread.take("a.E", 10, &site, now);
    }
    return count;
  }
  rateSpread spread;
  siteRow first;
  siteRow second;
  siteRow third;
};

TEST_F(spreadRates, aBurstLeavesRecordsForLaterSites) {
  const int burst = taken(first, 1'000);
  EXPECT_EQ(burst, 5);
  EXPECT_EQ(taken(second, 1'001), 1) << "a site without a record has one at once";
  EXPECT_EQ(taken(third, 1'002), 1);
  EXPECT_EQ(taken(first, 1'010), 0) << "they have taken what came back";
  int later = 0;
  for (std::int64_t now = 1'011; now < 1'060; ++now) {
    later += taken(second, now);
  }
  EXPECT_EQ(later, 3);
}

TEST_F(spreadRates, theRestComesBackEvenly) {
  std::vector<std::int64_t> times;
  for (std::int64_t now = 1'000; now < 1'060; ++now) {
    for (int i = taken(first, now); i > 0; --i) {
      times.push_back(now - 1'000);
    }
  }
  EXPECT_THAT(times, testing::ElementsAre(0, 0, 0, 0, 0, 6, 18, 30, 42, 54));
  EXPECT_EQ(taken(first, 1'060), 5) << "the next minute";
}

TEST_F(spreadRates, noMoreThanTheRateWhateverTheSites) {
  std::vector<siteRow> sites(50);
  int count = 0;
  for (siteRow& each : sites) {
    count += taken(each, 1'000, 1);
  }
  EXPECT_EQ(count, 10);
}

TEST_F(spreadRates, smallOnesAndNone) {
  EXPECT_TRUE(spread.take("a.One", 1, &first, 1'000));
  EXPECT_FALSE(spread.take("a.One", 1, &second, 1'059));
  EXPECT_TRUE(spread.take("a.One", 1, &second, 1'060));
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(spread.take("a.Any", 0, nullptr, 1'000));
  }
}

TEST_F(spreadRates, classesBeyondTheBoundShareOne) {
  for (std::size_t i = 0; i < rateSpread::kClasses; ++i) {
    EXPECT_TRUE(spread.take(std::to_string(i), 2, nullptr, 1'000));
  }
  EXPECT_TRUE(spread.take("a.One", 2, nullptr, 1'001));
  EXPECT_FALSE(spread.take("a.Two", 2, nullptr, 1'001));
  EXPECT_TRUE(spread.take("a.Two", 2, nullptr, 1'061)) << "the minute of the others is over";
}

TEST_F(exceptionChoice, aSpreadRateHoldsForRecords) {
  begin({.rate = 10});
  spreadRate();
  for (int i = 0; i < 20; ++i) {
    raise(vm.makeObject(kFailure));
  }
  EXPECT_THAT(deliveries(), SizeIs(5));
  EXPECT_EQ(count(exceptionCount::overRate), 15U);
}

}  // namespace
