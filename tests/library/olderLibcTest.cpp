// What stands in for functions of newer C libraries, by its own ways as well as through their
// names.
#include "portable/olderLibc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>

extern "C" int _dl_find_object_here(void* address, portable::foundObject* found) noexcept
    __asm__("_dl_find_object");

namespace {

constexpr long kMilli = 1'000'000;
constexpr long kNanosInSecond = 1'000'000'000;

timespec after(clockid_t clock, long nanos) {
  timespec time{};
  clock_gettime(clock, &time);
  time.tv_nsec += nanos;
  time.tv_sec += time.tv_nsec / kNanosInSecond;
  time.tv_nsec %= kNanosInSecond;
  return time;
}

bool isPast(clockid_t clock, const timespec& end) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec != end.tv_sec ? now.tv_sec > end.tv_sec : now.tv_nsec >= end.tv_nsec;
}

class olderLibc : public testing::TestWithParam<clockid_t> {
 protected:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

INSTANTIATE_TEST_SUITE_P(clocks, olderLibc, testing::Values(CLOCK_MONOTONIC, CLOCK_REALTIME));

TEST_P(olderLibc, takesAFreeMutexEvenWhenTheTimeIsPast) {
  const timespec past{1, 0};
  EXPECT_EQ(0, portable::clockLockInSteps(&mutex_, GetParam(), &past));
  EXPECT_EQ(EBUSY, pthread_mutex_trylock(&mutex_));
  pthread_mutex_unlock(&mutex_);
}

TEST_P(olderLibc, waitsForAMutexUntilTheTimeIsPastAndNoLess) {
  pthread_mutex_lock(&mutex_);
  std::thread([&] {
    const timespec end = after(GetParam(), 30 * kMilli);
    EXPECT_EQ(ETIMEDOUT, portable::clockLockInSteps(&mutex_, GetParam(), &end));
    EXPECT_TRUE(isPast(GetParam(), end));
  }).join();
  pthread_mutex_unlock(&mutex_);
}

TEST_P(olderLibc, takesAMutexThatIsUnlockedInALaterStep) {
  pthread_mutex_lock(&mutex_);
  std::thread waiter([&] {
    const timespec end = after(GetParam(), 60 * kNanosInSecond);
    EXPECT_EQ(0, portable::clockLockInSteps(&mutex_, GetParam(), &end));
    pthread_mutex_unlock(&mutex_);
  });
  // Longer than one step, which is a second.
  const timespec later = after(CLOCK_MONOTONIC, 1200 * kMilli);
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &later, nullptr);
  pthread_mutex_unlock(&mutex_);
  waiter.join();
}

TEST_P(olderLibc, waitsForAConditionUntilTheTimeIsPast) {
  pthread_mutex_lock(&mutex_);
  const timespec end = after(GetParam(), 1100 * kMilli);
  int result = 0;
  int waits = 0;
  while (result == 0 && waits < 100) {
    result = portable::clockWaitInSteps(&condition_, &mutex_, GetParam(), &end);
    ++waits;
  }
  EXPECT_EQ(ETIMEDOUT, result);
  EXPECT_TRUE(isPast(GetParam(), end));
  EXPECT_LE(2, waits) << "the first ends after a step, as if notified";
  pthread_mutex_unlock(&mutex_);
}

TEST_P(olderLibc, givesTheMutexUpEvenWhenTheTimeIsPast) {
  constexpr int kMany = 1'000'000;
  pthread_mutex_lock(&mutex_);
  std::atomic<bool> wants{false};
  std::atomic<bool> isIn{false};
  std::thread other([&] {
    wants = true;
    pthread_mutex_lock(&mutex_);
    isIn = true;
    pthread_mutex_unlock(&mutex_);
  });
  while (!wants) {
    std::this_thread::yield();
  }
  const timespec past{1, 0};
  for (int i = 0; i < kMany && !isIn; ++i) {
    EXPECT_EQ(ETIMEDOUT, portable::clockWaitInSteps(&condition_, &mutex_, GetParam(), &past));
    std::this_thread::yield();
  }
  EXPECT_TRUE(isIn);
  pthread_mutex_unlock(&mutex_);
  other.join();
}

TEST_P(olderLibc, endsAWaitThatIsNotified) {
  pthread_mutex_lock(&mutex_);
  bool isNotified = false;
  std::thread notifier([&] {
    pthread_mutex_lock(&mutex_);
    isNotified = true;
    pthread_cond_signal(&condition_);
    pthread_mutex_unlock(&mutex_);
  });
  const timespec end = after(GetParam(), 60 * kNanosInSecond);
  while (!isNotified) {
    ASSERT_EQ(0, portable::clockWaitInSteps(&condition_, &mutex_, GetParam(), &end));
  }
  pthread_mutex_unlock(&mutex_);
  notifier.join();
}

TEST(olderLibcNames, waitOfTheCppLibraryEndsInTime) {
  std::timed_mutex mutex;
  const std::scoped_lock lock(mutex);
  std::thread([&] { EXPECT_FALSE(mutex.try_lock_for(std::chrono::milliseconds(20))); }).join();
  std::mutex other;
  std::condition_variable condition;
  std::unique_lock held(other);
  EXPECT_FALSE(condition.wait_for(held, std::chrono::milliseconds(20), [] { return false; }));
}

TEST(olderLibcNames, randomNumbersDiffer) {
  std::random_device device;
  std::set<unsigned> numbers;
  for (int i = 0; i < 16; ++i) {
    numbers.insert(device());
  }
  EXPECT_LE(15u, numbers.size());
}

TEST(olderLibcNames, randomNumbersComeFromTheDeviceToo) {
  std::set<std::uint32_t> numbers;
  for (int i = 0; i < 16; ++i) {
    std::uint32_t number = 0;
    ASSERT_TRUE(portable::readRandomDevice(&number, sizeof number));
    numbers.insert(number);
  }
  EXPECT_LE(15u, numbers.size());
}

TEST(olderLibcFrames, findsTheObjectOfAnAddressAsTheSystemDoes) {
  portable::foundObject walked{};
  portable::foundObject named{};
  for (void* address : {reinterpret_cast<void*>(&isPast), reinterpret_cast<void*>(&::dlsym)}) {
    ASSERT_EQ(0, portable::findObjectByWalk(address, &walked));
    ASSERT_EQ(0, _dl_find_object_here(address, &named));
    EXPECT_EQ(named.frames, walked.frames);
    EXPECT_LE(walked.begin, address);
    EXPECT_LT(address, walked.end);
  }
}

TEST(olderLibcFrames, findsNothingForAnAddressOfNoObject) {
  portable::foundObject found{};
  EXPECT_EQ(-1, portable::findObjectByWalk(nullptr, &found));
  EXPECT_EQ(-1, portable::findObjectByWalk(&found, &found));
  EXPECT_EQ(-1, _dl_find_object_here(&found, &found));
}

TEST(olderLibcFrames, exceptionsAreCaught) {
  EXPECT_THROW(throw std::runtime_error("thrown"), std::runtime_error);
}

}  // namespace
