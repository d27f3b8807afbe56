// How many exceptions were thrown, by class and throwing site, before every filter, and what became
// of them.
//
// Handlers on any number of threads find the counts of a site in a cache, without a lock, by the
// numbers of its classes, the method ID and the place in the method. Names and the line are read
// once, when a site is not in the cache: what is kept are texts, so that a class may be unloaded,
// and its method IDs mean others then (JDK-8268364). Sites of one text are one.
#pragma once

#include <jvmti.h>

#include <array>
#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "instruments/reservedArray.h"
#include "support/annotations.h"

namespace agent {

struct knownClass;
struct throwEvent;

// What happens to an exception: one of the first three at the throw, then one of those from
// recorded to failed. A cut record is counted besides.
enum class siteCount : std::uint8_t {
  caught,
  uncaught,
  unknown,  // whether it is caught
  recorded,
  rethrown,  // has its record already
  filtered,
  blackListed,
  overRate,
  failed,
  cut,
};
inline constexpr std::size_t kSiteCounts = 10;

// The counts of one site, or of several together. Any thread.
class siteRow {
 public:
  using totals = std::array<std::uint64_t, kSiteCounts>;

  // Counts a throw at `now`, in milliseconds since the epoch.
  void thrown(std::optional<bool> isCaught, std::int64_t now);
  void add(siteCount which) { at(which).fetch_add(1, std::memory_order_release); }
  // One that had failed has been recorded after all.
  void recordLate() {
    at(siteCount::failed).fetch_sub(1, std::memory_order_release);
    add(siteCount::recorded);
  }
  // Whether one of the rate's records was for this site.
  void take() { isTaken_.store(true, std::memory_order_relaxed); }
  bool isTaken() const { return isTaken_.load(std::memory_order_relaxed); }

  // What became of an exception is read before its throw: there are as many throws at least.
  totals read() const;
  std::int64_t first() const { return first_.load(std::memory_order_relaxed); }
  std::int64_t last() const { return last_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t>& at(siteCount which) {
    return counts_[static_cast<std::size_t>(which)];
  }

  std::array<std::atomic<std::uint64_t>, kSiteCounts> counts_{};
  std::atomic<std::int64_t> first_{0};
  std::atomic<std::int64_t> last_{0};
  std::atomic<bool> isTaken_{false};
};

struct siteName {
  std::string exceptionClass;
  std::string method;      // "com.example.Shop.sell"
  std::string file;        // empty when there is none
  jint line = -1;          // -1 when there is none
  jint lineInRecord = -1;  // as records have it

  auto operator<=>(const siteName&) const = default;
};

// Any thread; the operations that throw no std::bad_alloc are noexcept.
class siteCounts {
 public:
  static constexpr std::size_t kSites = 1000;
  static constexpr std::size_t kClasses = 1000;
  // What a longer name stands for is counted by class, and then in the rest.
  static constexpr std::size_t kLongestName = 2048;

  siteCounts() : slots_(kSlots) {}

  // Counting begins, unless it has: at `now`, in milliseconds since the epoch.
  void begin(std::int64_t now);
  std::int64_t began() const { return began_.load(); }

  // Counts a throw at its site, and gives the site's row. The class of the exception is known, and
  // that of the method: `thrower`, which is `declaring`.
  siteRow& thrown(const throwEvent& event, const knownClass& thrower, jclass declaring) noexcept
      EXCLUDES(mutex_);
  // The same without the site: by class as far as that is known.
  siteRow& thrownSomewhere(const throwEvent& event) noexcept EXCLUDES(mutex_);

  // All rows so far. Names and rows live as long as this does.
  struct rows {
    std::vector<std::pair<const siteName*, const siteRow*>> sites;
    std::vector<std::pair<const std::string*, const siteRow*>> classes;
  };
  rows all() const EXCLUDES(mutex_);
  const siteRow& other() const { return other_; }

  static siteCounts& ofProcess();

 private:
  struct siteKey {
    std::array<std::uint64_t, 4> words;  // exception class, thrower, method, place
    std::size_t place() const;
  };
  // A key and its row, which change together: while they do, the version is odd. Zeroed memory is a
  // free one.
  struct alignas(64) slot {
    std::atomic<std::uint32_t> version;
    std::array<std::atomic<std::uint64_t>, 4> words;
    std::atomic<siteRow*> row;
  };
  static constexpr std::size_t kSlots = 4096;
  static constexpr std::size_t kProbes = 4;

  siteRow* find(const siteKey& key) const;
  siteRow& meet(const throwEvent& event, const knownClass& thrower, jclass declaring,
                const siteKey& key) noexcept EXCLUDES(mutex_);
  siteRow& meetClass(const std::string& name, const siteKey& key) noexcept EXCLUDES(mutex_);
  siteRow* ofSite(const siteName& name) REQUIRES(mutex_);
  siteRow& ofClass(const std::string& name) REQUIRES(mutex_);
  void remember(const siteKey& key, siteRow& row) REQUIRES(mutex_);

  std::atomic<std::int64_t> began_{0};
  siteRow other_;
  mutable support::mutex mutex_;  // around changes of slots, too
  std::map<siteName, siteRow> sites_ GUARDED_BY(mutex_);
  std::map<std::string, siteRow> classes_ GUARDED_BY(mutex_);
  instruments::reservedArray<slot> slots_;
  std::size_t turn_ GUARDED_BY(mutex_) = 0;  // which slot goes next where all are used
};

// Milliseconds since the epoch, to within a tick of the system.
std::int64_t coarseMillis();

}  // namespace agent
