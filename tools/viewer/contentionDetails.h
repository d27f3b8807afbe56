// For each of the locks of a table who waited for whom there, as text. Plain functions without
// state.
#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "contentionReport.h"
#include "tableParts.h"
#include "terminalStyle.h"

namespace viewer {

// A lock of the report, or a sum of those that are not listed separately; the report keeps it.
struct shownLock {
  const contentionLock* lock;
  bool isSum;
};

// The most time first.
std::vector<shownLock> locksFor(const contentionReport& report,
                                const std::function<bool(const contentionLock&)>& wanted);

// The lock with its field, or as one of several.
std::string shownName(const shownLock& one);

// "worker-1", "worker-1 and 3 more".
std::string someOf(const std::set<std::string>& threads);

// Of what comes with a ranking, rather than being one.
constexpr std::size_t fewer(std::size_t rows) {
  return (rows + 1) / 2;
}

// For each of the first locks how long its blocks took, and its pairs with most time: where threads
// waited, where the owner took it, what it did, and what it waited for itself.
std::string contentionDetails(const contentionReport& report, const std::vector<shownLock>& locks,
                              const tableLimits& limits, const terminalStyle& terminal);

}  // namespace viewer
