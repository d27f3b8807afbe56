// Which exceptions were thrown where since it was asked before, as a profile in the pprof form:
// classes and throwing sites, no messages and no values.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "exceptions/siteCounts.h"
#include "support/annotations.h"

namespace agent {

// Any thread.
class exceptionPush {
 public:
  explicit exceptionPush(const siteCounts& counts) : counts_(counts) {}

  // The window that ends at `now`, in milliseconds since the epoch; empty when nothing was thrown.
  std::string take(std::int64_t now) EXCLUDES(mutex_);

  static exceptionPush& ofProcess();

 private:
  std::uint64_t newThrows(const siteRow& row) REQUIRES(mutex_);

  const siteCounts& counts_;
  support::mutex mutex_;
  std::int64_t last_ GUARDED_BY(mutex_) = 0;
  // What was given; rows live as long as the counts.
  std::unordered_map<const siteRow*, std::uint64_t> given_ GUARDED_BY(mutex_);
};

}  // namespace agent
