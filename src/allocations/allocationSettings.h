// What an allocation profile is started with.
#pragma once

#include <cstdint>

namespace agent {

struct allocationSettings {
  static constexpr std::int64_t kShortestInterval = 1024;
  static constexpr std::int64_t kLongestInterval = 1 << 30;
  static constexpr std::int32_t kFewestSamples = 1000;
  static constexpr std::int32_t kMostSamples = 50'000;

  std::int64_t intervalBytes = 512 * 1024;  // allocated between two samples, on average
  std::int32_t liveSamples = kMostSamples;  // followed at a time
};

}  // namespace agent
