#include "comparison.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "runSums.h"
#include "tableParts.h"

namespace viewer {
namespace {

using namedSums = std::map<std::string, std::uint64_t>;

namedSums named(const sums& all) {
  namedSums result;
  for (const auto& [key, sum] : all) {
    result[textOf(key)] = sum;
  }
  return result;
}

std::uint64_t difference(const comparedSum& one) {
  const std::uint64_t before = one.before.value_or(0);
  const std::uint64_t after = one.after.value_or(0);
  return std::max(before, after) - std::min(before, after);
}

std::vector<comparedSum> joined(const namedSums& before, const namedSums& after) {
  std::map<std::string, comparedSum> rows;
  for (const auto& [name, sum] : before) {
    rows[name].before = sum;
  }
  for (const auto& [name, sum] : after) {
    rows[name].after = sum;
  }
  std::vector<comparedSum> result;
  for (auto& [name, row] : rows) {
    row.name = name;
    result.push_back(std::move(row));
  }
  std::stable_sort(result.begin(), result.end(),
                   [](const comparedSum& left, const comparedSum& right) {
                     return difference(left) > difference(right);
                   });
  return result;
}

void addModeNote(const profile& side, const char* name, std::vector<std::string>& notes) {
  if (countsOf(side)->isOfMade) {
    notes.push_back(fmt::format("In {}, {}.", name, kOnlyMade));
  }
}

std::vector<std::string> exceptionNotes(const profile& before, const profile& after) {
  std::vector<std::string> notes;
  const bool isBefore = countsOf(before) != nullptr;
  const bool isAfter = countsOf(after) != nullptr;
  if (!isBefore || !isAfter) {
    notes.push_back(fmt::format(
        "Only records are compared, for the agent's counts are not in {}: the number of exceptions "
        "may be larger, and may differ in another way.",
        isBefore  ? "AFTER"
        : isAfter ? "BEFORE"
                  : "either run"));
    return notes;
  }
  addModeNote(before, "BEFORE", notes);
  addModeNote(after, "AFTER", notes);
  return notes;
}

std::uint64_t inMillis(std::uint64_t nanos) {
  constexpr std::uint64_t kNanos = 1'000'000;
  return nanos / kNanos + (nanos % kNanos >= kNanos / 2 ? 1 : 0);
}

namedSums inMillis(const sums& nanos) {
  namedSums result = named(nanos);
  for (auto& [name, sum] : result) {
    sum = inMillis(sum);
  }
  return result;
}

namedSums millisBySite(const profile& all) {
  sums result;
  for (const auto& [key, nanos] : contentionBySite(all)) {
    std::uint64_t& sum = result[{key.site, ""}];
    sum = plus(sum, nanos);
  }
  return inMillis(result);
}

namedSums millisByClass(const profile& all) {
  return inMillis(contentionByClass(all));
}

template <sums (*of)(const profile&)>
namedSums byName(const profile& all) {
  return named(of(all));
}

std::uint64_t contentionLength(const profile& all) {
  std::uint64_t millis = 0;
  for (const contentionReport& report : all.contentionReports) {
    millis = plus(millis, lengthOf(report));
  }
  return millis;
}

void addContentionNotes(const profile& side, const char* name, std::vector<std::string>& notes) {
  for (const contentionReport& report : side.contentionReports) {
    if (!report.endedAt) {
      notes.push_back(fmt::format("{} was not stopped when its report was written.", name));
    }
    if (!hasParks(report)) {
      notes.push_back(fmt::format("{} does not have the locks of java.util.concurrent: {}.", name,
                                  report.parks));
    }
  }
}

std::vector<std::string> contentionNotes(const profile& before, const profile& after) {
  std::vector<std::string> notes = {
      fmt::format("The profiles ran for {} before and {} after; sums are not scaled.",
                  durationText(contentionLength(before)), durationText(contentionLength(after)))};
  addContentionNotes(before, "BEFORE", notes);
  addContentionNotes(after, "AFTER", notes);
  return notes;
}

void addAllocationNotes(const profile& side, const char* name, std::vector<std::string>& notes) {
  for (const allocationSession& session : side.allocations) {
    if (!session.samples) {
      notes.push_back(fmt::format("{} has no allocation samples, but only histograms.", name));
      continue;
    }
    const allocationReport& report = *session.samples;
    notes.push_back(fmt::format(
        "{}: {}, a sample for every {}, estimates. A difference of few samples may be chance.",
        name, durationText(lengthOf(report)), sizeText(report.intervalBytes)));
    if (report.collections == 0) {
      notes.push_back(fmt::format("In {} no collection ran: nothing is known to be alive.", name));
    } else if (!report.isAfterCollection) {
      notes.push_back(
          fmt::format("In {} no collection was made before the report: garbage may be "
                      "among what counts as alive.",
                      name));
    }
  }
}

std::vector<std::string> allocationNotes(const profile& before, const profile& after) {
  std::vector<std::string> notes;
  addAllocationNotes(before, "BEFORE", notes);
  addAllocationNotes(after, "AFTER", notes);
  return notes;
}

}  // namespace

comparison compare(profile before, profile after, threshold limit) {
  comparison result = {std::move(before), std::move(after), limit, {}};
  const auto add = [&result](const char* name, const char* measure, namedSums (*of)(const profile&),
                             std::size_t (*sessionsOf)(const profile&),
                             std::vector<std::string> notes = {}) {
    comparedTable table = {.name = name,
                           .measure = measure,
                           .rows = {},
                           .notRecordedIn = {},
                           .sessionsBefore = sessionsOf(result.before),
                           .sessionsAfter = sessionsOf(result.after)};
    if (table.sessionsBefore == 0 && table.sessionsAfter == 0) {
      return;
    }
    if (table.sessionsBefore == 0 || table.sessionsAfter == 0) {
      table.notRecordedIn = table.sessionsBefore == 0 ? "BEFORE" : "AFTER";
    } else {
      table.rows = joined(of(result.before), of(result.after));
      table.notes = std::move(notes);
    }
    result.tables.push_back(std::move(table));
  };
  const std::vector<std::string> notes = contentionNotes(result.before, result.after);
  add("contention", "blocked milliseconds", millisByClass, contentionSessions, notes);
  add("contention sites", "blocked milliseconds from samples", millisBySite, sampledSessions,
      notes);
  add("locks", "blocked seconds", byName<blockedByClass>, lockSessions);
  add("sites", "contended entries", byName<entriesBySite>, lockSessions);
  const bool areCounted = countsOf(result.before) != nullptr && countsOf(result.after) != nullptr;
  add(
      "exceptions", areCounted ? "thrown" : "records",
      areCounted ? byName<thrownByOrigin> : byName<recordsByOrigin>,
      [](const profile& all) -> std::size_t { return all.exceptions ? 1 : 0; },
      exceptionNotes(result.before, result.after));
  const std::vector<std::string> estimates = allocationNotes(result.before, result.after);
  add("growth", "bytes a minute", byName<growthByClass>, growthSessions, estimates);
  add("allocations", "bytes alive", byName<aliveByClass>, allocationSessions, estimates);
  add("allocation sites", "bytes alive", byName<aliveBySite>, allocationSessions, estimates);
  add("classes", "surviving bytes", byName<bytesByClass>, memorySessions);
  return result;
}

change changeOf(const comparedSum& one, const threshold& limit) {
  const std::uint64_t before = one.before.value_or(0);
  const std::uint64_t after = one.after.value_or(0);
  const auto larger = static_cast<double>(std::max(before, after));
  const auto by = static_cast<double>(difference(one));
  if (by == 0 || by < static_cast<double>(limit.least) || by * 100 < limit.percent * larger) {
    return change::same;
  }
  if (!one.before || !one.after) {
    return one.before ? change::went : change::came;
  }
  return after > before ? change::worse : change::better;
}

const char* nameOf(change what) {
  switch (what) {
    case change::worse:
      return "worse";
    case change::better:
      return "better";
    case change::came:
      return "came";
    case change::went:
      return "went";
    case change::same:
      break;
  }
  return "same";
}

}  // namespace viewer
