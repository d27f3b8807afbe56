// The lock report: what a session has gathered, as it is at one moment, and the JSON of it.
//
// A snapshot is taken record by record, each under its own mutex, while events may still be filling
// them; the report is written from it without any lock.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "agent/reportOutcome.h"
#include "locks/lockRanking.h"
#include "locks/lockStore.h"
#include "support/jsonWriter.h"

namespace agent {

// What a report has of a session. Valid as long as its store, whose names it has.
struct sessionSnapshot {
  std::string_view sessionName;
  std::int64_t sessionId = 0;
  std::int32_t graphSize = 0;
  bool nothingRanked = false;                     // not even locks that are not reported
  std::vector<lockSnapshot> locks;                // in the order of the ranking
  std::vector<std::uint64_t> stackHashes;         // in ascending order
  blockingThreadBeans blockingThreads;            // of all selected locks
  std::int32_t lookupsPerSecond = 0;              // 0 where lookups of owners are not limited
  std::optional<ownerLookupCounts> ownerLookups;  // only where they are
};

// Of a session with settings: the locks ranked that are of it and have threads, and the owners of
// all its selected locks. `lookupsPerSecond` is 0 where they are not limited.
sessionSnapshot snapshotOf(const std::shared_ptr<lockStore>& store, rankedLocks ranked,
                           std::int32_t lookupsPerSecond);

// Writes the report. Numbers are signed 32-bit values (wider ones are cut to their low 32 bits)
// except for those of "ownerLookups", which are whole; times in whole seconds, hashes as unsigned
// decimal text.
void writeLockReport(support::jsonWriter& json, const sessionSnapshot& session);

}  // namespace agent
