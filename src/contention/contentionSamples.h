// What the profile's own thread has learnt: who waits for whom and where, the time line, and who is
// stuck.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "contention/contentionSettings.h"
#include "contention/lockTable.h"
#include "instruments/boundedMap.h"
#include "instruments/costAccount.h"
#include "instruments/nameTable.h"
#include "instruments/stackTable.h"
#include "instruments/windowRing.h"

namespace agent {

// Why a lock's owner is not known.
enum class ownerNote : std::uint8_t {
  known,
  isVirtual,   // the VM does not name virtual threads
  handedOver,  // promised to the next thread of a fair lock
  notKept,     // the lock does not keep it
  changed,     // it let go while it was looked at, or the VM did not answer
  none,        // nobody held it
};

// An owner at some moment; names and stacks by id, 0 for none.
struct ownerSeen {
  ownerNote note = ownerNote::none;
  std::uint32_t thread = 0;
  std::uint32_t stack = 0;
  std::int32_t holdingFrame = -1;
  std::uint32_t waitsFor = 0;  // the id of a lock
  bool operator==(const ownerSeen&) const = default;
};

struct pairKey {
  std::uint32_t lock = 0;  // its id
  std::uint32_t waiter = 0;
  std::uint32_t waiterStack = 0;
  ownerSeen owner;
  bool operator==(const pairKey&) const = default;
};

struct pairHash {
  std::size_t operator()(const pairKey& key) const;
};

struct pairCounts {
  std::uint64_t nanos = 0;
  std::uint64_t samples = 0;
  std::uint16_t cls = 0;  // of the lock, which may have no record any more
  channel by = channel::enter;
};

struct windowShare {
  std::uint32_t lock;  // its id
  std::uint64_t nanos;
  std::uint64_t entries;
};

struct contentionWindow {
  std::int64_t start = 0;  // steady nanoseconds
  std::int64_t end = 0;
  std::uint64_t nanos = 0;  // of monitors and locks
  std::uint64_t entries = 0;
  std::uint64_t waitNanos = 0;
  std::uint64_t waits = 0;
  std::vector<windowShare> locks;  // those with most time
};

struct stuckThread {
  std::uint32_t thread;
  std::int64_t since;
  std::uint32_t stack;
};

struct stuckLock {
  std::uint32_t lock;  // its id
  std::string name;    // "com.example.Stock@1f"
  std::int64_t since;
  std::uint32_t waiterCount;
  std::vector<stuckThread> waiters;  // the first ones
  ownerSeen owner;
};

struct deadlockStep {
  std::uint32_t thread;
  std::uint32_t waitsFor;  // the id of a lock
  std::string lock;        // and its name
};

// Under the profile's lock.
struct contentionSamples {
  static constexpr std::size_t kMostPairs = 8192;
  static constexpr std::size_t kMostWindows = 360;
  static constexpr std::size_t kWindowLocks = 32;
  static constexpr std::size_t kMostStuck = 64;
  static constexpr std::size_t kMostStuckThreads = 16;

  instruments::stackTable stacks;
  instruments::nameTable names;
  instruments::boundedMap<pairKey, pairCounts, pairHash> pairs{kMostPairs};
  instruments::windowRing<contentionWindow> windows{kMostWindows};
  contentionWindow current;  // since the last one ended
  std::vector<stuckLock> stuck;
  std::vector<std::vector<deadlockStep>> deadlocks;
  instruments::costAccount cost;
  std::uint64_t locksNotSampled = 0;
  std::uint64_t ownersChanged = 0;
  std::uint64_t pairsDropped = 0;
  std::uint64_t pairNanosDropped = 0;
  std::uint64_t windowLocksDropped = 0;
  std::uint64_t stuckDropped = 0;
  std::vector<std::string> classNames;  // by place; empty when not known
  // The fields of locks, by their ids: those that were looked for.
  struct lockField {
    std::string name;  // empty when none was found
    std::int32_t looks = 0;
  };
  static constexpr std::int32_t kMostFieldLooks = 3;
  instruments::boundedMap<std::uint32_t, lockField> fields{contentionSettings::kMostLocks};

  // The field that holds a lock; empty when none is known.
  std::string_view fieldOf(std::uint32_t lock) const;
  // Whether to look for it once more.
  bool takeFieldLook(std::uint32_t lock);
  void clear();
};

}  // namespace agent
