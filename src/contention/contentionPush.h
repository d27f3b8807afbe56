// What a contention profile has counted since it was asked before, as a profile in the pprof form.
//
// The differences are of the sums of classes: those of a lock that has died go over to its class.
// What was given is remembered, not what was counted, so that all windows of a session together
// have its sums, and no difference is negative. Names of threads are not in it.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "contention/blockRecorder.h"
#include "contention/contentionReport.h"
#include "contention/contentionSampler.h"
#include "contention/contentionSamples.h"

namespace agent {

// Under the profile's lock.
class contentionPush {
 public:
  // Reads the counts: before the sampler catches up, so that a block that ends in between is
  // missing for now, but never counted twice.
  void read(const blockRecorder& recorder);

  // The window that ends at `now`, in steady nanoseconds; empty when nothing was counted in it.
  std::string take(const contentionSession& session, const blockRecorder& recorder,
                   const contentionSamples& samples, const contentionSampler& sampler,
                   std::int64_t now);

 private:
  struct sums {
    std::uint64_t entries = 0;
    std::uint64_t nanos = 0;
  };
  struct part {
    const pairKey* pair;
    std::uint64_t nanos;
  };
  static std::size_t indexOf(std::size_t cls, std::size_t by) { return cls * kChannels + by; }
  void addBlocked(const blockRecorder& recorder, const contentionSampler& sampler);
  std::vector<std::vector<part>> newParts(const contentionSamples& samples);

  std::int64_t session_ = 0;   // when it was started
  std::int64_t last_ = 0;      // the end of the last window
  std::vector<sums> counted_;  // by class and channel, with blocks that go on
  std::vector<sums> given_;
  std::unordered_map<pairKey, std::uint64_t, pairHash> givenPairs_;
};

}  // namespace agent
