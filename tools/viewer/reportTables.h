// The tables of a lock report as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "reportModel.h"

namespace viewer {

struct tableLimits {
  std::size_t locks = 5;
  std::size_t threads = 12;  // of each lock, and of the blockers
  std::size_t frames = 6;    // of each stack
  std::size_t width = 100;   // terminal columns
};

// The session and the sums over its locks, in one line.
std::string sessionLine(const lockReport& report);

// The locks by blocked time, then waited time, then contended entries, the largest first.
std::string topLocks(const lockReport& report, const tableLimits& limits);

// For each of the same locks its threads and the stack that was seen most often on it. A hash that
// `stacks` does not know is shown as it is.
std::string lockDetails(const lockReport& report, const stackTexts& stacks,
                        const tableLimits& limits);

// The threads that owned locks while others came to wait, by blocking time.
std::string blockers(const lockReport& report, const tableLimits& limits);

// All of the above.
std::string wholeReport(const lockReport& report, const stackTexts& stacks,
                        const tableLimits& limits);

}  // namespace viewer
