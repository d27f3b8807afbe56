// The contention profile's report as values; docs/reports.md describes the file. Plain values and
// functions without state.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"

namespace viewer {

// What a document is whose member "report" has this value.
inline constexpr std::string_view kContention = "contention";

// What threads did at a lock. The first two are contention; threads that wait or park mostly have
// nothing to do.
enum class lockKind { monitor, lock, wait, park };

constexpr bool isContention(lockKind kind) {
  return kind == lockKind::monitor || kind == lockKind::lock;
}

// As in the report.
const char* nameOf(lockKind kind);

// Durations are nanoseconds, times of day milliseconds since 1970-01-01 UTC, until the year 9999.
struct contentionStack {
  std::uint64_t id = 0;
  std::vector<std::string> frames;  // the innermost first
  bool isCut = false;
};

// Stacks are indexes into the report's `stacks`; none when the stack is not known.
struct contentionPair {
  std::optional<std::string> waiterThread;
  std::optional<std::uint64_t> waiterStack;
  std::optional<std::string> ownerThread;
  std::optional<std::uint64_t> ownerStack;
  std::optional<std::uint64_t> holdingFrame;  // may lie beyond a stack that is cut
  std::optional<std::string> ownerNote;
  std::optional<std::uint64_t> ownerWaitsFor;  // id of a lock, which may not be in `locks`
  std::uint64_t nanos = 0;
  std::uint64_t samples = 0;
};

// One lock, or the sum over those of a class and kind that are not listed separately:
// without id, identity, field, and threads that are still blocked.
struct contentionLock {
  std::uint64_t id = 0;
  std::optional<std::string> className;
  std::optional<std::string> identity;
  std::optional<std::string> field;
  lockKind kind = lockKind::monitor;
  std::uint64_t entries = 0;
  std::uint64_t blockedNanos = 0;
  std::uint64_t stillBlocked = 0;
  std::uint64_t stillBlockedNanos = 0;
  std::uint64_t maxNanos = 0;
  std::optional<std::uint64_t> firstAt;
  std::optional<std::uint64_t> lastAt;
  std::vector<std::uint64_t> histogram;
  std::vector<contentionPair> pairs;  // the most nanoseconds first
};

struct windowLock {
  std::uint64_t id = 0;
  std::uint64_t blockedNanos = 0;
  std::uint64_t entries = 0;
};

struct contentionWindow {
  std::uint64_t startedAt = 0;
  std::uint64_t endedAt = 0;
  std::uint64_t blockedNanos = 0;
  std::uint64_t entries = 0;
  std::uint64_t waitNanos = 0;
  std::uint64_t waits = 0;
  std::vector<windowLock> locks;
};

struct stuckThread {
  std::optional<std::string> thread;
  std::uint64_t sinceAt = 0;
  std::optional<std::uint64_t> stack;
};

struct stuckOwner {
  bool isKnown = false;
  std::optional<std::string> thread;
  std::optional<std::uint64_t> stack;
  std::optional<std::uint64_t> holdingFrame;
  std::optional<std::uint64_t> waitsFor;
};

struct stuckLock {
  std::uint64_t lock = 0;
  std::uint64_t sinceAt = 0;
  std::uint64_t waiterCount = 0;
  std::vector<stuckThread> waiters;  // the first of them
  stuckOwner owner;
  std::optional<std::string> ownerNote;
};

// A thread in a circle of threads that wait for each other.
struct deadlockedThread {
  std::optional<std::string> thread;
  std::uint64_t waitsFor = 0;
};

struct contentionSettings {
  std::uint64_t locks = 0;
  std::uint64_t samplesPerSecond = 0;
  std::uint64_t budgetPercent = 0;
  std::uint64_t stuckMillis = 0;
  std::uint64_t windowMillis = 0;
};

struct contentionCost {
  std::uint64_t ticks = 0;
  std::uint64_t ticksLeftOut = 0;
  std::uint64_t safepoints = 0;
  std::uint64_t safepointNanos = 0;
  std::uint64_t handshakes = 0;
  std::uint64_t handshakeNanos = 0;
  std::uint64_t processorNanos = 0;
};

struct contentionOmissions {
  std::uint64_t startsNotSeen = 0;
  std::uint64_t blocksNotSampled = 0;
  std::uint64_t locksNotSampled = 0;
  std::uint64_t ownersChanged = 0;
  std::uint64_t otherLocks = 0;
  std::uint64_t classes = 0;
  std::uint64_t pairs = 0;
  std::uint64_t pairNanos = 0;
  std::uint64_t stacks = 0;
  std::uint64_t windows = 0;
  std::uint64_t windowLocks = 0;
  std::uint64_t stuck = 0;
};

struct contentionReport {
  std::string source;
  std::uint64_t startedAt = 0;
  std::uint64_t writtenAt = 0;
  std::optional<std::uint64_t> endedAt;  // none of a profile that was not stopped before
  contentionSettings settings;
  std::string parks;
  std::vector<contentionLock> locks;       // the most blocked time first, see totalOf()
  std::vector<contentionLock> otherLocks;  // in the same order
  std::vector<contentionWindow> windows;   // in order of time
  std::vector<contentionStack> stacks;
  std::vector<stuckLock> stuck;  // the longest first
  std::vector<std::vector<deadlockedThread>> deadlocks;
  contentionCost cost;
  contentionOmissions omitted;

  std::map<std::uint64_t, std::string> names;  // of all locks that were read, by id
  bool isFiltered = false;                     // not all that was read is here
};

// Throws inputError: `source` (the name for the text in errors), the place and what was expected.
// Stacks that are referred to and missing are unknown; `problems` gets a line on them.
contentionReport readContentionReport(byteSource bytes, const std::string& source,
                                      std::vector<std::string>& problems);

// The largest number when the sum is larger.
std::uint64_t plus(std::uint64_t left, std::uint64_t right);

// The time of blocks that have ended and of those that have not.
std::uint64_t totalOf(const contentionLock& lock);

// "a.B@7"; of sums "a.B". What has no name is in brackets: "(unloaded class)@7".
std::string nameOf(const contentionLock& lock);
std::string classNameOf(const contentionLock& lock);

// The name of a lock that may not be in the report any more.
std::string lockNameOf(const contentionReport& report, std::uint64_t id);

// Null when it is not there.
const contentionLock* findLock(const contentionReport& report, std::uint64_t id);

// How long the profile ran until the report, in milliseconds.
std::uint64_t lengthOf(const contentionReport& report);

// Whether locks and waits of java.util.concurrent are in the report at all; else `parks` is the
// reason. When each park counts, entries are not acquisitions.
bool hasParks(const contentionReport& report);
bool countsEachPark(const contentionReport& report);

// The longest block on a lock. One that has not ended counts with its time so far, as far as that
// is known: `goesOn`.
struct longestBlock {
  std::uint64_t nanos = 0;
  bool goesOn = false;
};
longestBlock longestOf(const contentionReport& report, const contentionLock& lock);

// Whether there is any lock, or sum of locks, or a stuck one.
bool holdsLocks(const contentionReport& report);

// Keeps locks whose name, field, threads or frames `has` accepts, and what belongs to them.
void keepLocks(contentionReport& report, const std::function<bool(const std::string&)>& has);

}  // namespace viewer
