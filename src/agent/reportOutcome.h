// What became of the last report of each profiler: the report writers leave it, and the companion
// asks for it in place of reading the report again.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "support/annotations.h"

namespace agent {

// How often a session asked for the owner of a monitor, and how often it did not because these
// lookups are limited.
struct ownerLookupCounts {
  std::uint64_t made = 0;
  std::uint64_t skipped = 0;
};

struct reportOutcome {
  std::string path;         // as Java gave it, in modified UTF-8
  std::string problem;      // why the file is not complete; empty when it is
  std::uint64_t bytes = 0;  // that are in the file
  std::optional<ownerLookupCounts> ownerLookups{};  // only where they are limited
};

// The newest outcome of each kind of profiler. Any thread; nothing waits except for copied texts.
class reportOutcomes {
 public:
  // A report of the profiler of `kind` is about to be written: of an earlier one nothing is known
  // any more. Throws std::bad_alloc.
  void begin(std::int32_t kind) EXCLUDES(mutex_);
  // What became of it. Allocates nothing after begin().
  void end(std::int32_t kind, reportOutcome outcome) EXCLUDES(mutex_);
  // The outcome of the last report, if there is one that has come to its end.
  std::optional<reportOutcome> last(std::int32_t kind) const EXCLUDES(mutex_);

  static reportOutcomes& ofProcess();

 private:
  mutable support::mutex mutex_;
  std::map<std::int32_t, std::optional<reportOutcome>> outcomes_ GUARDED_BY(mutex_);
};

}  // namespace agent
