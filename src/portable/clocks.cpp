// Waits on a clock of the caller's choice, which glibc has from 2.30 on.
#include <cerrno>

#include "portable/olderLibc.h"

namespace portable {

namespace {

constexpr long kNanosInSecond = 1'000'000'000;

constinit clockLock* newerLock = nullptr;
constinit clockWait* newerWait = nullptr;

__attribute__((constructor)) void lookUp() {
  newerLock = newerFunction<clockLock>("pthread_mutex_clocklock");
  newerWait = newerFunction<clockWait>("pthread_cond_clockwait");
}

bool isBefore(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// The time of day until which to wait now; false when `end` of `clock` is past.
bool nextStep(clockid_t clock, const timespec& end, timespec& step) {
  timespec now{};
  if (::clock_gettime(clock, &now) != 0 || ::clock_gettime(CLOCK_REALTIME, &step) != 0 ||
      !isBefore(now, end)) {
    return false;
  }
  const timespec inOneSecond{now.tv_sec + 1, now.tv_nsec};
  if (!isBefore(end, inOneSecond)) {
    ++step.tv_sec;
    return true;
  }
  step.tv_nsec += end.tv_nsec - now.tv_nsec + (end.tv_sec - now.tv_sec) * kNanosInSecond;
  step.tv_sec += step.tv_nsec / kNanosInSecond;
  step.tv_nsec %= kNanosInSecond;
  return true;
}

}  // namespace

int clockLockInSteps(pthread_mutex_t* mutex, clockid_t clock, const timespec* end) {
  int result = ::pthread_mutex_trylock(mutex);
  for (timespec step{}; result == EBUSY || result == ETIMEDOUT;) {
    if (!nextStep(clock, *end, step)) {
      return ETIMEDOUT;
    }
    result = ::pthread_mutex_timedlock(mutex, &step);
  }
  return result;
}

int clockWaitInSteps(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                     const timespec* end) {
  timespec step{};
  if (!nextStep(clock, *end, step)) {
    step = {};  // past: the mutex is given up all the same, for those who are to notify
  }
  const int result = ::pthread_cond_timedwait(condition, mutex, &step);
  return result == ETIMEDOUT && nextStep(clock, *end, step) ? 0 : result;
}

}  // namespace portable

extern "C" {

int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* end) noexcept {
  portable::clockLock* const lock =
      portable::newerLock != nullptr ? portable::newerLock : portable::clockLockInSteps;
  return lock(mutex, clock, end);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* end) {
  portable::clockWait* const wait =
      portable::newerWait != nullptr ? portable::newerWait : portable::clockWaitInSteps;
  return wait(condition, mutex, clock, end);
}
}
