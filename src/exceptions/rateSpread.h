// The rate of an exception class, spread over the run: a burst of the first second does not take
// all records of the minute.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "support/annotations.h"

namespace agent {

class siteRow;

// Of the rate of a minute, half is there at once. The rest comes back evenly over the minute; a
// site that has had no record yet may take of it at any time. Remembers 4096 classes; further ones
// share a rate while all of these had exceptions within a minute. Any thread.
class rateSpread {
 public:
  static constexpr std::int64_t kSeconds = 60;
  static constexpr std::size_t kClasses = 4096;

  void enable(bool isOn) { isOn_.store(isOn, std::memory_order_relaxed); }
  bool isOn() const { return isOn_.load(std::memory_order_relaxed); }

  // Counts an exception against the rate of its class; whether it may be recorded. `site` is null
  // when it is not known; `now` is in seconds of a clock that only goes on. A rate below 1 sets no
  // limit.
  bool take(const std::string& className, std::int32_t rate, siteRow* site, std::int64_t now)
      EXCLUDES(mutex_);

 private:
  struct window {
    std::int32_t count = 0;
    std::int64_t begin = 0;
  };
  window& of(const std::string& className, std::int64_t now) REQUIRES(mutex_);

  std::atomic<bool> isOn_{false};
  support::mutex mutex_;
  std::unordered_map<std::string, window> windows_ GUARDED_BY(mutex_);
  std::int64_t swept_ GUARDED_BY(mutex_) = 0;
};

}  // namespace agent
