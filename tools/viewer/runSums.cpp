#include "runSums.h"

#include <algorithm>

#include "allocationSites.h"
#include "contentionSites.h"
#include "sites.h"

namespace viewer {
namespace {

void add(sums& to, sumKey key, std::uint64_t value) {
  std::uint64_t& sum = to[std::move(key)];
  sum = plus(sum, value);
}

// By the throwing site: which place outside the JDK it is shown at depends on the records.
template <typename measure>
sums exceptionsByOrigin(const profile& all, measure of) {
  sums result;
  for (const exceptionGroup& group : groupsOf(all, thrownIn::throwingSite)) {
    if (of(group) > 0) {
      add(result, {group.className, group.isBeyond || group.site ? placeOf(group) : ""}, of(group));
    }
  }
  return result;
}

std::size_t countedRuns(const profile& all) {
  return countsOf(all) == nullptr ? 0 : 1;
}

std::size_t recordedRuns(const profile& all) {
  return all.exceptions && countsOf(all) == nullptr ? 1 : 0;
}

}  // namespace

std::string textOf(const sumKey& key) {
  return key.site.empty() ? key.name : key.name + " in " + key.site;
}

sums contentionByClass(const profile& all) {
  sums result;
  for (const contentionReport& report : all.contentionReports) {
    for (const lockClassSum& one : lockClassesOf(
             report, [](const contentionLock& lock) { return isContention(lock.kind); })) {
      add(result, {one.name, ""}, one.nanos);
    }
  }
  return result;
}

// Line numbers differ from version to version.
sums contentionBySite(const profile& all) {
  sums result;
  for (const contentionReport& report : all.contentionReports) {
    for (const std::vector<contentionLock>* locks : {&report.locks, &report.otherLocks}) {
      for (const contentionLock& lock : *locks) {
        if (!isContention(lock.kind)) {
          continue;
        }
        for (const contentionPair& pair : lock.pairs) {
          const std::optional<std::string> site = siteOf(report, pair.waiterStack);
          add(result, {classNameOf(lock), site ? methodOf(*site) : kUnknownStack}, pair.nanos);
        }
      }
    }
  }
  return result;
}

sums blockedByClass(const profile& all) {
  sums result;
  for (const lockReport& report : all.lockReports) {
    for (const lockEntry& lock : report.locks) {
      add(result, {classOf(lock.name), ""}, lock.blockedSeconds);
    }
  }
  return result;
}

sums entriesBySite(const profile& all) {
  sums result;
  for (const lockReport& report : all.lockReports) {
    for (const siteSum& site : sitesOf(report, all.stacks)) {
      add(result, {site.method.value_or("(not in a stack file)"), ""}, site.entries);
    }
  }
  return result;
}

sums thrownByOrigin(const profile& all) {
  return exceptionsByOrigin(all, [](const exceptionGroup& group) -> std::uint64_t {
    return group.counts ? group.counts->thrown : 0;
  });
}

sums recordsByOrigin(const profile& all) {
  return exceptionsByOrigin(
      all, [](const exceptionGroup& group) -> std::uint64_t { return group.records.size(); });
}

sums growthByClass(const profile& all) {
  sums result;
  for (const allocationSession& session : all.allocations) {
    for (const grownClass& one : grownClassesOf(session)) {
      if (one.sum.growsBy.value_or(0) > 0) {
        add(result, {one.className, ""}, *one.sum.growsBy);
      }
    }
  }
  return result;
}

sums aliveByClass(const profile& all) {
  sums result;
  for (const allocationSession& session : all.allocations) {
    for (const grownClass& one : grownClassesOf(session)) {
      if (one.sum.alive.bytes > 0) {
        add(result, {one.className, ""}, one.sum.alive.bytes);
      }
    }
  }
  return result;
}

// Line numbers differ from version to version.
sums aliveBySite(const profile& all) {
  sums result;
  for (const allocationSession& session : all.allocations) {
    for (const grownSite& one : grownSitesOf(session)) {
      if (one.sum.alive.bytes > 0) {
        add(result, {one.site ? methodOf(*one.site) : kUnknownStack, ""}, one.sum.alive.bytes);
      }
    }
  }
  return result;
}

sums bytesByClass(const profile& all) {
  sums result;
  for (const memoryReport& report : all.memoryReports) {
    for (const classEntry& one : report.classes) {
      add(result, {one.name, ""}, one.bytes);
    }
  }
  return result;
}

std::size_t contentionSessions(const profile& all) {
  return all.contentionReports.size();
}

std::size_t sampledSessions(const profile& all) {
  return static_cast<std::size_t>(std::count_if(
      all.contentionReports.begin(), all.contentionReports.end(),
      [](const contentionReport& report) { return report.settings.samplesPerSecond > 0; }));
}

std::size_t lockSessions(const profile& all) {
  return all.lockReports.size();
}

std::size_t allocationSessions(const profile& all) {
  return static_cast<std::size_t>(
      std::count_if(all.allocations.begin(), all.allocations.end(),
                    [](const allocationSession& one) { return one.samples.has_value(); }));
}

std::size_t growthSessions(const profile& all) {
  return static_cast<std::size_t>(std::count_if(
      all.allocations.begin(), all.allocations.end(), [](const allocationSession& one) {
        return (one.samples && one.samples->collections > 0) || hasHistograms(one);
      }));
}

std::size_t memorySessions(const profile& all) {
  return all.memoryReports.size();
}

const std::array<sumKind, 10>& sumKinds() {
  static const std::array<sumKind, 10> kinds = {
      {{"contention", "Contention by class", "blocked nanoseconds", false, contentionByClass,
        contentionSessions},
       {"contention sites", "Contention by class and site", "blocked nanoseconds", true,
        contentionBySite, sampledSessions},
       {"locks", "Lock sessions by class", "blocked seconds", false, blockedByClass, lockSessions},
       {"sites", "Lock sessions by site", "contended entries", false, entriesBySite, lockSessions},
       {"exceptions", "Exceptions by class and site", "thrown", false, thrownByOrigin, countedRuns},
       {"exception records", "Exceptions by class and site, of runs without counts", "records",
        false, recordsByOrigin, recordedRuns},
       {"growth", "Growth by class", "bytes a minute", true, growthByClass, growthSessions},
       {"allocations", "Objects alive by class", "bytes", true, aliveByClass, allocationSessions},
       {"allocation sites", "Objects alive by site", "bytes", true, aliveBySite,
        allocationSessions},
       {"classes", "Surviving objects that were tracked, by class", "bytes", false, bytesByClass,
        memorySessions}}};
  return kinds;
}

}  // namespace viewer
