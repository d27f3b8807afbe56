// Two runs side by side. Plain functions without state, callable on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "profile.h"

namespace viewer {

// Sums of one thing in both runs; none in a run that does not have it.
struct comparedSum {
  std::string name;
  std::optional<std::uint64_t> before;
  std::optional<std::uint64_t> after;
};

enum class change { worse, better, same, came, went };

struct comparedTable {
  const char* name;               // "locks"
  const char* measure;            // "blocked seconds"
  std::vector<comparedSum> rows;  // the largest difference first
  // "BEFORE" or "AFTER": the run without such reports, which is not compared: there are no rows.
  std::optional<std::string> notRecordedIn;
  std::size_t sessionsBefore = 1;  // that the sums are of
  std::size_t sessionsAfter = 1;
  std::vector<std::string> notes = {};  // why sums differ, or are missing, for other reasons
};

// When a difference counts: it has to reach both.
struct threshold {
  std::uint32_t percent = 10;  // of the larger of the two sums
  std::uint64_t least = 1;     // of the measure
};

struct comparison {
  profile before;
  profile after;
  threshold limit;
  // - Contention reports by class and, from samples, by the method that came to the lock, both in
  //   blocked milliseconds.
  // - Lock reports by class in blocked seconds (identities differ from run to run), sites in
  //   entries.
  // - Exceptions by class and throwing site: in those thrown where the agent has counted them in
  //   both runs, else in records.
  // - Allocations by class in bytes a minute and in bytes alive, and by the method that allocated.
  // - Classes in surviving bytes.
  // Each is summed over the sessions of a run. A kind of report that neither run has is omitted.
  std::vector<comparedTable> tables;
};

comparison compare(profile before, profile after, threshold limit);

// A larger sum is worse. What came or went with less than the limit is the same.
change changeOf(const comparedSum& one, const threshold& limit);

const char* nameOf(change what);

}  // namespace viewer
