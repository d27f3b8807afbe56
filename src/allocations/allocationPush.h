// What an allocation profile has seen allocated since it was asked before, and what is alive, as a
// profile in the pprof form. Bytes and objects allocated are differences, those in use a state.
// Names of threads are not in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "allocations/allocationRecorder.h"
#include "allocations/allocationReport.h"
#include "allocations/survivingSamples.h"

namespace agent {

// Under the profile's lock.
class allocationPush {
 public:
  static constexpr std::size_t kMostSites = 2000;  // those with most bytes; others are one sample

  // The window that ends at `now`, in steady nanoseconds; empty when there is nothing.
  std::string take(const allocationSession& session, const allocationRecorder& recorder,
                   const survivingSamples& samples, const std::vector<siteState>& alive,
                   std::int64_t now);

 private:
  struct row {
    std::size_t site = 0;
    std::vector<std::uint64_t> values;
    std::uint64_t weight() const { return values[1] + values[3]; }
  };
  std::vector<row> rows(const survivingSamples& samples, const std::vector<siteState>& alive);

  std::int64_t session_ = 0;  // when it was started
  std::int64_t last_ = 0;     // the end of the last window
  // What was given, by site.
  struct sums {
    std::uint64_t objects = 0;
    std::uint64_t bytes = 0;
  };
  std::vector<sums> given_;
};

}  // namespace agent
