// How often and how long threads were blocked by one lock, or by the locks of one class.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace agent {

// Counts as they were at some moment.
struct blockTotals {
  static constexpr std::size_t kBuckets = 32;

  std::uint64_t entries = 0;
  std::uint64_t nanos = 0;
  std::uint64_t maxNanos = 0;
  std::int64_t first = 0;  // the start of the first block, steady nanoseconds; 0 for none
  std::int64_t last = 0;   // the end of the last one
  std::array<std::uint64_t, kBuckets> histogram{};

  void add(const blockTotals& other) {
    entries += other.entries;
    nanos += other.nanos;
    maxNanos = other.maxNanos > maxNanos ? other.maxNanos : maxNanos;
    first = first == 0 || (other.first != 0 && other.first < first) ? other.first : first;
    last = other.last > last ? other.last : last;
    for (std::size_t i = 0; i < kBuckets; ++i) {
      histogram[i] += other.histogram[i];
    }
  }
};

// Any thread adds. Zeroed memory is an empty one.
class blockCounts {
 public:
  // The bucket of a duration: below 2^10 ns, below 2^11, ..., the rest.
  static std::size_t bucketOf(std::uint64_t nanos) {
    constexpr std::size_t kFirstBits = 10;
    const auto bits = static_cast<std::size_t>(std::bit_width(nanos));
    const std::size_t bucket = bits <= kFirstBits ? 0 : bits - kFirstBits;
    return bucket < blockTotals::kBuckets ? bucket : blockTotals::kBuckets - 1;
  }

  // A block from `start` to `end`, steady nanoseconds. One that goes on from an earlier one of
  // `before` nanoseconds, which was added already, counts as one with it.
  void add(std::int64_t start, std::int64_t end, bool goesOn, std::uint64_t before) {
    const auto nanos = static_cast<std::uint64_t>(end > start ? end - start : 0);
    const std::uint64_t whole = before + nanos;
    nanos_.fetch_add(nanos, std::memory_order_relaxed);
    if (goesOn) {
      histogram_[bucketOf(before)].fetch_sub(1, std::memory_order_relaxed);
    } else {
      entries_.fetch_add(1, std::memory_order_relaxed);
    }
    histogram_[bucketOf(whole)].fetch_add(1, std::memory_order_relaxed);
    raise(max_, whole);
    last_.store(static_cast<std::uint64_t>(end), std::memory_order_relaxed);
    if (first_.load(std::memory_order_relaxed) == 0) {
      std::uint64_t none = 0;
      first_.compare_exchange_strong(none, static_cast<std::uint64_t>(start));
    }
  }

  // Adds sums; one thread.
  void add(const blockTotals& totals) {
    entries_.fetch_add(totals.entries);
    nanos_.fetch_add(totals.nanos);
    for (std::size_t i = 0; i < blockTotals::kBuckets; ++i) {
      histogram_[i].fetch_add(totals.histogram[i]);
    }
    raise(max_, totals.maxNanos);
    raise(last_, static_cast<std::uint64_t>(totals.last));
    const auto first = static_cast<std::uint64_t>(totals.first);
    std::uint64_t known = first_.load();
    while (first != 0 && (known == 0 || known > first) &&
           !first_.compare_exchange_weak(known, first)) {
    }
  }

  std::uint64_t entries() const { return entries_.load(std::memory_order_relaxed); }
  std::uint64_t nanos() const { return nanos_.load(std::memory_order_relaxed); }
  blockTotals read() const {
    blockTotals totals;
    totals.entries = entries_.load(std::memory_order_relaxed);
    totals.nanos = nanos_.load(std::memory_order_relaxed);
    totals.maxNanos = max_.load(std::memory_order_relaxed);
    totals.first = static_cast<std::int64_t>(first_.load(std::memory_order_relaxed));
    totals.last = static_cast<std::int64_t>(last_.load(std::memory_order_relaxed));
    for (std::size_t i = 0; i < blockTotals::kBuckets; ++i) {
      totals.histogram[i] = histogram_[i].load(std::memory_order_relaxed);
    }
    return totals;
  }

  // Nobody adds meanwhile.
  void clear() {
    for (auto* const each : {&entries_, &nanos_, &max_, &first_, &last_}) {
      each->store(0);
    }
    for (auto& each : histogram_) {
      each.store(0);
    }
  }

 private:
  static void raise(std::atomic<std::uint64_t>& most, std::uint64_t value) {
    std::uint64_t known = most.load(std::memory_order_relaxed);
    while (known < value && !most.compare_exchange_weak(known, value, std::memory_order_relaxed)) {
    }
  }

  std::atomic<std::uint64_t> entries_;
  std::atomic<std::uint64_t> nanos_;
  std::atomic<std::uint64_t> max_;
  std::atomic<std::uint64_t> first_;
  std::atomic<std::uint64_t> last_;
  std::array<std::atomic<std::uint64_t>, blockTotals::kBuckets> histogram_;
};

}  // namespace agent
