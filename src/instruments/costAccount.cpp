#include "instruments/costAccount.h"

#include <time.h>

#include <algorithm>

namespace instruments {

namespace {

constexpr std::int64_t kNanosPerSecond = 1'000'000'000;

std::int64_t nanosOf(clockid_t clock) {
  timespec time{};
  return ::clock_gettime(clock, &time) == 0
             ? std::int64_t{time.tv_sec} * kNanosPerSecond + time.tv_nsec
             : 0;
}

}  // namespace

std::int64_t steadyNanos() {
  return nanosOf(CLOCK_MONOTONIC);
}

std::int64_t threadNanos() {
  return nanosOf(CLOCK_THREAD_CPUTIME_ID);
}

std::int64_t epochMillisOf(std::int64_t steady) {
  constexpr std::int64_t kNanosPerMilli = 1'000'000;
  return (nanosOf(CLOCK_REALTIME) - (steadyNanos() - steady)) / kNanosPerMilli;
}

costAccount::entry::entry(std::uint64_t& number, std::uint64_t& nanos)
    : nanos_(nanos), begin_(steadyNanos()) {
  ++number;
}

costAccount::entry::~entry() {
  nanos_ += static_cast<std::uint64_t>(steadyNanos() - begin_);
}

void costAccount::clear() {
  total_ = {};
  counted_ = 0;
  paidUntil_ = steadyNanos();
  processor_ = threadNanos();
}

bool costAccount::takeTick(std::int64_t now) {
  // A tenth of a second's budget may be saved up: no bursts after a quiet time.
  constexpr std::int64_t kPercent = 100;
  constexpr std::int64_t kMostSaved = kNanosPerSecond / 10;
  const std::int64_t given = (now - paidUntil_) * percent_ / kPercent;
  counted_ = std::max(counted_ - given, -kMostSaved * percent_ / kPercent);
  paidUntil_ = now;
  if (counted_ > 0) {
    ++total_.ticksLeftOut;
    return false;
  }
  ++total_.ticks;
  return true;
}

void costAccount::endTick() {
  const std::int64_t now = threadNanos();
  const std::int64_t taken = std::max<std::int64_t>(now - processor_, 0);
  processor_ = now;
  total_.processorNanos += static_cast<std::uint64_t>(taken);
  counted_ += taken;
}

}  // namespace instruments
