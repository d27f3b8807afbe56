// The agent's lock report as values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "input.h"

namespace viewer {

// How often one stack was seen; the hash finds its frames in a stack table.
struct stackUse {
  std::uint64_t hash = 0;
  std::uint32_t count = 0;
};

// One thread on one lock, as of the detail session. Times are whole seconds.
struct threadEntry {
  std::string name;
  std::uint32_t entries = 0;
  std::uint32_t blockedSeconds = 0;
  std::uint32_t waitedSeconds = 0;
  std::vector<stackUse> stacks;
};

struct lockEntry {
  std::string name;
  std::uint32_t entries = 0;
  std::uint32_t blockedSeconds = 0;
  std::uint32_t waitedSeconds = 0;
  std::vector<std::uint32_t> entriesPerMinute;
  std::vector<threadEntry> threads;
};

// A thread that owned a ranked lock while others came to wait for it.
struct blockerEntry {
  std::string name;
  std::uint32_t timesOwner = 0;
  std::uint32_t blockingPeriods = 0;
  std::uint32_t blockingSeconds = 0;
  std::vector<stackUse> stacks;
};

// How often the agent looked up the owner of a monitor, and how often it did not because it may do
// so only `perSecond` times a second.
struct ownerLookups {
  std::int64_t perSecond = 0;
  std::int64_t made = 0;
  std::int64_t leftOut = 0;
};

// Names are UTF-8. Counts are unsigned: the 32 bits that the report writes with a sign are taken as
// they were counted, while a time with a sign is an error. Locks, threads and blockers come in the
// order of their weight (see below), the largest first.
struct lockReport {
  std::string source;
  std::string sessionName;
  std::int32_t sessionId = 0;
  std::vector<lockEntry> locks;
  std::vector<blockerEntry> blockers;
  std::optional<ownerLookups> lookups;  // none of an agent without that limit
  double ownerScale = 1;                // times timesOwner: an estimate of none being skipped
  std::size_t distinctStacks = 0;

  // Stacks that no thread of a lock has, in the order of the report: of threads that were blocked
  // by a lock that the summary session did not meet, or that had no room there. A lower bound, for
  // such a thread may have the stack of another one. How often they were seen was not counted.
  std::vector<std::uint64_t> stacksOfNoLock;
};

// Throws inputError: `source` (the name for the text in errors), the place and what was expected.
// The last of two locks or blockers of one name counts.
lockReport readLockReport(byteSource bytes, const std::string& source);

// Blocked time first, then waited time, then entries.
template <typename entry>
auto weight(const entry& one) {
  return std::tuple(one.blockedSeconds, one.waitedSeconds, one.entries);
}

// Over all locks of a session.
struct lockTotals {
  std::uint64_t entries = 0;
  std::uint64_t blockedSeconds = 0;
  std::uint64_t waitedSeconds = 0;
};

lockTotals totalsOf(const lockReport& report);

// Whether owner lookups were skipped, so that the counts of owners are only a share.
bool ownersAreSampled(const lockReport& report);

// How often the owner would have been found, had no lookup been skipped; its count where none was.
std::uint64_t estimatedTimesOwner(const lockReport& report, const blockerEntry& owner);

// One thread over all locks of a session, and as a blocker.
struct threadSum {
  std::string name;
  std::size_t locks = 0;
  std::uint64_t entries = 0;
  std::uint64_t blockedSeconds = 0;
  std::uint64_t waitedSeconds = 0;
  blockerEntry asOwner;  // without stacks; all 0 when it never was one
};

// By weight, then by the time that they blocked others.
std::vector<threadSum> threadsOf(const lockReport& report);

// "a.B" and "7" of "a.B@7"; the second is empty for a name without "@".
std::string classOf(const std::string& lockName);
std::string identityOf(const std::string& lockName);

}  // namespace viewer
