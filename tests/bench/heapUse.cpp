#include "heapUse.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> inUse{0};
std::atomic<std::size_t> peak{0};  // exact on one thread

void noteTaken(void* memory) {
  const std::size_t size = malloc_usable_size(memory);
  const std::size_t now = inUse.fetch_add(size, std::memory_order_relaxed) + size;
  if (now > peak.load(std::memory_order_relaxed)) {
    peak.store(now, std::memory_order_relaxed);
  }
}

void giveBack(void* memory) {
  inUse.fetch_sub(malloc_usable_size(memory), std::memory_order_relaxed);
  std::free(memory);
}

}  // namespace

std::size_t heapInUse() {
  return inUse.load(std::memory_order_relaxed);
}

std::size_t takeHeapPeak() {
  return peak.exchange(heapInUse(), std::memory_order_relaxed);
}

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  noteTaken(memory);
  return memory;
}
void operator delete(void* memory) noexcept {
  giveBack(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  giveBack(memory);
}
