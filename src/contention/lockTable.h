// The locks that threads were blocked by since the profile began, each with its counts, and sums by
// class of those for which there is no room.
//
// Handlers find a lock without a lock: by its identity hash code, and then by the object itself.
// The first block of a lock takes a record and a weak reference. A lock that has died is unlinked
// when its room is needed; its record is used again once every handler that may have found it has
// left. All memory is of a fixed size.
#pragma once

#include <jvmti.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "contention/blockCounts.h"
#include "contention/contentionSettings.h"
#include "instruments/handlerGate.h"
#include "instruments/reservedArray.h"

namespace agent {

// How a thread was blocked: one lock has a record for each.
enum class channel : std::uint8_t { enter, wait, park };
inline constexpr std::size_t kChannels = 3;

// What that means to a reader.
enum class lockKind : std::uint8_t { monitor, lock, wait, park, idle };

constexpr bool isContention(lockKind kind) {
  return kind == lockKind::monitor || kind == lockKind::lock;
}

// What the class of a blocker says of it; found out when the first is met.
struct parkClasses {
  jclass synchronizer = nullptr;  // global references
  jclass latch = nullptr;
  jclass stampedLock = nullptr;
  jclass pool = nullptr;

  lockKind kindOf(JNIEnv* jni, jobject blocker) const;
};

// The sums of the locks of one class, beside those that have records. Zeroed memory is a free one.
struct lockClass {
  std::atomic<std::uint32_t> state;  // see lockTable
  jint hash;
  lockKind parkKind;
  jweak cls;
  std::array<blockCounts, kChannels> sums;
};

struct alignas(64) lockRecord {
  std::atomic<std::uint32_t> state;  // see lockTable
  jint hash;
  channel by;
  lockKind kind;
  std::uint16_t cls;  // its index in the table of classes
  std::uint32_t id;   // in reports; never used again
  bool hasVirtuals;   // virtual threads wait for it; of the sampler only
  jweak object;
  // Which blocks leave a reference to their thread for the sampler: those whose start has none of
  // these bits, in units of 16 ns.
  std::atomic<std::uint32_t> thinning;
  blockCounts counts;
};

class lockTable {
 public:
  static constexpr std::size_t kClasses = 1024;
  static constexpr std::uint32_t kNone = 0xFFFF'FFFF;

  lockTable();

  // Empties the table, with all references. No handler is inside.
  void begin(JNIEnv* jni, std::int32_t limit);

  // The place of a lock's record, which is made when there is none; kNone when there is no room.
  // `cls` is set to the place of its class then, 0 when there is none. For handlers.
  std::uint32_t find(jvmtiEnv* jvmti, JNIEnv* jni, const parkClasses& parks, channel by,
                     jobject object, std::uint32_t& cls);

  lockRecord& at(std::uint32_t place) { return records_[place]; }
  const lockRecord& at(std::uint32_t place) const { return records_[place]; }
  lockClass& classAt(std::uint32_t place) { return classes_[place]; }
  const lockClass& classAt(std::uint32_t place) const { return classes_[place]; }
  // Places from 0 up to this were used.
  std::uint32_t end() const;
  bool isLive(std::uint32_t place) const;
  // Whether a class has its name still to be found; place 0 stands for all that have no room.
  bool isClass(std::uint32_t place) const;
  static lockKind kindOf(channel by, const lockClass& cls);

  // Makes room when there is little: unlinks locks that have died, and gives those free that no
  // handler and no thread in `isUsed`, by place, uses any more; their counts go to their classes.
  // One thread, again and again.
  void makeRoom(JNIEnv* jni, const instruments::handlerGate& gate, const std::vector<bool>& isUsed);

 private:
  // States of a record, and of a class up to kLive.
  static constexpr std::uint32_t kFree = 0;
  static constexpr std::uint32_t kFilling = 1;
  static constexpr std::uint32_t kLive = 2;
  static constexpr std::uint32_t kUnlinked = 3;

  static constexpr std::uint32_t kSlotsPerLock = 4;
  static constexpr std::uint32_t kMostProbes = 64;
  static constexpr std::uint32_t kEmptySlot = 0;  // others hold a place plus kFirst
  static constexpr std::uint32_t kGoneSlot = 1;
  static constexpr std::uint32_t kFirst = 2;

  std::uint32_t slotOf(jint hash) const;
  std::uint32_t lookUp(JNIEnv* jni, channel by, jint hash, jobject object) const;
  std::uint32_t add(JNIEnv* jni, channel by, jint hash, jobject object, std::uint32_t cls);
  std::uint32_t takePlace();
  void link(std::uint32_t place);
  void unlink(std::uint32_t place);
  std::uint32_t classOf(jvmtiEnv* jvmti, JNIEnv* jni, const parkClasses& parks, jobject object);
  void free(JNIEnv* jni, std::uint32_t place);

  instruments::reservedArray<lockRecord> records_;
  instruments::reservedArray<std::atomic<std::uint32_t>> slots_;
  instruments::reservedArray<lockClass> classes_;
  std::uint32_t limit_ = 0;
  std::uint32_t slotMask_ = 0;
  std::atomic<std::uint32_t> used_{0};  // places taken for the first time
  std::atomic<std::uint32_t> lastId_{0};
  // Places that were given back, as a ring: makeRoom() puts, handlers take.
  instruments::reservedArray<std::atomic<std::uint32_t>> returned_;
  std::atomic<std::uint32_t> returnedCount_{0};
  std::atomic<std::uint32_t> takenCount_{0};
  // Of makeRoom() only.
  std::vector<std::uint32_t> unlinked_;
  instruments::handlerGate::departure departure_;  // of handlers that may have found these
  bool hasDeparted_ = false;
};

}  // namespace agent
