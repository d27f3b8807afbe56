// What a contention profile is started with.
#pragma once

#include <cstdint>

namespace agent {

struct contentionSettings {
  static constexpr std::int32_t kFewestLocks = 64;
  static constexpr std::int32_t kMostLocks = 65536;
  static constexpr std::int32_t kMostSamples = 1000;
  static constexpr std::int32_t kMostBudget = 100;
  static constexpr std::int64_t kShortestStuck = 100;
  static constexpr std::int64_t kShortestWindow = 1000;
  static constexpr std::int64_t kLongestWindow = 3'600'000;

  std::int32_t locks = 4096;           // listed separately
  std::int32_t samplesPerSecond = 50;  // 0 for none
  std::int32_t budgetPercent = 1;      // of one processor, for samples
  std::int64_t stuckMillis = 30'000;   // a longer block is stuck
  std::int64_t windowMillis = 10'000;  // of the time line
};

}  // namespace agent
