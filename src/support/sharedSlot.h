// A place that publishes one shared object to many readers.
//
// Event handlers take a reference on what they work on. So a control call or the unloading of the
// agent can take it away at any moment without waiting for them: the last one out destroys it. A
// plain shared_ptr in one place would make every event of every thread write to one cache line.
// Here each reader uses the cell of the processor it runs on. Each cell counts its references apart
// from the others, so that its lines stay in the cache of that processor.
#pragma once

#include <sched.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace support {

template <typename T>
class sharedSlot {
 public:
  // A reference on the published object, or none. Any thread. Waits for nobody: where another
  // thread is just copying the pointer of a cell, it takes the next cell's.
  std::shared_ptr<T> load() const {
    std::size_t place = cellOfThisProcessor();
    while (!cells_[place].lock.try_lock()) {
      place = (place + 1) % kCells;
    }
    const std::lock_guard<briefLock> guard(cells_[place].lock, std::adopt_lock);
    return cells_[place].value;
  }

  // Publishes `value` (or nothing, for null) to all readers, or throws std::bad_alloc and leaves
  // what is published; not atomic over readers of different threads. The caller serialises
  // calls from several threads.
  void store(const std::shared_ptr<T>& value) {
    std::array<std::shared_ptr<T>, kCells> next;
    for (std::shared_ptr<T>& each : next) {
      each = withOwnCount(value);
    }
    for (std::size_t i = 0; i < kCells; ++i) {
      const std::lock_guard<briefLock> guard(cells_[i].lock);
      cells_[i].value.swap(next[i]);
    }
  }  // what was published is dropped here, outside the locks

 private:
  static constexpr std::size_t kCells = 64;
  static constexpr std::size_t kCacheLine = 64;

  // Held for the copy of a pointer. A mutex of the system would cost an event more than the copy.
  class briefLock {
   public:
    bool try_lock() { return !taken_.exchange(true, std::memory_order_acquire); }
    void lock() {
      while (!try_lock()) {
        std::this_thread::yield();
      }
    }
    void unlock() { taken_.store(false, std::memory_order_release); }

   private:
    std::atomic<bool> taken_{false};
  };

  struct alignas(kCacheLine) cell {
    mutable briefLock lock;
    std::shared_ptr<T> value;
  };

  // Any cell is right: the thread may be moved to another processor at any moment, and -1, where
  // the system does not tell, is a cell as well.
  static std::size_t cellOfThisProcessor() {
    return static_cast<unsigned>(::sched_getcpu()) % kCells;
  }

  // The alignment keeps the counts of different cells on different cache lines.
  struct alignas(kCacheLine) holder {
    std::shared_ptr<T> value;
  };

  // A pointer to the same object whose reference count is another one.
  static std::shared_ptr<T> withOwnCount(const std::shared_ptr<T>& value) {
    if (!value) {
      return nullptr;
    }
    auto counted = std::make_shared<holder>();
    counted->value = value;
    T* object = value.get();
    return std::shared_ptr<T>(std::move(counted), object);
  }

  std::array<cell, kCells> cells_;
};

}  // namespace support
