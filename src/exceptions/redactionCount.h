// How many values were hidden in records, completely or in part, since the process started.
#pragma once

#include <atomic>
#include <cstdint>

namespace agent::redacted {

inline constinit std::atomic<std::uint64_t> hiddenCount{0};

// Any thread.
inline void countHidden() {
  hiddenCount.fetch_add(1, std::memory_order_relaxed);
}
inline std::uint64_t hidden() {
  return hiddenCount.load(std::memory_order_relaxed);
}

}  // namespace agent::redacted
