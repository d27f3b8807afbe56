// A hash table whose entries stay until the whole table goes.
//
// Lookups take no lock: a chain is read through atomic pointers, an entry is complete before it is
// linked and its key and value objects never move. Inserting is serialised by the caller's mutex
// and holds up nobody who looks something up.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace support {

template <typename Value>
class insertOnlyMap {
 public:
  struct node {
    template <typename... Args>
    explicit node(std::uint64_t nodeKey, Args&&... args)
        : key(nodeKey), value(std::forward<Args>(args)...) {}

    const std::uint64_t key;
    Value value;
    node* nextInBucket = nullptr;
    node* nextOfAll = nullptr;
  };

  // `buckets` is rounded up to a power of two; lookups stay flat up to some times as many entries.
  explicit insertOnlyMap(std::size_t buckets) : buckets_(std::bit_ceil(buckets)) {}

  ~insertOnlyMap() {
    for (node* each = newest_.load(std::memory_order_relaxed); each != nullptr;) {
      delete std::exchange(each, each->nextOfAll);
    }
  }
  insertOnlyMap(const insertOnlyMap&) = delete;
  insertOnlyMap& operator=(const insertOnlyMap&) = delete;

  // The first value under `key` that `accepts`, or none. Any thread, no lock.
  template <typename Accepts>
  Value* find(std::uint64_t key, Accepts&& accepts) const {
    node* each = buckets_[bucketOf(key)].load(std::memory_order_acquire);
    for (; each != nullptr; each = each->nextInBucket) {
      if (each->key == key && accepts(each->value)) return &each->value;
    }
    return nullptr;
  }
  Value* find(std::uint64_t key) const {
    return find(key, [](const Value&) { return true; });
  }

  // Links an entry beside those already under its key. One thread at a time.
  Value& insert(std::unique_ptr<node> entry) {
    node* linked = entry.release();
    std::atomic<node*>& head = buckets_[bucketOf(linked->key)];
    linked->nextInBucket = head.load(std::memory_order_relaxed);
    linked->nextOfAll = newest_.load(std::memory_order_relaxed);
    head.store(linked, std::memory_order_release);
    newest_.store(linked, std::memory_order_release);
    size_.fetch_add(1, std::memory_order_relaxed);
    return linked->value;
  }

  std::size_t size() const { return size_.load(std::memory_order_relaxed); }

  // Visits the entries linked so far, newest first, as (key, value). Any thread, no lock.
  template <typename Visit>
  void forEach(Visit&& visit) const {
    for (node* each = newest_.load(std::memory_order_acquire); each != nullptr;
         each = each->nextOfAll) {
      visit(each->key, each->value);
    }
  }

 private:
  std::size_t bucketOf(std::uint64_t key) const {
    constexpr std::uint64_t kGoldenRatio = 0x9E3779B97F4A7C15U;
    return static_cast<std::size_t>((key * kGoldenRatio) >> 32U) & (buckets_.size() - 1);
  }

  std::vector<std::atomic<node*>> buckets_;
  std::atomic<node*> newest_{nullptr};
  std::atomic<std::size_t> size_{0};
};

}  // namespace support
