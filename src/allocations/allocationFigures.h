// What allocation profiles have counted since the process started, over all sessions: for metrics,
// whose counters must not go back when a session begins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "allocations/allocationRecorder.h"
#include "allocations/collectionRounds.h"
#include "allocations/survivingSamples.h"
#include "instruments/costAccount.h"

namespace agent {

struct allocationFigures {
  static constexpr std::size_t kMostRows = 4096;  // of sessions that are over

  struct sums {
    amounts allocated;
    amounts alive;  // outlived a round; of the session that runs
  };

  std::map<std::string, sums> rows;  // by class, "" for samples without room
  std::uint64_t collections = 0;
  std::uint64_t samples = 0;  // seen
  std::uint64_t lost = 0;     // of these
  std::uint64_t failed = 0;
  std::uint64_t processorNanos = 0;
  std::uint64_t handlerNanos = 0;

  // As of now; zero while no session runs.
  bool isRunning = false;
  std::int64_t intervalBytes = 0;

  // The counts of a session that is over, within the bound.
  void keep(const allocationFigures& session);
  // Under the profile's lock.
  void addSession(const allocationRecorder& recorder, const survivingSamples& samples,
                  const collectionRounds& rounds, const instruments::cost& cost);
};

}  // namespace agent
