// The threads that are blocked now: by which lock, and since when.
//
// Handlers of the blocked thread take and leave a slot; the sampler reads all of them meanwhile.
// Nobody waits: a thread that leaves while the sampler looks at its slot leaves it to the sampler.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>

#include "instruments/reservedArray.h"

namespace agent {

// One blocked thread, as the sampler sees it.
struct blockedThread {
  std::uint32_t place;  // of the lock
  std::int64_t since;   // steady nanoseconds
  std::uint64_t word;   // which block it is
};

class blockedThreads {
 public:
  static constexpr std::uint32_t kSlots = 65536;
  static constexpr std::uint32_t kNone = 0xFFFF'FFFF;

  blockedThreads() : slots_(kSlots) {}

  // A block, as its thread knows it.
  struct block {
    std::uint32_t place = 0;
    std::int64_t since = 0;
    std::uint64_t before = 0;  // nanoseconds of earlier parks of the acquisition
    bool goesOn = false;       // there were earlier parks of it
    std::uint64_t outer = 0;   // what the thread's word was before
  };
  // Names a taken slot until it is left.
  struct token {
    std::uint32_t slot;
    std::uint32_t turn;
  };

  // Takes a slot; slot kNone when there is none near. `thread`: a global reference or null, which
  // is deleted when the slot is left.
  token enter(const block& begun, jobject thread);
  // What a slot has; false when the token does not name a taken one.
  bool read(token taken, block& found) const;
  // Leaves it.
  void leave(JNIEnv* jni, token taken);

  // Slots below are in use.
  std::uint32_t end() const { return active_.load(std::memory_order_relaxed); }
  // The thread in a slot; false when there is none. For the sampler, as the rest.
  bool read(std::uint32_t index, blockedThread& found) const;
  // A local reference to it; null when it has left, or when no reference was taken.
  jthread threadOf(JNIEnv* jni, std::uint32_t index, const blockedThread& found);
  bool hasThread(std::uint32_t index) const { return slots_[index].thread.load() != nullptr; }
  // Gives a slot without a reference one to its thread.
  void adopt(JNIEnv* jni, std::uint32_t index, const blockedThread& found, jthread thread);
  // Gives a slot free whose thread will not leave it.
  void drop(JNIEnv* jni, std::uint32_t index, const blockedThread& found);

  // Drops all blocks; that of a thread which enters or leaves just now may stay.
  void dropAll(JNIEnv* jni);

 private:
  // The word of a slot: its turn, and one of these.
  static constexpr std::uint64_t kFree = 0;
  static constexpr std::uint64_t kChanging = 1;
  static constexpr std::uint64_t kBlocked = 2;
  static constexpr std::uint64_t kRead = 3;  // the sampler holds its reference
  static constexpr std::uint64_t kLeft = 4;  // the thread has left meanwhile
  static constexpr unsigned kStateBits = 8;
  static constexpr std::uint32_t kFirstActive = 64;
  static constexpr std::uint32_t kProbes = 8;
  static constexpr std::uint32_t kMoreProbes = 32;  // all over the slots
  static constexpr std::uint32_t kStride = 0x9E3779B1U;

  struct alignas(64) slot {
    std::atomic<std::uint64_t> word;
    std::atomic<std::uint32_t> place;
    std::atomic<bool> goesOn;
    std::atomic<std::int64_t> since;
    std::atomic<std::uint64_t> before;
    std::atomic<std::uint64_t> outer;
    std::atomic<jobject> thread;
  };

  static std::uint64_t wordOf(std::uint64_t turn, std::uint64_t state) {
    return (turn << kStateBits) | state;
  }
  void free(JNIEnv* jni, slot& changing, std::uint64_t turn);

  instruments::reservedArray<slot> slots_;
  std::atomic<std::uint32_t> active_{kFirstActive};
};

}  // namespace agent
