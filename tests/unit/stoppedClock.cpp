#include "stoppedClock.h"

#include <dlfcn.h>
#include <time.h>

namespace test {

namespace {

constexpr std::int64_t kNanosPerSecond = 1'000'000'000;

bool isStopped = false;
std::int64_t steady = 0;
std::int64_t processor = 0;

int systemClock(clockid_t clock, timespec* time) {
  static const auto original =
      reinterpret_cast<decltype(&::clock_gettime)>(::dlsym(RTLD_NEXT, "clock_gettime"));
  return original(clock, time);
}

timespec timeOf(std::int64_t nanos) {
  timespec time{};
  time.tv_sec = nanos / kNanosPerSecond;
  time.tv_nsec = nanos % kNanosPerSecond;
  return time;
}

}  // namespace

stoppedClock::stoppedClock() {
  timespec time{};
  systemClock(CLOCK_MONOTONIC, &time);
  steady = time.tv_sec * kNanosPerSecond + time.tv_nsec;
  processor = 0;
  isStopped = true;
}

stoppedClock::~stoppedClock() {
  isStopped = false;
}

std::int64_t stoppedClock::now() {
  return steady;
}
void stoppedClock::advance(std::int64_t nanos) {
  steady += nanos;
}
void stoppedClock::useProcessor(std::int64_t nanos) {
  processor += nanos;
}

}  // namespace test

// Stands before the C library's.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const bool isSteady = clock == CLOCK_MONOTONIC;
  if (test::isStopped && (isSteady || clock == CLOCK_THREAD_CPUTIME_ID)) {
    *time = test::timeOf(isSteady ? test::steady : test::processor);
    return 0;
  }
  return test::systemClock(clock, time);
}
