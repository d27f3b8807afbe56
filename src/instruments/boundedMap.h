// A hash map of so many entries and no more.
#pragma once

#include <cstddef>
#include <unordered_map>

namespace instruments {

// One thread at a time.
template <typename Key, typename Value, typename Hash = std::hash<Key>>
class boundedMap {
 public:
  explicit boundedMap(std::size_t limit) : limit_(limit) {}

  // The entry of `key`, made when there is none; null when there is no room for it.
  Value* at(const Key& key) {
    const auto known = entries_.find(key);
    if (known != entries_.end()) {
      return &known->second;
    }
    return entries_.size() < limit_ ? &entries_[key] : nullptr;
  }
  // Null when there is none.
  const Value* find(const Key& key) const {
    const auto known = entries_.find(key);
    return known == entries_.end() ? nullptr : &known->second;
  }
  void clear() { entries_.clear(); }

  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }
  std::size_t size() const { return entries_.size(); }

 private:
  std::size_t limit_;
  std::unordered_map<Key, Value, Hash> entries_;
};

}  // namespace instruments
