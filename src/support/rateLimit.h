// So many in a second and no more, spread over the second.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace support {

// Any thread may take; none waits for another.
class rateLimit {
 public:
  // At most `perSecond` in any second from now on; no limit for 0. To be set before anyone takes.
  void set(std::int32_t perSecond) {
    perSecond_ = perSecond;
    if (perSecond == 0) {
      return;
    }
    atOnce_ = (std::int64_t{perSecond} + 9) / 10;
    // A second that begins with all of these has the others come back one by one.
    const std::int64_t others = perSecond - atOnce_ + 1;
    interval_ = (kNanosPerSecond + others - 1) / others;
  }
  std::int32_t perSecond() const { return perSecond_; }

  // Whether one more is within the limit at `now`, in nanoseconds of a clock that only goes on. A
  // tenth of a second's number may be taken at once. Times may arrive somewhat out of their order.
  bool take(std::int64_t now) {
    if (perSecond_ == 0) {
      return true;
    }
    std::int64_t full = full_.load(std::memory_order_relaxed);
    std::int64_t next = 0;
    do {
      next = std::max(full, now) + interval_;
      if (next - now > interval_ * atOnce_) {
        return false;  // all are taken
      }
    } while (!full_.compare_exchange_weak(full, next, std::memory_order_relaxed));
    return true;
  }

 private:
  static constexpr std::int64_t kNanosPerSecond = 1'000'000'000;

  std::int32_t perSecond_ = 0;
  std::int64_t atOnce_ = 0;
  std::int64_t interval_ = 0;          // in which one comes back
  std::atomic<std::int64_t> full_{0};  // when all that were taken will have come back
};

}  // namespace support
