#include "comparison.h"

#include <algorithm>
#include <map>

#include "sites.h"

namespace viewer {
namespace {

using sums = std::map<std::string, std::uint64_t>;

std::uint64_t difference(const comparedSum& one) {
  const std::uint64_t before = one.before.value_or(0);
  const std::uint64_t after = one.after.value_or(0);
  return std::max(before, after) - std::min(before, after);
}

std::vector<comparedSum> joined(const sums& before, const sums& after) {
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

sums blockedByClass(const profile& all) {
  sums result;
  for (const lockReport& report : all.lockReports) {
    for (const lockEntry& lock : report.locks) {
      result[classOf(lock.name)] += lock.blockedSeconds;
    }
  }
  return result;
}

sums entriesBySite(const profile& all) {
  sums result;
  for (const lockReport& report : all.lockReports) {
    for (const siteSum& site : sitesOf(report, all.stacks)) {
      result[site.method.value_or("(not in a stack file)")] += site.entries;
    }
  }
  return result;
}

sums exceptionsByOrigin(const profile& all) {
  sums result;
  for (const exceptionGroup& group : groupsOf(all)) {
    result[group.className + (group.site ? " in " + *group.site : "")] += group.records.size();
  }
  return result;
}

sums bytesByClass(const profile& all) {
  sums result;
  for (const memoryReport& report : all.memoryReports) {
    for (const classEntry& one : report.classes) {
      result[one.name] += one.bytes;
    }
  }
  return result;
}

}  // namespace

comparison compare(profile before, profile after, threshold limit) {
  comparison result = {std::move(before), std::move(after), limit, {}};
  const auto add = [&result](const char* name, const char* measure, sums (*of)(const profile&),
                             bool isKnown) {
    if (isKnown) {
      result.tables.push_back({name, measure, joined(of(result.before), of(result.after))});
    }
  };
  const profile& a = result.before;
  const profile& b = result.after;
  const bool hasLocks = !a.lockReports.empty() || !b.lockReports.empty();
  add("locks", "blocked seconds", blockedByClass, hasLocks);
  add("sites", "contended entries", entriesBySite, hasLocks);
  add("exceptions", "records", exceptionsByOrigin, a.exceptions || b.exceptions);
  add("classes", "surviving bytes", bytesByClass,
      !a.memoryReports.empty() || !b.memoryReports.empty());
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
