// Samples by site: what is alive of them, how old it is, its course, and what there is no room for.
#include "allocations/survivingSamples.h"

#include <cmath>
#include <numeric>
#include <random>

#include "../stoppedClock.h"
#include "agentTest.h"
#include "allocations/allocationRecorder.h"

namespace {

using namespace test;
using agent::amounts;
using agent::collectionRounds;
using agent::siteState;
using agent::survivingSamples;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::int64_t kSecond = 1'000'000'000;

class survivingSamplesTest : public fake::vmTest {
 protected:
  void SetUp() override { begin(1000); }
  void TearDown() override {
    vm.native([&](JNIEnv* jni) {
      samples.drop(jni);
      rounds.end(jni);
      samples.begin(0, 0);
    });
    clock_.reset();
    vmTest::TearDown();
  }

  void begin(std::size_t limit) {
    vm.native([&](JNIEnv* jni) {
      samples.drop(jni);
      rounds.begin(jni);
      samples.begin(limit, stoppedClock::now());
    });
  }
  // An object of 16 bytes that stands for itself, when its site has no stack.
  fake::object* add(std::uint32_t cls, std::uint32_t thread = 0, std::int64_t size = 16,
                    std::int64_t interval = 0) {
    fake::object* const made = vm.makeObject("com.example.Session");
    made->reachable = false;
    vm.native([&](JNIEnv* jni) {
      const heldLocal object{jni, vm.ref(made)};
      agent::sampleQueue::entry taken{};
      taken.sample = {jni->NewWeakGlobalRef(object.reference),
                      stoppedClock::now(),
                      size,
                      interval,
                      cls,
                      thread};
      samples.add(vm.jvmti(), jni, taken, rounds);
    });
    return made;
  }
  // One that stays.
  fake::object* keep(std::uint32_t cls, std::uint32_t thread = 0) {
    fake::object* const made = add(cls, thread);
    made->reachable = true;
    return made;
  }
  // A collection that counts for all that there is.
  void collect() {
    stoppedClock::advance(1);
    vm.native([&](JNIEnv* jni) {
      rounds.renew(jni);
      samples.renewed(rounds);
    });
    collectOnly();
  }
  void collectOnly() {
    vm.collectGarbage();
    rounds.collectionFinished();
    vm.native([&](JNIEnv* jni) {
      rounds.look(jni);
      samples.removeDead(jni);
    });
  }
  void mark(std::int64_t later) {
    stoppedClock::advance(later);
    samples.markPoint(rounds, stoppedClock::now());
  }
  siteState state(std::uint32_t cls) {
    const std::vector<siteState> all = samples.states(rounds, stoppedClock::now());
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (samples.sites()[i].key.cls == cls) {
        return all[i];
      }
    }
    return {};
  }
  std::vector<double> courseOf(std::uint32_t cls, std::size_t& from) {
    for (const survivingSamples::site& each : samples.sites()) {
      if (each.key.cls == cls) {
        from = each.courseFrom;
        return each.course;
      }
    }
    return {};
  }

  struct heldLocal {
    JNIEnv* jni;
    jobject reference;
    ~heldLocal() { jni->DeleteLocalRef(reference); }
  };

  collectionRounds rounds;
  survivingSamples samples;

 private:
  std::unique_ptr<stoppedClock> clock_ = std::make_unique<stoppedClock>();
};

// --- Age.

TEST_F(survivingSamplesTest, whatNoRoundHasSeenIsYoung) {
  keep(1);
  EXPECT_EQ(state(1).young.samples, 1U);
  EXPECT_EQ(state(1).alive.samples, 0U);
  EXPECT_THAT(state(1).ages, IsEmpty());
  stoppedClock::advance(1);
  collectOnly();
  EXPECT_EQ(state(1).young.samples, 1U) << "allocated after the canary";
  stoppedClock::advance(1);
  collectOnly();
  EXPECT_EQ(state(1).young.samples, 0U);
  EXPECT_EQ(state(1).alive.samples, 1U);
}

TEST_F(survivingSamplesTest, agesAreCountedByPowersOfTwo) {
  for (int i = 0; i < 8; ++i) {
    keep(1);
    collect();
  }
  // Ages 8, 7, ... 1.
  EXPECT_THAT(state(1).ages, ElementsAre(1, 2, 4, 1));
}

TEST_F(survivingSamplesTest, secondsAreCountedByPowersOfTwo) {
  for (const int seconds : {5, 3, 1, 0}) {
    keep(1);
    stoppedClock::advance(seconds * kSecond);
  }
  collect();
  // Ages 9, 4, 1 and 0 seconds.
  EXPECT_THAT(state(1).seconds, ElementsAre(2, 0, 1, 1));
}

TEST_F(survivingSamplesTest, whatIsAliveHasTheEighthInWhichItWasBorn) {
  stoppedClock::advance(kSecond);
  keep(1);
  stoppedClock::advance(6 * kSecond);
  keep(1);
  keep(1);
  stoppedClock::advance(kSecond);
  collect();
  const std::array<double, 8> born = state(1).born;
  EXPECT_EQ(std::accumulate(born.begin(), born.end(), 0.0), 48.0);
  EXPECT_EQ(born[0], 16.0) << "the session lasts a bit longer than eight seconds";
  EXPECT_EQ(born[6], 32.0);
}

TEST_F(survivingSamplesTest, theDeadAreInWhatWasAllocatedOnly) {
  add(1);
  keep(1);
  collect();
  EXPECT_EQ(samples.live(), 1U);
  EXPECT_EQ(state(1).alive.samples, 1U);
  EXPECT_EQ(samples.sites().at(1).allocated.samples, 2U);
  EXPECT_EQ(samples.sites().at(1).allocated.bytes, 32.0);
}

TEST_F(survivingSamplesTest, whatIsAliveHasItsThreads) {
  keep(1, 7);
  keep(1, 7);
  keep(1, 9);
  add(1, 9);
  collect();
  EXPECT_EQ(state(1).threads, (std::map<std::uint32_t, std::uint64_t>{{7, 2}, {9, 1}}));
}

TEST_F(survivingSamplesTest, whatTheHooksLeaveIsWhatHasOutlivedARoundSinceThen) {
  fake::object* const cleared = keep(1);
  keep(1);
  collect();
  stoppedClock::advance(1);
  const std::int64_t shutdown = stoppedClock::now();
  const std::uint32_t before = rounds.ended();
  EXPECT_EQ(samples.aliveSince(shutdown, before, rounds).at(1).samples, 0U) << "nobody looked";
  keep(1);
  cleared->reachable = false;
  collect();
  EXPECT_EQ(samples.aliveSince(shutdown, before, rounds).at(1).samples, 1U);
}

// One whose first round has not ended yet may be dead.
TEST_F(survivingSamplesTest, whatWasYoungBeforeTheHooksIsNotLeftForSure) {
  stoppedClock::advance(1);
  keep(1);
  stoppedClock::advance(1);
  const std::int64_t shutdown = stoppedClock::now();
  collectOnly();
  EXPECT_EQ(rounds.ended(), 1U);
  EXPECT_EQ(samples.aliveSince(shutdown, 0, rounds).at(1).samples, 0U);
  stoppedClock::advance(1);
  collectOnly();
  EXPECT_EQ(samples.aliveSince(shutdown, 0, rounds).at(1).samples, 1U);
}

// --- Course.

TEST_F(survivingSamplesTest, theCourseBeginsWhereSomethingIsAlive) {
  mark(kSecond);
  keep(1);
  mark(kSecond);
  collect();
  mark(kSecond);
  keep(1);
  collect();
  mark(kSecond);
  std::size_t from = 0;
  EXPECT_THAT(courseOf(1, from), ElementsAre(16.0, 32.0));
  EXPECT_EQ(from, 2U);
  ASSERT_THAT(samples.points(), SizeIs(4));
  EXPECT_EQ(samples.points().at(3).alive, 32.0);
  EXPECT_EQ(samples.points().at(3).collections, 2U);
  EXPECT_EQ(samples.points().at(3).at, stoppedClock::now());
  EXPECT_EQ(samples.nextPoint(), stoppedClock::now() + kSecond);
}

TEST_F(survivingSamplesTest, whatHasGoneIsInTheCourseAsNothing) {
  fake::object* const leaving = keep(1);
  collect();
  mark(kSecond);
  leaving->reachable = false;
  collect();
  mark(kSecond);
  std::size_t from = 0;
  EXPECT_THAT(courseOf(1, from), ElementsAre(16.0, 0.0));
}

// The course of a site that began at any point stays with the points when these are thinned.
TEST_F(survivingSamplesTest, pointsGetRarerAndCoursesStayWithThem) {
  std::map<std::int64_t, std::map<std::uint32_t, double>> expected;  // by time, by site
  std::uint32_t next = 1;
  for (std::size_t i = 0; i < 5 * survivingSamples::kMostPoints; ++i) {
    if (i % 7 == 0) {
      keep(next++);
      collect();
    }
    mark(kSecond);
    for (std::uint32_t cls = 1; cls < next; ++cls) {
      expected[stoppedClock::now()][cls] = 16.0;
    }
    ASSERT_LE(samples.points().size(), survivingSamples::kMostPoints);
  }
  EXPECT_GE(samples.points().size(), survivingSamples::kMostPoints / 2);
  EXPECT_GT(samples.nextPoint(), stoppedClock::now());
  EXPECT_LE(samples.nextPoint(), stoppedClock::now() + 8 * kSecond);
  for (std::uint32_t cls = 1; cls < next; ++cls) {
    std::size_t from = 0;
    const std::vector<double> course = courseOf(cls, from);
    ASSERT_EQ(from + course.size(), samples.points().size()) << "of " << cls;
    for (std::size_t i = 0; i < samples.points().size(); ++i) {
      const auto& alive = expected.at(samples.points()[i].at);
      const double value = i < from ? 0 : course[i - from];
      ASSERT_EQ(value, alive.contains(cls) ? alive.at(cls) : 0.0) << cls << " at " << i;
    }
  }
}

// Snapshots that come all the time take no room from the points of the whole session.
TEST_F(survivingSamplesTest, aPointThatIsEarlyStaysUntilTheNextOne) {
  keep(1);
  collect();
  for (int i = 0; i < 1000; ++i) {
    mark(kSecond / 100);
  }
  ASSERT_THAT(samples.points(), SizeIs(10));
  EXPECT_EQ(samples.points().at(9).at, stoppedClock::now());
  EXPECT_EQ(samples.points().at(1).at - samples.points().at(0).at, kSecond);
  std::size_t from = 0;
  EXPECT_THAT(courseOf(1, from), SizeIs(10));
  EXPECT_EQ(from, 0U);
}

TEST_F(survivingSamplesTest, theCourseOfASiteThatBeganEarlyStaysWithItsPoints) {
  mark(kSecond);
  mark(kSecond / 4);
  keep(1);
  collect();
  mark(kSecond / 4);
  keep(2);
  collect();
  mark(kSecond);
  ASSERT_THAT(samples.points(), SizeIs(2));
  for (const std::uint32_t cls : {1U, 2U}) {
    std::size_t from = 0;
    EXPECT_THAT(courseOf(cls, from), ElementsAre(16.0));
    EXPECT_EQ(from, 1U);
  }
}

// --- Room.

TEST_F(survivingSamplesTest, thinningKeepsTheSums) {
  begin(1000);
  for (int i = 0; i < 4000; ++i) {
    keep(1);
  }
  EXPECT_TRUE(samples.isOver());
  vm.native([&](JNIEnv* jni) { samples.thinOut(jni); });
  EXPECT_EQ(samples.thinned(), 1U);
  const auto left = static_cast<double>(samples.live());
  EXPECT_NEAR(left, 2000, 160) << "five standard deviations";
  collect();
  EXPECT_EQ(state(1).alive.bytes, left * 32);
  EXPECT_EQ(state(1).alive.objects, left * 2);
  EXPECT_EQ(samples.sites().at(1).allocated.samples, 4000U);
  EXPECT_EQ(vm.weakReferences(), samples.live() + 1) << "and the canary";
}

TEST_F(survivingSamplesTest, sitesWithoutRoomAreOne) {
  begin(50'000);
  for (std::uint32_t i = 1; i <= survivingSamples::kMostSites + 5; ++i) {
    keep(i);
  }
  keep(1);
  EXPECT_THAT(samples.sites(), SizeIs(survivingSamples::kMostSites + 1));
  EXPECT_EQ(samples.sites().at(0).allocated.samples, 5U);
  EXPECT_EQ(samples.sites().at(1).allocated.samples, 2U);
  EXPECT_GE(samples.droppedSites(), 5U);
}

TEST_F(survivingSamplesTest, beginsAnew) {
  keep(1);
  collect();
  mark(kSecond);
  begin(1000);
  EXPECT_EQ(samples.live(), 0U);
  EXPECT_THAT(samples.sites(), SizeIs(1));
  EXPECT_THAT(samples.points(), IsEmpty());
  EXPECT_EQ(vm.weakReferences(), 1U);
}

// --- Estimates.

TEST(estimatedBytes, areTheInverseOfTheChanceToBeSampled) {
  EXPECT_DOUBLE_EQ(agent::estimatedBytes(1024, 1024), 1024 / (1 - std::exp(-1)));
  EXPECT_NEAR(agent::estimatedBytes(16, 512 * 1024), 512 * 1024 + 8, 0.01);
  EXPECT_DOUBLE_EQ(agent::estimatedBytes(1 << 30, 1024), 1 << 30);
  EXPECT_DOUBLE_EQ(agent::estimatedBytes(100, 0), 100);
  EXPECT_DOUBLE_EQ(agent::estimatedBytes(0, 1024), 0);
}

// A program that allocates objects of one size, of whose bytes one in `interval` starts a sample.
TEST(estimatedBytes, addUpToWhatWasAllocated) {
  std::mt19937_64 random{42};
  constexpr std::int64_t kInterval = 4096;
  std::exponential_distribution<double> gap{1.0 / kInterval};
  for (const std::int64_t size : {16, 400, 4096, 20'000}) {
    double next = gap(random);
    double estimate = 0;
    int samples = 0;
    constexpr double kAll = 40e6;
    for (double begin = 0; begin < kAll; begin += static_cast<double>(size)) {
      const double end = begin + static_cast<double>(size);
      if (next < end) {
        estimate += agent::estimatedBytes(size, kInterval);
        ++samples;
        next = end + gap(random);
      }
    }
    EXPECT_NEAR(estimate, kAll, 5 * kAll / std::sqrt(samples)) << size;
    EXPECT_GT(samples, 1000);
  }
}

}  // namespace
