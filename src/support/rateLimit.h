// So many in a second and no more: a bucket of tokens that fills up evenly.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace support {

// Any thread may take; none waits for another.
class rateLimit {
 public:
  // At most `perSecond` from now on; no limit for 0. To be set before anyone takes.
  void set(std::int32_t perSecond) {
    perSecond_ = perSecond;
    interval_ = perSecond == 0 ? 0 : kNanosPerSecond / perSecond;
  }
  std::int32_t perSecond() const { return perSecond_; }

  // Whether one more is within the limit at `now`, in nanoseconds of a clock that only goes on.
  // What was not taken is saved up for a second; times may arrive somewhat out of their order.
  bool take(std::int64_t now) {
    if (perSecond_ == 0) return true;
    std::int64_t full = full_.load(std::memory_order_relaxed);
    std::int64_t next = 0;
    do {
      next = std::max(full, now) + interval_;
      if (next - now > interval_ * perSecond_) return false;  // all are taken
    } while (!full_.compare_exchange_weak(full, next, std::memory_order_relaxed));
    return true;
  }

 private:
  static constexpr std::int64_t kNanosPerSecond = 1'000'000'000;

  std::int32_t perSecond_ = 0;
  std::int64_t interval_ = 0;          // in which one token comes back
  std::atomic<std::int64_t> full_{0};  // when all tokens that were taken will have come back
};

}  // namespace support
