// What contention profiles have counted since the process started, over all sessions: for metrics,
// whose counters must not go back when a session begins.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "contention/blockCounts.h"
#include "contention/blockRecorder.h"
#include "contention/contentionSampler.h"
#include "contention/contentionSamples.h"
#include "contention/lockTable.h"
#include "instruments/costAccount.h"

namespace agent {

struct contentionFigures {
  static constexpr std::size_t kMostRows = 4096;  // of sessions that are over
  static constexpr std::size_t kKinds = 5;        // as lockKind has them

  struct sums {
    std::uint64_t entries = 0;
    std::uint64_t nanos = 0;  // with the blocks that go on
  };
  // Of blocks that have ended.
  struct durations {
    std::array<std::uint64_t, blockTotals::kBuckets> buckets{};
    std::uint64_t nanos = 0;
  };

  // By the class that a program uses, "" for all whose name is not known.
  std::map<std::pair<std::string, lockKind>, sums> rows;
  std::array<durations, kKinds> ended{};
  instruments::cost cost;
  std::uint64_t startsNotSeen = 0;
  std::uint64_t blocksNotSampled = 0;

  // As of now; zero while no session runs.
  bool isRunning = false;
  std::array<std::uint64_t, kKinds> blockedThreads{};
  std::uint64_t stuckThreads = 0;
  std::uint64_t stuckLocksDropped = 0;
  std::uint64_t deadlocks = 0;
  std::int32_t budgetPercent = 0;

  // The counts of a session that is over, within the bound.
  void keep(const contentionFigures& session);
};

// The counts of one session. Under the profile's lock: read() before the sampler catches up, then
// addTo() once, so that a block which ends in between is missing for now, but never counted twice.
class sessionFigures {
 public:
  explicit sessionFigures(const blockRecorder& recorder) : recorder_(recorder) {}

  void read();
  void addTo(contentionFigures& all, const contentionSamples& samples,
             const contentionSampler& sampler);

 private:
  struct cell {
    blockTotals ended;
    std::uint64_t goesOn = 0;  // nanoseconds
    std::uint64_t threads = 0;
  };
  static std::size_t indexOf(std::size_t cls, std::size_t by) { return cls * kChannels + by; }
  lockKind kindAt(std::size_t index) const;
  void addBlocked(const contentionSampler& sampler);

  const blockRecorder& recorder_;
  std::vector<cell> cells_;  // by class and channel
};

}  // namespace agent
