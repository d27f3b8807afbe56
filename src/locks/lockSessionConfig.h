// The settings of a lock session, and its budgets.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "agent/profiler.h"

namespace agent {

// A budget that is only ever counted down: it goes on below zero, far enough never to come back.
class countdown {
 public:
  explicit countdown(std::int32_t value) : value_(value) {}

  // Takes one; whether there was one to take.
  bool take() { return takeAndReturn() >= 0; }
  // Takes one and gives what it left; negative when there was none to take.
  std::int32_t takeAndReturn() {
    constexpr std::int32_t kLowest = INT32_MIN / 2;
    if (value_.load(std::memory_order_relaxed) < kLowest) {
      return kLowest;
    }
    return value_.fetch_sub(1, std::memory_order_relaxed) - 1;
  }
  std::int32_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::int32_t> value_;
};

// The settings as they arrive from Java. Deliberate: no limit is checked, none has a default, and
// the countdowns are in the settings; nothing is given back to them before the next session.
struct LockSessionConfig : sessionSettings {
  LockSessionConfig(std::int64_t id, std::string name, std::int64_t seconds, std::int32_t topLocks,
                    std::int32_t locks, std::int32_t threadsPerLock, std::int32_t threads,
                    std::int32_t stackTraces, std::int32_t stackTracesPerThread,
                    std::string stackFile, std::int32_t graphSlots);

  // The settings as the log shows them.
  std::string describe() const;

  const std::int64_t sessionId;
  const std::string sessionName;  // modified UTF-8, as all names
  const std::int64_t duration;    // seconds
  const std::int32_t topLockCount;
  countdown maxLockCount;
  const std::int32_t maxThreadPerLockCount;
  // Deliberate: taken, logged and nowhere else used; the budget is its copy.
  const std::int32_t maxThreadCount;
  countdown maxThreadCountCopy;  // the budget of blockingThreadBeans
  countdown maxStackTraceCount;
  // Deliberate: taken, logged and nowhere else used.
  const std::int32_t maxStackTraceCountPerThread;
  const std::string stackFilePath;
  const std::int32_t graphSize;
};

}  // namespace agent
