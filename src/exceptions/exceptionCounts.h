// What became of the exceptions that were thrown while capture was on: how many, and a line of the
// log for those that were lost.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "support/annotations.h"

namespace agent {

// In the order in which Java asks for them by number.
enum class exceptionCount : std::int32_t {
  seen,      // each one, except for those that the agent's own calls into Java throw
  filtered,  // thrown by a class whose exceptions are never recorded
  blackListed,
  overRate,
  delivered,  // records handed to Java
  cut,        // records that their budget was too small for, delivered or not
  noStack,    // lost: no stack was left to call Java on
  callback,   // lost: the callback threw something, or there is none
  noMemory,   // lost: no memory
  vm,         // lost: the VM refused something that a record cannot do without
  rethrown,   // has its record already
};
inline constexpr std::size_t kExceptionCounts = 11;

// Of the process, from its start on. Each exception that was seen is in exactly one of filtered,
// blackListed, overRate, delivered, rethrown and the four lost ones as soon as its handler is done.
// Any thread.
class exceptionCounts {
 public:
  void add(exceptionCount which) { at(which).fetch_add(1, std::memory_order_relaxed); }
  // One that seemed lost has been delivered after all.
  void deliverLate() {
    at(exceptionCount::noStack).fetch_sub(1, std::memory_order_relaxed);
    add(exceptionCount::delivered);
  }
  std::uint64_t get(exceptionCount which) const {
    return counts_[static_cast<std::size_t>(which)].load(std::memory_order_relaxed);
  }

  static exceptionCounts& ofProcess();

 private:
  std::atomic<std::uint64_t>& at(exceptionCount which) {
    return counts_[static_cast<std::size_t>(which)];
  }
  std::array<std::atomic<std::uint64_t>, kExceptionCounts> counts_{};
};

inline constinit exceptionCounts exceptionCountsOfProcess;

inline exceptionCounts& exceptionCounts::ofProcess() {
  return exceptionCountsOfProcess;
}

// Lets a line be written once a minute for each class and reason. Remembers 128 of these at a time;
// while all of them are less than a minute old, others get no line. Allocates nothing. Any thread.
class lossLines {
 public:
  static constexpr std::size_t kKept = 128;
  static constexpr std::int64_t kSeconds = 60;

  // Whether a line is due at `now`, in seconds of a clock that only goes on.
  bool take(std::string_view className, exceptionCount reason, std::int64_t now) EXCLUDES(mutex_);

 private:
  struct entry {
    std::uint64_t key = 0;
    std::int64_t until = 0;  // no further line before
  };
  support::mutex mutex_;
  std::array<entry, kKept> entries_ GUARDED_BY(mutex_);
};

}  // namespace agent
