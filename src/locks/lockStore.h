// What a lock session gathers: locks, their threads, owners and stack traces, and the starts of
// blocks and waits.
//
// Event handlers fill these records on many threads at once. Lookups of locks, of selected locks
// and of stack hashes take no lock. Each record keeps its mutex to itself, and takes it alone; none
// is held across a call into the VM. Counters and countdowns that no mutex guards are atomics.
// Nothing here writes to the log.
//
// Times are nanoseconds of JVMTI GetTime.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "locks/lockOwners.h"
#include "locks/lockSessionConfig.h"
#include "locks/stackTraces.h"
#include "support/annotations.h"
#include "support/insertOnlyMap.h"
#include "support/javaClasses.h"

namespace agent {

// Starts of blocks and waits. An event that begins one leaves its time in its thread's storage,
// where the event that ends it finds it. Any thread; each for itself.
class blockStarts {
 public:
  struct begun {
    std::optional<std::int64_t> start;  // none when it is not known
    bool isBackFromWait = false;        // the thread's wait has ended since
  };

  // The calling thread `thread` begins a block or wait at `time`.
  void leave(jvmtiEnv* jvmti, jthread thread, std::int64_t time) {
    note(time);
    open_ = time;
    store(jvmti, thread, time);
  }
  // The wait of the calling thread `thread` has ended at `time`: what it ends next is not that.
  void leaveWait(jvmtiEnv* jvmti, jthread thread, std::int64_t time) {
    note(time);
    open_ = 0;
    store(jvmti, thread, -time);
  }
  // What the calling thread has left last. What an earlier session has left is not known. What was
  // left before events were lost may have ended since, unless this native thread is in it still.
  begun take(jvmtiEnv* jvmti, jthread thread) const {
    const std::int64_t open = std::exchange(open_, 0);
    void* stored = nullptr;
    if (jvmti->GetThreadLocalStorage(thread, &stored) != JVMTI_ERROR_NONE || stored == nullptr) {
      return {};
    }
    // Negative for the end of a wait.
    const auto start = static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(stored));
    if (start < 0) {
      return {std::nullopt, hasLeftSinceLoss(-start)};
    }
    const bool known = hasLeftSinceLoss(start) || (start == open && hasLeft(start));
    return {known ? std::optional(start) : std::nullopt, false};
  }
  // The calling thread's block or wait has ended, or another has begun whose start is not left.
  static void forget() { open_ = 0; }

  // An event of this session leaves a start at `time`.
  void note(std::int64_t time) {
    if (time < firstSinceLoss_.load(std::memory_order_relaxed)) {
      lowerFirstStarts(time);
    }
  }
  // Whether this session has left `start`, rather than an earlier one.
  bool hasLeft(std::int64_t start) const {
    return start >= firstStart_.load(std::memory_order_relaxed);
  }
  // Whether it has, and no event was lost since.
  bool hasLeftSinceLoss(std::int64_t start) const {
    return start >= firstSinceLoss_.load(std::memory_order_relaxed);
  }
  // Events may have been lost until now.
  void noteLostEvents() { firstSinceLoss_.store(INT64_MAX, std::memory_order_relaxed); }

 private:
  void lowerFirstStarts(std::int64_t time);
  void store(jvmtiEnv* jvmti, jthread thread, std::int64_t word) {
    void* const stored = reinterpret_cast<void*>(static_cast<std::intptr_t>(word));
    if (jvmti->SetThreadLocalStorage(thread, stored) != JVMTI_ERROR_NONE) {
      noteLostEvents();  // an older start stays there
    }
  }

  // The start of the block or wait that this native thread is in, 0 for none. A virtual thread may
  // end it on another one.
  static inline thread_local std::int64_t open_ = 0;

  // The earliest starts left in this session: in all, and since events were lost.
  std::atomic<std::int64_t> firstStart_{INT64_MAX};
  std::atomic<std::int64_t> firstSinceLoss_{INT64_MAX};
};

// What a report has of a thread on a lock. The name is that of the lock's record.
struct threadSnapshot {
  std::string_view name;
  std::uint32_t count = 0;
  std::uint64_t totalBlockTime = 0;
  std::uint64_t totalWaitTime = 0;
  std::vector<std::pair<std::uint64_t, stackTraceBean>> stacktracebean;  // in ascending order
};

// What a report has of a lock. The names are those of its record.
struct lockSnapshot {
  std::string_view lockName;
  std::string_view id;
  std::uint32_t count = 0;
  std::vector<std::uint32_t> graph;  // up to the latest slot with an entry
  std::uint64_t totalBlockTime = 0;
  std::uint64_t totalWaitTime = 0;
  std::vector<threadSnapshot> threads;  // in ascending order of their names
};

// One thread on one lock. The thread's name is its key in lockBean::threadbean_.
class threadBean {
 public:
  explicit threadBean(std::uint32_t contendedEntries) : count(contendedEntries) {}

  // Counts a sighting of the trace `hash`.
  void countStack(std::uint64_t hash) EXCLUDES(stackMutex_);
  stackTraceBeans stackTraces() const EXCLUDES(stackMutex_);
  threadSnapshot snapshot(std::string_view name) const EXCLUDES(stackMutex_);

  std::atomic<std::int64_t> lastEnterTime{0};
  std::atomic<std::int64_t> lastWaitTime{0};
  std::atomic<std::uint64_t> totalBlockTime{0};
  std::atomic<std::uint64_t> totalWaitTime{0};
  std::atomic<std::uint32_t> count;

 private:
  mutable support::mutex stackMutex_;
  stackTraceBeans stacktracebean_ GUARDED_BY(stackMutex_);
};

// One lock.
class lockBean {
 public:
  // Deliberate: minute 300 has a slot of its own, one beyond the five hours.
  static constexpr std::size_t kGraphSlots = 301;

  lockBean(std::string name, std::int32_t threadSlots)
      : lockName(std::move(name)), threadSlotsLeft_(threadSlots) {}

  // The reported name. Deliberate: empty until an event after the one that made the record.
  std::string_view name() const {
    return named.load(std::memory_order_relaxed) ? lockName : std::string_view();
  }
  void setName() {
    if (!named.load(std::memory_order_relaxed)) {
      named.store(true, std::memory_order_relaxed);
    }
  }

  // Counts a contended entry of a summary.
  void countEntry() {
    count.fetch_add(1, std::memory_order_relaxed);
    setName();
  }
  // Counts a contended entry of a detail session in a minute slot (0 to 300), and the thread's
  // share in it. The thread's record, made when there was none and a slot was left; none when the
  // thread was refused: nothing is counted then.
  threadBean* countEntry(std::string_view threadName, std::size_t slot) EXCLUDES(mutex_);
  // Adds a block, or a wait, from `start` to `end`, also to a thread's if it is given.
  void addBlock(threadBean* thread, std::int64_t start, std::int64_t end);
  void addWait(threadBean* thread, std::int64_t start, std::int64_t end);

  // The thread's record for a wait, made without a contended entry when there was none and a slot
  // was left.
  threadBean* threadForWait(std::string_view threadName) EXCLUDES(mutex_);
  // The thread's record, or none. Records stay as long as the lock.
  threadBean* findThread(std::string_view threadName) EXCLUDES(mutex_);
  bool hasThreads() const EXCLUDES(mutex_);
  // How many more threads it may take; below 0 by those that it has refused.
  std::int32_t threadSlotsLeft() const EXCLUDES(mutex_);

  // A detail session begins.
  void resetCounts();
  // The ranking selects the lock: its owners are recorded from now on, and those of an earlier
  // selection are dropped.
  void select() EXCLUDES(mutex_);
  void deselect();
  // The owners met, or none when the lock is not selected. The record stays as long as the lock. No
  // lock is taken.
  topLockBean* top() const { return selected_.load(std::memory_order_acquire); }

  // Valid as long as the lock.
  lockSnapshot snapshot() const EXCLUDES(mutex_);

  const std::string lockName;
  std::atomic<bool> named{false};
  // Deliberate: 1 for a lock that a wait has made, too.
  std::atomic<std::uint32_t> count{1};
  std::atomic<std::uint64_t> totalBlockTime{0};
  std::atomic<std::uint64_t> totalWaitTime{0};

 private:
  bool takeThreadSlot() REQUIRES(mutex_);

  mutable support::mutex mutex_;
  std::int32_t threadSlotsLeft_ GUARDED_BY(mutex_);
  std::map<std::string, threadBean, std::less<>> threadbean_ GUARDED_BY(mutex_);
  // Contended entries of a detail session by minute, up to the latest minute that has one; at most
  // kGraphSlots.
  std::vector<std::uint32_t> graph_ GUARDED_BY(mutex_);
  std::unique_ptr<topLockBean> top_ GUARDED_BY(mutex_);  // made by the first selection
  std::atomic<topLockBean*> selected_{nullptr};          // top_ while the lock is selected
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

// Why a monitor was not identified.
enum class identityFailure {
  none,
  objectIsNull,
  noGetClass,
  noGetName,
  classIsEmpty,
  noHash,
};

// The lock of a monitor object: its record, or what it would be recorded under.
struct identifiedLock {
  lockBean* bean = nullptr;
  // Its class, where a record may yet be made or looked up by name.
  std::shared_ptr<const support::namedClass> cls;
  jint hash = 0;

  std::string name() const { return bean ? bean->lockName : lockNameOf(cls->value, hash); }
};

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
  // Asks the VM which lock a monitor object is, and looks it up. Where no record is there and none
  // can be made, it is named only if `named` is set.
  identityFailure identify(jvmtiEnv* jvmti, JNIEnv* jni, jobject object,
                           support::javaClasses& classes, bool named, identifiedLock& lock) const;

  struct recordedLock {
    lockBean* bean = nullptr;  // none when the budget is spent
    bool made = false;         // false when another event has just made it
    std::int32_t budgetLeft = 0;
  };
  // Takes from maxLockCount and makes the lock, unless it is there by now. Needs settings.
  recordedLock recordLock(const std::shared_ptr<const support::namedClass>& cls, jint hash)
      EXCLUDES(lockMapMutex_);

  // All locks in ascending order of their names (byte comparison).
  std::vector<lockBean*> locksByName() const;
  std::size_t lockCount() const { return lockmap_.size(); }

  // The selected locks by name.
  std::map<std::string_view, topLockBean*> topLockMap() const;
  // Deselects all.
  void clearTopLocks();

  const std::unique_ptr<LockSessionConfig> config;
  knownStackTraces stackTraces;
  blockStarts starts;
  ownerLookupTally ownerLookups;

 private:
  // Whether a lock of that hash is not in the map and cannot be recorded any more, whatever its
  // class. No lock is taken.
  bool refuses(jint hash) const;

  support::mutex lockMapMutex_;                // serialises insertion
  support::insertOnlyMap<lockEntry> lockmap_;  // by identity hash
};

}  // namespace agent
