// A hash table whose entries stay until the table goes.
//
// Lookups take no lock: an entry is complete before it is linked, and its key and value objects
// never move. Inserting is serialised by the caller's mutex and holds up nobody who looks something
// up.
//
// Entries are found by linear probing in a table of pointers, at most half of which are in use.
// When it is full, a table of twice the size takes its place. The old one stays, as lookups may
// still be in it, so all tables together have less than eight pointers for each entry, except
// for the smallest table.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

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
    node* nextOfAll = nullptr;
  };

  insertOnlyMap() : table_(std::make_unique<table>(kFewestPlaces)), current_(table_.get()) {}
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
    const table& current = *current_.load(std::memory_order_acquire);
    for (std::size_t at = current.startOf(key);; at = current.after(at)) {
      node* const each = current.places[at].load(std::memory_order_acquire);
      if (each == nullptr) {
        return nullptr;
      }
      if (each->key == key && accepts(each->value)) {
        return &each->value;
      }
    }
  }
  Value* find(std::uint64_t key) const {
    return find(key, [](const Value&) { return true; });
  }

  // Links an entry beside those already under its key. One thread at a time. Without memory to grow
  // it throws std::bad_alloc and leaves the map as it was.
  Value& insert(std::unique_ptr<node> entry) {
    if (2 * (size() + 1) > table_->size()) {
      grow();
    }
    node* const linked = entry.release();
    linked->nextOfAll = newest_.load(std::memory_order_relaxed);
    table_->link(linked);
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
  static constexpr std::size_t kFewestPlaces = 32;  // a power of two

  struct table {
    explicit table(std::size_t size)
        : places(std::make_unique<std::atomic<node*>[]>(size)), mask(size - 1) {}

    std::size_t size() const { return mask + 1; }
    std::size_t startOf(std::uint64_t key) const {
      constexpr std::uint64_t kGoldenRatio = 0x9E3779B97F4A7C15U;
      return static_cast<std::size_t>((key * kGoldenRatio) >> 32U) & mask;
    }
    std::size_t after(std::size_t place) const { return (place + 1) & mask; }
    void link(node* linked) {
      std::size_t at = startOf(linked->key);
      while (places[at].load(std::memory_order_relaxed) != nullptr) {
        at = after(at);
      }
      places[at].store(linked, std::memory_order_release);
    }

    const std::unique_ptr<std::atomic<node*>[]> places;
    const std::size_t mask;
    std::unique_ptr<table> outgrown;
  };

  void grow() {
    auto larger = std::make_unique<table>(2 * table_->size());
    for (node* each = newest_.load(std::memory_order_relaxed); each != nullptr;
         each = each->nextOfAll) {
      larger->link(each);
    }
    larger->outgrown = std::move(table_);
    table_ = std::move(larger);
    current_.store(table_.get(), std::memory_order_release);
  }

  std::unique_ptr<table> table_;  // of who inserts
  std::atomic<const table*> current_;
  std::atomic<node*> newest_{nullptr};
  std::atomic<std::size_t> size_{0};
};

}  // namespace support
