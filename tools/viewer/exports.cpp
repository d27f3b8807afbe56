#include "exports.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <unordered_map>

#include "allocationExports.h"
#include "contentionExports.h"
#include "exportParts.h"
#include "jsonWriter.h"
#include "lockExports.h"

namespace viewer {
namespace {

class speedscopeWriter {
 public:
  explicit speedscopeWriter(std::ostream& out) : json_(out) {}

  void write(const profile& all) {
    json_.beginObject();
    json_.member("$schema", "https://www.speedscope.app/file-format-schema.json");
    json_.member("exporter", "twreport").member("name", "Locks and allocations");
    json_.key("profiles").beginArray();
    for (const lockReport& report : all.lockReports) {
      writeProfile(fmt::format("Lock session {} \"{}\"", report.sessionId, report.sessionName),
                   "none", [&](const auto& visit) {
                     forEachEntryStack(
                         report, all.stacks,
                         [&](const lockEntry& lock, const std::string& thread,
                             const std::vector<std::string>& frames, std::uint64_t count) {
                           visit({lock.name, thread}, frames, count);
                         });
                   });
    }
    for (const contentionReport& report : all.contentionReports) {
      writeProfile("Blocked time, " + report.source, "nanoseconds", [&](const auto& visit) {
        forEachBlockedStack(report, [&](const auto& lock, const auto& thread, const auto& frames,
                                        std::uint64_t nanos) {
          visit({lock, thread}, frames, nanos);
        });
      });
    }
    for (const allocationSession& session : all.allocations) {
      if (session.samples) {
        writeProfile(
            "Alive after collections, " + session.samples->source, "bytes", [&](const auto& visit) {
              forEachAliveStack(*session.samples,
                                [&](const std::string& name, const auto& frames,
                                    std::uint64_t bytes) { visit({name}, frames, bytes); });
            });
      }
    }
    json_.endArray();
    json_.key("shared").beginObject().key("frames").beginArray();
    for (const std::string& name : names_) {
      json_.beginObject().member("name", name).endObject();
    }
    json_.endArray().endObject().endObject();
  }

 private:
  // `forEach` gives each stack with what stands below it and its weight to what it is called with.
  template <typename source>
  void writeProfile(const std::string& name, const char* unit, source forEach) {
    std::vector<std::uint64_t> weights;
    std::uint64_t all = 0;
    json_.beginObject().member("type", "sampled").member("unit", unit).member("name", name);
    json_.key("samples").beginArray();
    forEach([&](std::initializer_list<std::string> below, const std::vector<std::string>& frames,
                std::uint64_t weight) {
      json_.beginArray();
      for (const std::string& one : below) {
        json_.value(idOf(one));
      }
      for (const std::string& frame : frames) {
        json_.value(idOf(frame));
      }
      json_.endArray();
      weights.push_back(weight);
      all = plus(all, weight);
    });
    json_.endArray().key("weights").beginArray();
    for (std::uint64_t weight : weights) {
      json_.value(weight);
    }
    json_.endArray().member("startValue", 0).member("endValue", all).endObject();
  }

  std::size_t idOf(const std::string& name) {
    const auto [found, isNew] = ids_.emplace(name, names_.size());
    if (isNew) {
      names_.push_back(name);
    }
    return found->second;
  }

  jsonWriter json_;
  std::vector<std::string> names_;
  std::unordered_map<std::string, std::size_t> ids_;
};

void csvLocks(const profile& all, std::ostream& out) {
  csvRow(out, "session", "lock", "class", "entries", "blocked_seconds", "waited_seconds",
         "threads");
  for (const lockReport& report : all.lockReports) {
    for (const lockEntry& lock : report.locks) {
      csvRow(out, report.sessionId, lock.name, classOf(lock.name), lock.entries,
             lock.blockedSeconds, lock.waitedSeconds, lock.threads.size());
    }
  }
}

void csvThreads(const profile& all, std::ostream& out) {
  csvRow(out, "session", "lock", "thread", "entries", "blocked_seconds", "waited_seconds");
  for (const lockReport& report : all.lockReports) {
    for (const lockEntry& lock : report.locks) {
      for (const threadEntry& thread : lock.threads) {
        csvRow(out, report.sessionId, lock.name, thread.name, thread.entries, thread.blockedSeconds,
               thread.waitedSeconds);
      }
    }
  }
}

void csvStacks(const profile& all, std::ostream& out) {
  csvRow(out, "session", "lock", "thread", "entries", "stack");
  for (const lockReport& report : all.lockReports) {
    forEachEntryStack(report, all.stacks,
                      [&](const lockEntry& lock, const std::string& thread,
                          const std::vector<std::string>& frames, std::uint64_t count) {
                        csvRow(out, report.sessionId, lock.name, thread, count,
                               fmt::format("{}", fmt::join(frames, ";")));
                      });
  }
}

void csvBlockers(const profile& all, std::ostream& out) {
  csvRow(out, "session", "thread", "times_owner", "blocking_periods", "blocking_seconds",
         "estimated_times_owner");
  for (const lockReport& report : all.lockReports) {
    for (const blockerEntry& blocker : report.blockers) {
      csvRow(out, report.sessionId, blocker.name, blocker.timesOwner, blocker.blockingPeriods,
             blocker.blockingSeconds, estimatedTimesOwner(report, blocker));
    }
  }
}

std::string countCell(const std::optional<std::uint64_t>& count) {
  return count ? std::to_string(*count) : "";
}

void csvExceptions(const profile& all, std::ostream& out) {
  csvRow(out, "class", "site", "thrown", "caught", "uncaught", "rethrown", "records", "first",
         "last");
  for (const exceptionGroup& group : groupsOf(all, thrownIn::throwingSite)) {
    const bool isKnown = group.caught + group.uncaught > 0;
    const auto ofRecords = [&](std::uint64_t count) {
      return isKnown ? std::to_string(count) : "";
    };
    const throwCounts* counts = group.counts ? &*group.counts : nullptr;
    csvRow(out, group.className, group.isBeyond ? placeOf(group) : group.site.value_or(""),
           counts != nullptr ? std::to_string(counts->thrown) : "",
           counts != nullptr ? countCell(counts->caught) : ofRecords(group.caught),
           counts != nullptr ? countCell(counts->uncaught) : ofRecords(group.uncaught),
           counts != nullptr ? std::to_string(counts->rethrown) : "", group.records.size(),
           group.first, group.last);
  }
}

void csvClasses(const profile& all, std::ostream& out) {
  csvRow(out, "session", "class", "generation", "objects", "bytes");
  for (const memoryReport& report : all.memoryReports) {
    for (const classEntry& one : report.classes) {
      for (const generationEntry& generation : one.generations) {
        csvRow(out, report.sessionId, one.name, generation.generation, generation.objects,
               generation.bytes);
      }
    }
  }
}

void lockGauges(const profile& all, std::ostream& out) {
  gauge entries("lock_entries", "Contended entries of a lock.");
  gauge blocked("lock_blocked_seconds", "Time that threads blocked on a lock.");
  gauge waited("lock_waited_seconds", "Time that threads waited in Object.wait on a lock.");
  gauge threadEntries("lock_thread_entries", "Contended entries of a thread on a lock.");
  gauge threadBlocked("lock_thread_blocked_seconds", "Time that a thread blocked on a lock.");
  gauge owner("owner_found", "How often a thread was found owning a lock that others came to.");
  gauge estimate("owner_estimate",
                 "How often it would have been, had no owner lookup been skipped.");
  gauge blocking("owner_blocking_seconds", "How long a thread kept others blocked.");
  for (const lockReport& report : all.lockReports) {
    const std::string session = std::to_string(report.sessionId);
    for (const lockEntry& lock : report.locks) {
      const gauge::labels of = {
          {"session", session}, {"class", classOf(lock.name)}, {"lock", lock.name}};
      entries.add(of, lock.entries);
      blocked.add(of, lock.blockedSeconds);
      waited.add(of, lock.waitedSeconds);
      for (const threadEntry& thread : lock.threads) {
        const gauge::labels on = {
            {"session", session}, {"lock", lock.name}, {"thread", thread.name}};
        threadEntries.add(on, thread.entries);
        threadBlocked.add(on, thread.blockedSeconds);
      }
    }
    for (const blockerEntry& blocker : report.blockers) {
      const gauge::labels of = {{"session", session}, {"thread", blocker.name}};
      owner.add(of, blocker.timesOwner);
      estimate.add(of, estimatedTimesOwner(report, blocker));
      blocking.add(of, blocker.blockingSeconds);
    }
  }
  for (const gauge* one : {&entries, &blocked, &waited, &threadEntries, &threadBlocked, &owner,
                           &estimate, &blocking}) {
    one->write(out);
  }
}

void exceptionGauges(const profile& all, std::ostream& out) {
  gauge records("exception_records", "Records of exceptions of a class thrown at a site.");
  gauge thrown("exceptions_thrown",
               "Exceptions of a class thrown at a site, all that were counted.");
  gauge caught("exceptions_caught", "Of these, those that a handler took.");
  gauge uncaught("exceptions_uncaught", "Of these, those that no handler took.");
  gauge rethrown("exceptions_rethrown", "Of these, those that had been thrown before.");
  for (const exceptionGroup& group : groupsOf(all, thrownIn::throwingSite)) {
    const gauge::labels of = {{"class", group.className},
                              {"site", group.isBeyond ? placeOf(group) : group.site.value_or("")}};
    const auto addKnown = [&of](gauge& to, const std::optional<std::uint64_t>& count) {
      if (count) {
        to.add(of, *count);
      }
    };
    if (!group.records.empty()) {
      records.add(of, group.records.size());
    }
    if (group.counts) {
      thrown.add(of, group.counts->thrown);
      addKnown(caught, group.counts->caught);
      addKnown(uncaught, group.counts->uncaught);
      rethrown.add(of, group.counts->rethrown);
    }
  }
  for (const gauge* one : {&records, &thrown, &caught, &uncaught, &rethrown}) {
    one->write(out);
  }
}

void addMissing(const captureEnd& counted, gauge& missing) {
  missing.add({{"reason", "dropped"}}, counted.dropped);
  if (counted.agent) {
    missing.add({{"reason", "filtered"}}, counted.agent->filtered);
    missing.add({{"reason", "excluded"}}, counted.agent->blackListed);
    missing.add({{"reason", "rate"}}, counted.agent->overRate);
    missing.add({{"reason", "failed"}}, failuresOf(*counted.agent));
  }
}

}  // namespace

stackSource stacksIn(const profile& all) {
  return !all.contentionReports.empty() ? stackSource::contention
         : !all.lockReports.empty()     ? stackSource::locks
         : !all.allocations.empty()     ? stackSource::allocations
                                        : stackSource::contention;
}

bool hasOtherStacks(const profile& all, stackSource what) {
  return (what != stackSource::contention && !all.contentionReports.empty()) ||
         (what != stackSource::locks && !all.lockReports.empty()) ||
         (what != stackSource::allocations && !all.allocations.empty());
}

void writeCollapsed(const profile& all, stackSource what, std::ostream& out) {
  switch (what) {
    case stackSource::contention:
      for (const contentionReport& report : all.contentionReports) {
        forEachBlockedStack(report, [&](const auto& lock, const auto& thread, const auto& frames,
                                        std::uint64_t nanos) {
          collapsedLine(out, {lock, thread}, frames, nanos);
        });
      }
      break;
    case stackSource::locks:
      for (const lockReport& report : all.lockReports) {
        forEachEntryStack(report, all.stacks,
                          [&](const lockEntry& lock, const std::string& thread,
                              const std::vector<std::string>& frames, std::uint64_t count) {
                            collapsedLine(out, {lock.name, thread}, frames, count);
                          });
      }
      break;
    case stackSource::allocations:
      for (const allocationSession& session : all.allocations) {
        if (session.samples) {
          forEachAliveStack(*session.samples,
                            [&](const auto& name, const auto& frames, std::uint64_t bytes) {
                              collapsedLine(out, {name}, frames, bytes);
                            });
        }
      }
      break;
  }
}

void writeSpeedscope(const profile& all, std::ostream& out) {
  speedscopeWriter(out).write(all);
  out << '\n';
}

void writeCsv(const profile& all, csvTable what, std::ostream& out) {
  switch (what) {
    case csvTable::locks:
      return csvLocks(all, out);
    case csvTable::threads:
      return csvThreads(all, out);
    case csvTable::stacks:
      return csvStacks(all, out);
    case csvTable::blockers:
      return csvBlockers(all, out);
    case csvTable::exceptions:
      return csvExceptions(all, out);
    case csvTable::classes:
      return csvClasses(all, out);
    case csvTable::contention:
      return csvContention(all.contentionReports, out);
    case csvTable::pairs:
      return csvPairs(all.contentionReports, out);
    case csvTable::allocations:
      return csvAllocations(all.allocations, out);
  }
}

void writePrometheus(const profile& all, std::ostream& out) {
  lockGauges(all, out);
  contentionGauges(all.contentionReports, out);
  allocationGauges(all.allocations, out);
  exceptionGauges(all, out);
  gauge missing("exceptions_without_record", "Exceptions without a record, by reason.");
  if (all.exceptions && all.exceptions->counted()) {
    addMissing(*all.exceptions->counted(), missing);
  }
  missing.write(out);
  gauge objects("surviving_objects", "Live objects of a class by the generation of their tag.");
  gauge bytes("surviving_bytes", "Size of the live objects of a class by generation.");
  for (const memoryReport& report : all.memoryReports) {
    for (const classEntry& one : report.classes) {
      for (const generationEntry& generation : one.generations) {
        const gauge::labels of = {{"session", std::to_string(report.sessionId)},
                                  {"class", one.name},
                                  {"generation", std::to_string(generation.generation)}};
        objects.add(of, generation.objects);
        bytes.add(of, generation.bytes);
      }
    }
  }
  objects.write(out);
  bytes.write(out);
}

}  // namespace viewer
