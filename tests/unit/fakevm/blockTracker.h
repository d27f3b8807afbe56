// Memory that the VM hands out and expects back: that of Allocate and that of GetStringUTFChars.
#pragma once

#include <array>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>

namespace fake {

// Gets memory from malloc, so that the fake VM's bookkeeping does not show where a benchmark counts
// what the code under test allocates with `new`.
template <typename T>
struct mallocAllocator {
  using value_type = T;
  mallocAllocator() = default;
  template <typename Other>
  explicit(false) mallocAllocator(const mallocAllocator<Other>& /*other*/) {}
  T* allocate(std::size_t count) {
    void* block = std::malloc(count * sizeof(T));
    if (block == nullptr) {
      throw std::bad_alloc();
    }
    return static_cast<T*>(block);
  }
  void deallocate(T* block, std::size_t /*count*/) { std::free(block); }
  bool operator==(const mallocAllocator&) const = default;
};

// Any thread. Blocks still held when it ends are freed, so that a leak is reported once, by name.
class blockTracker {
 public:
  blockTracker() = default;
  ~blockTracker();
  blockTracker(const blockTracker&) = delete;
  blockTracker& operator=(const blockTracker&) = delete;

  // A block of `size` bytes filled with a pattern; `origin` is the function it is for, `about` what
  // it goes with (a string's characters go with that string).
  unsigned char* allocate(std::size_t size, const char* origin, const void* about = nullptr);

  enum class result { freed, notOurs, wrongAbout };
  // Frees a block; one that was given for something else is freed as well.
  result free(const void* block, const void* about = nullptr);

  std::size_t held() const;
  // "3 of GetThreadInfo, 1 of GetMethodName"; empty when nothing is held.
  std::string heldByOrigin() const;

 private:
  struct entry {
    const char* origin;
    const void* about;
  };
  struct alignas(64) shard {
    mutable std::mutex mutex;
    std::unordered_map<const void*, entry, std::hash<const void*>, std::equal_to<>,
                       mallocAllocator<std::pair<const void* const, entry>>>
        blocks;
  };

  shard& shardOf(const void* block) const;

  mutable std::array<shard, 32> shards_;
};

}  // namespace fake
