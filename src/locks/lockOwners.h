// The owners of one lock: who held it while others waited, how that is found out, and for how long
// each held others up.
//
// Events of many threads meet here. Each class has its mutex for itself; none is held across a call
// into the VM. Nothing here writes to the log: operations return what must be logged.
//
// Times are nanoseconds of JVMTI GetTime.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "locks/lockSessionConfig.h"
#include "locks/stackTraces.h"
#include "support/annotations.h"
#include "support/rateLimit.h"
#include "support/vmTurn.h"

namespace agent {

// The time from `start` to `end`; 0 when one of them is not known.
inline std::uint64_t elapsed(std::int64_t start, std::int64_t end) {
  return start > 0 && end > start ? static_cast<std::uint64_t>(end - start) : 0;
}

// What a lookup has found.
struct foundOwner {
  // False when no thread owns the monitor, or none that the VM names: since version 23 it names no
  // virtual thread (JDK-8328083).
  bool isNamed = false;
  std::string name;
};

// One lookup for a monitor's owner that several events share.
//
// Each lookup is a global safepoint, and while threads queue for one, more threads come to wait for
// the same monitor. Those that come before a lookup has begun need none of their own: it will find
// who owns the monitor at a moment when they wait for it, which is all that their own would.
class ownerLookup {
 public:
  // Whether the calling thread may wait for this lookup: it has not begun yet. Any thread.
  bool join() const { return !begun_.load(); }

  // The lookup begins now; nobody joins any more. By the thread that makes it, who may be holding a
  // lock: takes none.
  void begin() { begun_.store(true); }

  // Tells those who wait; nothing when the lookup came to no result. Exactly once.
  void publish(std::optional<foundOwner> found) EXCLUDES(mutex_);

  // What the lookup has found; nothing when it came to no result, or to none within a second (a
  // debugger may have suspended the thread that makes it): then nobody joins it any more.
  std::optional<foundOwner> wait() EXCLUDES(mutex_);

 private:
  std::atomic<bool> begun_{false};
  support::condition done_;
  support::mutex mutex_;
  bool published_ GUARDED_BY(mutex_) = false;
  std::optional<foundOwner> found_ GUARDED_BY(mutex_);
};

// Where lookups are limited: the events of a session that asked the VM for the owner, and those
// that did not because others had made all lookups of their second. An event that shares the lookup
// of another is in neither.
struct ownerLookupTally {
  std::atomic<std::uint64_t> made{0};
  std::atomic<std::uint64_t> skipped{0};
};

// One monitor at one time, about which the VM is asked by an event's thread.
struct monitorQuestion {
  jvmtiEnv* jvmti;
  JNIEnv* jni;
  jobject monitor;
  std::int64_t time;
};

// How the VM is asked who owns a monitor, and who waits for it: in turns, and so many times a
// second. Any thread.
class monitorLookups {
 public:
  // At most so many lookups a second, from all events; no limit for 0. Before anyone asks.
  void limit(std::int32_t perSecond) { limit_.set(perSecond); }
  std::int32_t perSecond() const { return limit_.perSecond(); }

  // Takes a lookup of this second for an owner; false when there is none left. Counted where there
  // is a limit.
  bool take(std::int64_t time, ownerLookupTally& counts);
  // Asks the VM for the owner. What is found is published to those who wait for `lookup`, if it is
  // given. Nothing when the VM is ending.
  std::optional<foundOwner> findOwner(const monitorQuestion& question, ownerLookup* lookup);
  // Takes a lookup, if there is one left, and asks the VM whether anyone waits for the monitor.
  bool hasWaiters(const monitorQuestion& question);

 private:
  support::vmTurns turns_;  // for GetObjectMonitorUsage
  support::rateLimit limit_;
};

// The threads known to be between their contended-enter and contended-entered events on a monitor.
//
// A count holds for one epoch: whenever events may have been missed (a control call, a handler that
// gave up early) the profiler's epoch moves on and the count starts again. It may fall behind the
// truth, never run ahead of it: who is counted does wait.
class waiterTally {
 public:
  // The calling thread has begun to wait.
  void enter(std::uint32_t epoch);
  // The calling thread got the monitor; how many others are known to wait still.
  std::uint32_t leave(std::uint32_t epoch);

 private:
  std::atomic<std::uint64_t> word_{0};  // epoch, then count
};

// One thread that owned a monitor while others waited for it.
struct blockingThreadBean {
  std::uint32_t blockingCount = 1;
  std::uint32_t blockCount = 0;
  std::uint64_t totalBlockingTime = 0;
  std::int64_t blockStartTime = 0;  // 0 while no period is open
  stackTraceBeans stacktracebean;
};

// Owners by thread name.
using blockingThreadBeans = std::map<std::string, blockingThreadBean, std::less<>>;

// Adds owners to others by name: counts and times add up, stack traces are merged by hash.
void mergeBlockingThreads(blockingThreadBeans& into, blockingThreadBeans from);

// The owners met on a lock that the ranking selected.
class topLockBean {
 public:
  // What it knows at one moment.
  struct content {
    std::string ownerName;  // the owner last found
    bool ownerSeen = false;
    blockingThreadBeans blockingThreads;
  };

  topLockBean() = default;
  explicit topLockBean(content known) : known_(std::move(known)) {}

  // Back to the state of a new record.
  void clear() EXCLUDES(mutex_);
  content snapshot() const EXCLUDES(mutex_);

  waiterTally waiters;

  // An event's share in the search for the owner: a lookup that is its own to make, one to wait
  // for, or none where no lookup is left.
  struct share {
    std::shared_ptr<ownerLookup> lookup;
    bool isOwn = false;
  };
  share takeShare(monitorLookups& lookups, std::int64_t time, ownerLookupTally& counts)
      EXCLUDES(mutex_);

  // Finds out who owns the monitor that the event's thread waits for. Nothing when that was skipped
  // or the VM is ending.
  std::optional<foundOwner> findOwner(monitorLookups& lookups, const monitorQuestion& question,
                                      ownerLookupTally& counts) EXCLUDES(mutex_);
  // Counts the owner that was found; a new one takes from `budget` and needs one.
  void found(std::string_view owner, countdown* budget) EXCLUDES(mutex_);

  // The owner last found has let the monitor go: charges it with the period it held up others.
  // False when it is not known; else `owner`, if given, is its name.
  bool closePeriod(std::int64_t time, std::string* owner) EXCLUDES(mutex_);
  // `owner` has the monitor while others wait: a period begins, if it is a known owner.
  void openPeriod(std::string_view owner, std::int64_t time) EXCLUDES(mutex_);
  bool knows(std::string_view owner) const EXCLUDES(mutex_);

  // Counts a sighting of the trace `hash`, if `owner` is known.
  void countStack(std::string_view owner, std::uint64_t hash) EXCLUDES(mutex_);

 private:
  // Nobody else is to wait for a lookup that came to nothing.
  void giveUp(const std::shared_ptr<ownerLookup>& lookup) EXCLUDES(mutex_);
  blockingThreadBean* find(std::string_view owner) REQUIRES(mutex_);

  mutable support::mutex mutex_;
  content known_ GUARDED_BY(mutex_);
  std::shared_ptr<ownerLookup> lookup_ GUARDED_BY(mutex_);  // the newest; none before the first
};

}  // namespace agent
