// References and IDs as the fake VM hands them out.
//
// A handle is not an address: it packs what it is, whose it is, and a slot number with that slot's
// generation. So a deleted handle is told from the one that took its slot over, a handle of another
// thread from one's own, and a number that never was a handle from all of these; and reading
// through one as if it were a pointer faults at once.
#pragma once

#include <jni.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

#include "objectModel.h"

namespace fake {

enum class handleKind : std::uint8_t { none, local, global, weak, method, field };

struct handle {
  handleKind kind = handleKind::none;
  std::uint32_t owner = 0;       // the thread environment of a local reference
  std::uint32_t generation = 0;  // odd while the slot is in use
  std::uint32_t slot = 0;

  static constexpr unsigned kOwnerBits = 13;
  static constexpr std::uint32_t kMaxOwners = 1U << kOwnerBits;
  static constexpr std::uint32_t kLowMask = 0xFFFFFF;  // generation and slot: 24 bits each

  template <typename T>
  T pack() const {
    const std::uint64_t bits = (std::uint64_t{static_cast<std::uint8_t>(kind)} << 61U) |
                               (std::uint64_t{owner} << 48U) | (std::uint64_t{generation} << 24U) |
                               slot;
    return reinterpret_cast<T>(bits);
  }

  template <typename T>
  static handle unpack(T reference) {
    const auto bits = reinterpret_cast<std::uint64_t>(reference);
    return {static_cast<handleKind>(bits >> 61U),
            static_cast<std::uint32_t>(bits >> 48U) & (kMaxOwners - 1),
            static_cast<std::uint32_t>(bits >> 24U) & kLowMask,
            static_cast<std::uint32_t>(bits) & kLowMask};
  }
};

// Slots with generations. Lookups are for any thread, without a lock; take() and release() are for
// one thread at a time, which the caller sees to.
template <typename T>
class handleTable {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  struct slot {
    std::atomic<std::uint32_t> generation{0};
    std::atomic<T*> target{nullptr};
    std::atomic<const char*> origin{nullptr};  // the function that made it; null: the test
    std::uint32_t next = kNone;                // in the free list or in a local frame
    std::uint32_t previous = kNone;
    std::uint32_t frame = 0;

    bool used() const { return (generation.load(std::memory_order_acquire) & 1U) != 0; }
  };

  // Slots begin at `firstGeneration`, so that handles of different VMs differ.
  explicit handleTable(std::uint32_t firstGeneration)
      : firstGeneration_(firstGeneration & handle::kLowMask & ~1U) {}
  ~handleTable() {
    for (auto& chunk : chunks_) {
      delete[] chunk.load();
    }
  }
  handleTable(const handleTable&) = delete;
  handleTable& operator=(const handleTable&) = delete;

  // The number of a slot that now holds `target`.
  std::uint32_t take(T* target, const char* origin) {
    const std::uint32_t number = free_ == kNone ? grow() : free_;
    slot& taken = at(number);
    free_ = taken.next;
    taken.next = kNone;
    taken.origin.store(origin, std::memory_order_relaxed);
    taken.target.store(target, std::memory_order_release);
    turn(taken);
    live_.store(live() + 1, std::memory_order_relaxed);
    return number;
  }

  void release(std::uint32_t number) {
    slot& released = at(number);
    turn(released);
    released.next = free_;
    free_ = number;
    live_.store(live() - 1, std::memory_order_relaxed);
  }

  // The slot that `wanted` names, if it still is the one it was; else null.
  slot* find(const handle& wanted) const {
    if (wanted.slot >= size_.load(std::memory_order_acquire)) {
      return nullptr;
    }
    slot& found = at(wanted.slot);
    return (wanted.generation & 1U) != 0 &&
                   found.generation.load(std::memory_order_acquire) == wanted.generation
               ? &found
               : nullptr;
  }

  slot& at(std::uint32_t number) const {
    const std::uint32_t shifted = number + kFirstChunk;
    const auto chunk = static_cast<std::uint32_t>(std::bit_width(shifted)) - kFirstChunkWidth;
    return chunks_[chunk].load(std::memory_order_acquire)[shifted - (kFirstChunk << chunk)];
  }

  std::size_t live() const { return live_.load(std::memory_order_relaxed); }

  template <typename Action>
  void forEachLive(Action action) const {
    const std::uint32_t size = size_.load(std::memory_order_acquire);
    for (std::uint32_t number = 0; number < size; ++number) {
      if (slot& visited = at(number); visited.used()) {
        action(visited);
      }
    }
  }

 private:
  static constexpr std::uint32_t kFirstChunk = 64;
  static constexpr std::uint32_t kFirstChunkWidth = std::bit_width(kFirstChunk);

  void turn(slot& turned) {
    const std::uint32_t next = turned.generation.load(std::memory_order_relaxed) + 1;
    turned.generation.store(next & handle::kLowMask, std::memory_order_release);
  }

  std::uint32_t grow() {
    const std::uint32_t number = size_.load(std::memory_order_relaxed);
    const std::uint32_t shifted = number + kFirstChunk;
    if (std::has_single_bit(shifted)) {
      const auto chunk = static_cast<std::uint32_t>(std::bit_width(shifted)) - kFirstChunkWidth;
      chunks_[chunk].store(new slot[shifted], std::memory_order_release);
    }
    at(number).generation.store(firstGeneration_, std::memory_order_relaxed);
    size_.store(number + 1, std::memory_order_release);
    return number;
  }

  const std::uint32_t firstGeneration_;
  // Chunk k has 64 << k slots and never moves.
  std::array<std::atomic<slot*>, 19> chunks_{};
  std::atomic<std::uint32_t> size_{0};
  std::atomic<std::size_t> live_{0};
  std::uint32_t free_ = kNone;
};

// One thread's local references, in frames. Only that thread changes them; live() and forEachLive()
// of the table are for any thread.
class localReferences {
 public:
  localReferences(std::uint32_t owner, std::uint32_t firstGeneration)
      : owner_(owner), table_(firstGeneration) {}

  jobject add(object* target, const char* origin);
  void remove(std::uint32_t slot);

  void pushFrame(bool boundary);
  // Frees the references of the top frame.
  void popFrame();
  std::size_t depth() const { return frames_.size(); }
  // A boundary is where native code was entered; that code cannot pop it.
  bool atBoundary() const { return frames_.back().boundary; }
  // Makers of the references in the top frame that were not made by the test.
  std::vector<const char*> makersInTopFrame() const;

  const handleTable<object>& table() const { return table_; }
  std::size_t peak() const { return peak_.load(std::memory_order_relaxed); }
  void resetPeak() { peak_.store(table_.live(), std::memory_order_relaxed); }

 private:
  using slots = handleTable<object>;
  struct localFrame {
    std::uint32_t head = slots::kNone;
    bool boundary = false;
  };

  const std::uint32_t owner_;
  slots table_;
  std::vector<localFrame> frames_{{slots::kNone, true}};
  std::atomic<std::size_t> peak_{0};
};

}  // namespace fake
