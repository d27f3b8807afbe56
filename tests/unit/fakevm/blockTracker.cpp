#include "blockTracker.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

namespace fake {

blockTracker::~blockTracker() {
  for (shard& part : shards_) {
    for (const auto& [block, what] : part.blocks) {
      std::free(const_cast<void*>(block));
    }
  }
}

unsigned char* blockTracker::allocate(std::size_t size, const char* origin, const void* about) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  std::memset(block, 0xCD, size);
  shard& part = shardOf(block);
  std::lock_guard hold(part.mutex);
  part.blocks.emplace(block, entry{origin, about});
  return static_cast<unsigned char*>(block);
}

blockTracker::result blockTracker::free(const void* block, const void* about) {
  shard& part = shardOf(block);
  bool matches = false;
  {
    std::lock_guard hold(part.mutex);
    const auto found = part.blocks.find(block);
    if (found == part.blocks.end()) {
      return result::notOurs;
    }
    matches = found->second.about == about;
    part.blocks.erase(found);
  }
  std::free(const_cast<void*>(block));
  return matches ? result::freed : result::wrongAbout;
}

std::size_t blockTracker::held() const {
  std::size_t sum = 0;
  for (const shard& part : shards_) {
    std::lock_guard hold(part.mutex);
    sum += part.blocks.size();
  }
  return sum;
}

std::string blockTracker::heldByOrigin() const {
  std::map<std::string, std::size_t> counts;
  for (const shard& part : shards_) {
    std::lock_guard hold(part.mutex);
    for (const auto& [block, what] : part.blocks) {
      ++counts[what.origin];
    }
  }
  std::string text;
  for (const auto& [origin, count] : counts) {
    text += (text.empty() ? "" : ", ") + std::to_string(count) + " of " + origin;
  }
  return text;
}

blockTracker::shard& blockTracker::shardOf(const void* block) const {
  const auto address = reinterpret_cast<std::uintptr_t>(block);
  return shards_[(address >> 4U) * 0x9E3779B97F4A7C15U >> 59U];
}

}  // namespace fake
