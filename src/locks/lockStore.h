// What a lock session gathers: locks, their threads and stack traces, owners, and the settings that
// bound them. No call into the VM is made here but to compare classes.
//
// Event handlers fill these records on many threads at once. Lookups of locks, of selected locks
// and of stack hashes take no lock. Each mutex is taken alone: lockStore::lockMapMutex (only to
// link a new lockBean), lockStore::stackMapMutex, a lockBean's mutex, a threadBean's stackMutex, a
// topLockBean's mutex. None is held across a call into the VM. Counters and countdowns that no
// mutex guards are atomics.
//
// Times are nanoseconds of JVMTI GetTime.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/profiler.h"
#include "locks/ownerLookup.h"
#include "locks/stackTraces.h"
#include "support/annotations.h"
#include "support/insertOnlyMap.h"
#include "support/javaClasses.h"

namespace agent {

// A budget that is only ever counted down: it goes on below zero, far enough never to come back.
class countdown {
 public:
  explicit countdown(std::int32_t value) : value_(value) {}

  // Takes one; whether there was one to take.
  bool take() { return takeAndTell() >= 0; }
  // Takes one and gives what it left; negative when there was none to take.
  std::int32_t takeAndTell() {
    constexpr std::int32_t kLowest = INT32_MIN / 2;
    if (value_.load(std::memory_order_relaxed) < kLowest) {
      return kLowest;
    }
    return value_.fetch_sub(1, std::memory_order_relaxed) - 1;
  }
  std::int32_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::int32_t> value_;
};

// The settings of a lock session, as they arrive from Java. The countdowns are restored only by the
// next session.
struct LockSessionConfig : sessionSettings {
  LockSessionConfig(std::int64_t id, std::string name, std::int64_t seconds, std::int32_t topLocks,
                    std::int32_t locks, std::int32_t threadsPerLock, std::int32_t threads,
                    std::int32_t stackTraces, std::int32_t stackTracesPerThread,
                    std::string stackFile, std::int32_t graphSlots);

  const std::int64_t sessionId;
  const std::string sessionName;  // modified UTF-8, as all names
  const std::int64_t duration;    // seconds
  const std::int32_t topLockCount;
  countdown maxLockCount;
  const std::int32_t maxThreadPerLockCount;
  const std::int32_t maxThreadCount;
  countdown maxThreadCountCopy;  // the budget of blockingThreadBeans
  countdown maxStackTraceCount;
  const std::int32_t maxStackTraceCountPerThread;
  const std::string stackFilePath;
  const std::int32_t graphSize;
};

// How often one stack trace was seen; its hash stays 0 until the second time.
struct stackTraceBean {
  std::uint64_t hashcode = 0;
  std::uint32_t count = 1;
};

// Stack traces by hash.
using stackTraceBeans = std::map<std::uint64_t, stackTraceBean>;

// Counts one sighting of the trace `hash`.
void countStackTrace(stackTraceBeans& beans, std::uint64_t hash);

// One thread on one lock. The thread's name is its key in lockBean::threadbean.
struct threadBean {
  explicit threadBean(std::uint32_t contendedEntries) : count(contendedEntries) {}

  std::atomic<std::int64_t> lastEnterTime{0};
  std::atomic<std::int64_t> lastWaitTime{0};
  std::atomic<std::uint64_t> totalBlockTime{0};
  std::atomic<std::uint64_t> totalWaitTime{0};
  std::atomic<std::uint32_t> count;
  support::mutex stackMutex;
  stackTraceBeans stacktracebean GUARDED_BY(stackMutex);
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

// The threads known to be between their contended-enter and contended-entered events on a monitor.
//
// A count holds for one epoch: whenever events may have been missed (a control call, a handler that
// gave up early) the profiler's epoch moves on and the count starts anew. It may fall behind the
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

// The owners met on a lock that the ranking selected.
struct topLockBean {
  // Back to the state of a new record.
  void clear() EXCLUDES(mutex);

  waiterTally waiters;
  support::mutex mutex;
  std::string ownerName GUARDED_BY(mutex);
  blockingThreadBeans blockingThreads GUARDED_BY(mutex);
  bool ownerSeen GUARDED_BY(mutex) = false;
  // The newest look for the monitor's owner; none before the first.
  std::shared_ptr<ownerLookup> lookup GUARDED_BY(mutex);
};

// One lock.
struct lockBean {
  static constexpr std::size_t kGraphSlots = 301;

  lockBean(std::string name, std::int32_t threadSlots)
      : lockName(std::move(name)), threadSlotsLeft(threadSlots) {}

  // The reported name: empty until an event after the one that made the record.
  std::string_view name() const {
    return named.load(std::memory_order_relaxed) ? lockName : std::string_view();
  }
  void setName() {
    if (!named.load(std::memory_order_relaxed)) {
      named.store(true, std::memory_order_relaxed);
    }
  }

  // Counts a contended entry of a detail session in a minute slot (0 to 300), and the thread's
  // share in it. The thread's record, made when there was none and a slot was left; none when the
  // thread was refused: nothing is counted then.
  threadBean* countEntry(std::string_view threadName, std::size_t slot) EXCLUDES(mutex);
  // The thread's record for a wait, made without a contended entry when there was none and a slot
  // was left.
  threadBean* threadForWait(std::string_view threadName) EXCLUDES(mutex);
  // The thread's record, or none. Records stay as long as the lock.
  threadBean* findThread(std::string_view threadName) EXCLUDES(mutex);
  bool hasThreads() EXCLUDES(mutex);

  // The ranking selects the lock: its owners are recorded from now on, and those of an earlier
  // selection are dropped.
  void select() EXCLUDES(mutex);
  void deselect();
  // The owners met, or none when the lock is not selected. The record stays as long as the lock. No
  // lock is taken.
  topLockBean* top() const { return selected_.load(std::memory_order_acquire); }

  const std::string lockName;
  std::atomic<bool> named{false};
  std::atomic<std::uint32_t> count{1};
  std::atomic<std::uint64_t> totalBlockTime{0};
  std::atomic<std::uint64_t> totalWaitTime{0};

  support::mutex mutex;
  std::int32_t threadSlotsLeft GUARDED_BY(mutex);
  std::map<std::string, threadBean, std::less<>> threadbean GUARDED_BY(mutex);
  // Contended entries of a detail session by minute, up to the latest minute that has one; at most
  // kGraphSlots.
  std::vector<std::uint32_t> graph GUARDED_BY(mutex);

 private:
  bool takeThreadSlot() REQUIRES(mutex);

  std::unique_ptr<topLockBean> top_ GUARDED_BY(mutex);  // made by the first selection
  std::atomic<topLockBean*> selected_{nullptr};         // top_ while the lock is selected
};

// A lock in the lock map, with the class that its events are recognised by.
struct lockEntry {
  lockEntry(std::shared_ptr<const support::namedClass> monitorClass, std::string lockName,
            std::int32_t threadSlots)
      : cls(std::move(monitorClass)), bean(std::move(lockName), threadSlots) {}

  const std::shared_ptr<const support::namedClass> cls;
  lockBean bean;
};

// The class name of a monitor object, "@", and its identity hash code in signed decimal.
std::string lockNameOf(const std::string& className, jint hash);

// The store of one session; a new session brings a new one. Handlers share its ownership, so it
// outlives its session until the last of them returns.
class lockStore {
 public:
  // `settings` may be null: before the first session nothing is recorded.
  explicit lockStore(std::unique_ptr<LockSessionConfig> settings);

  // The lock of a monitor of class `cls` with identity hash `hash`, or none. No lock is taken.
  lockBean* findLock(JNIEnv* jni, jclass cls, jint hash) const;
  // The same for a class whose name is known: also finds a lock that another class of that name
  // has made.
  lockBean* findLock(const support::namedClass& cls, jint hash) const;

  // Whether a lock of that hash is not in the map and cannot be recorded any more, whatever its
  // class. No lock is taken.
  bool refuses(jint hash) const;

  struct recordedLock {
    lockBean* bean = nullptr;  // none when the budget is spent
    bool made = false;         // false when another event has just made it
    std::int32_t budgetLeft = 0;
  };
  // Takes from maxLockCount and makes the lock, unless it is there by now. Needs settings.
  recordedLock recordLock(const std::shared_ptr<const support::namedClass>& cls, jint hash)
      EXCLUDES(lockMapMutex);

  // All locks in ascending order of their names (byte comparison).
  std::vector<lockBean*> locksByName() const;
  std::size_t lockCount() const { return lockmap_.size(); }

  // The selected locks by name.
  std::map<std::string_view, topLockBean*> topLockMap() const;
  // Deselects all.
  void clearTopLocks();

  // Starts of blocks and waits, which events leave in their thread's storage. Any thread.
  //
  // An event of this session leaves one.
  void noteStart(std::int64_t time) {
    if (time < firstSinceLoss_.load(std::memory_order_relaxed)) {
      lowerFirstStarts(time);
    }
  }
  // Events may have been lost until now.
  void noteLostEvents() { firstSinceLoss_.store(INT64_MAX, std::memory_order_relaxed); }
  // Whether this session has left `start`, rather than an earlier one.
  bool hasLeft(std::int64_t start) const {
    return start >= firstStart_.load(std::memory_order_relaxed);
  }
  // Whether it has, and no event was lost since.
  bool hasLeftSinceLoss(std::int64_t start) const {
    return start >= firstSinceLoss_.load(std::memory_order_relaxed);
  }

  // Remembers a stack trace; `text` has one line for each frame. True when it is a new one.
  bool addStackTrace(std::uint64_t hash, std::string_view text) EXCLUDES(stackMapMutex);
  bool knowsStackTrace(std::uint64_t hash) const { return stackHashMap_.find(hash) != nullptr; }
  // All hashes met, in ascending order.
  std::vector<std::uint64_t> stackHashes() const;

  const std::unique_ptr<LockSessionConfig> config;

  knownStackTraces stackTraces;

  // Where looks are limited: the events that asked the VM for the owner, and those that did not
  // because others had made all looks of their second. One that shares the look of another event is
  // in neither.
  std::atomic<std::uint64_t> madeOwnerLookups{0};
  std::atomic<std::uint64_t> leftOutOwnerLookups{0};

  support::mutex lockMapMutex;   // guards insertion of locks
  support::mutex stackMapMutex;  // guards insertion of stack hashes, and the texts
  // Texts of the stack traces met since the stack file was last written.
  std::map<std::uint64_t, std::string> stacktracemap GUARDED_BY(stackMapMutex);

 private:
  struct nothing {};

  void lowerFirstStarts(std::int64_t time);

  support::insertOnlyMap<lockEntry> lockmap_;     // by identity hash
  support::insertOnlyMap<nothing> stackHashMap_;  // by stack hash
  // The earliest start left: in all, and since events were lost.
  std::atomic<std::int64_t> firstStart_{INT64_MAX};
  std::atomic<std::int64_t> firstSinceLoss_{INT64_MAX};
};

}  // namespace agent
