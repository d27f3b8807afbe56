#include "rowExport.h"

#include <algorithm>
#include <unordered_map>

#include "allocationSites.h"
#include "contentionSites.h"
#include "jsonWriter.h"
#include "runFolders.h"
#include "utf8.h"

namespace viewer {
namespace {

// The rows of one run, each with what identifies the run.
class rowWriter {
 public:
  rowWriter(const runPlace& place, const profile& run, std::ostream& out)
      : run_(run), host_(hostOf(place, run)), out_(out) {
    const std::string path = toUtf8(place.path.lexically_normal().string());
    name_ = place.isArchive && !run.name.empty() ? path + '/' + run.name : path;
  }

  void write() {
    writeRun();
    for (const contentionReport& report : run_.contentionReports) {
      writeContention(report);
    }
    for (const lockReport& report : run_.lockReports) {
      writeLockSession(report);
    }
    writeExceptions();
    for (const allocationSession& session : run_.allocations) {
      if (session.samples) {
        writeAllocations(*session.samples);
      }
    }
    for (const memoryReport& report : run_.memoryReports) {
      for (const classEntry& one : report.classes) {
        row("memory", report.source, [&](jsonWriter& json) {
          json.member("class", one.name).member("objects", one.objects);
          json.member("bytes", one.bytes);
        });
      }
    }
  }

 private:
  template <typename action>
  void row(const char* kind, const std::string& source, action write) {
    jsonWriter json(out_);
    json.beginObject().member("record", kind).member("run", name_).member("host", host_.name);
    json.member("report", source);
    write(json);
    json.endObject();
    out_ << '\n';
  }

  void writeRun() {
    const runInfo about = run_.run.value_or(runInfo());
    row("run", "", [&](jsonWriter& json) {
      json.member("host_known", host_.isKnown).member("pid", about.pid);
      json.member("started", about.started).member("agent", about.agent);
      json.member("java", about.java).member("command", about.command);
      json.member("problems", run_.problems.size()).member("unfinished", run_.unfinished.size());
    });
  }

  void writeContention(const contentionReport& report) {
    row("contention", report.source, [&](jsonWriter& json) {
      json.member("started_ms", report.startedAt).member("written_ms", report.writtenAt);
      json.member("ended_ms", report.endedAt).member("parks", report.parks);
      json.member("samples_per_second", report.settings.samplesPerSecond);
      json.member("window_ms", report.settings.windowMillis);
      json.member("windows_omitted", report.omitted.windows);
      json.member("pairs_omitted", report.omitted.pairs);
    });
    for (const std::vector<contentionLock>* locks : {&report.locks, &report.otherLocks}) {
      for (const contentionLock& lock : *locks) {
        writeLock(report, lock, locks == &report.otherLocks);
      }
    }
    std::unordered_map<std::uint64_t, const contentionLock*> known;
    for (const contentionLock& lock : report.locks) {
      known.emplace(lock.id, &lock);
    }
    for (const contentionWindow& window : report.windows) {
      for (const windowLock& lock : window.locks) {
        const auto found = known.find(lock.id);
        row("window", report.source, [&](jsonWriter& json) {
          json.member("window_started_ms", window.startedAt);
          json.member("window_ended_ms", window.endedAt).member("lock", lock.id);
          json.key("class");
          found == known.end() ? json.null() : json.value(classNameOf(*found->second));
          json.key("kind");
          found == known.end() ? json.null() : json.value(nameOf(found->second->kind));
          json.member("blocked_nanos", lock.blockedNanos).member("entries", lock.entries);
        });
      }
    }
  }

  // What a row of a lock or of a pair of it begins with.
  static void beginLock(jsonWriter& json, const contentionLock& lock, bool isSum) {
    json.key("lock");
    isSum ? json.null() : json.value(lock.id);
    json.member("class", classNameOf(lock)).member("field", lock.field);
    json.member("kind", nameOf(lock.kind)).member("contention", isContention(lock.kind));
  }

  void writeLock(const contentionReport& report, const contentionLock& lock, bool isSum) {
    row("lock", report.source, [&](jsonWriter& json) {
      beginLock(json, lock, isSum);
      json.member("identity", lock.identity).member("entries", lock.entries);
      json.member("blocked_nanos", lock.blockedNanos);
      json.member("still_blocked", lock.stillBlocked);
      json.member("total_nanos", totalOf(lock));
      json.member("longest_nanos", longestOf(report, lock).nanos);
    });
    for (const contentionPair& pair : lock.pairs) {
      const std::optional<std::string> waiter = siteOf(report, pair.waiterStack);
      const ownerPlace owner = ownerPlaceOf(report, pair.ownerStack, pair.holdingFrame);
      row("pair", report.source, [&](jsonWriter& json) {
        beginLock(json, lock, isSum);
        json.member("waiter_thread", pair.waiterThread).member("waiter_site", waiter);
        json.member("site", waiter ? methodOf(*waiter) : kUnknownStack);
        json.member("owner_thread", pair.ownerThread).member("owner_site", owner.site);
        json.member("owner_note", pair.ownerNote).member("estimated_nanos", pair.nanos);
        json.member("samples", pair.samples);
      });
    }
  }

  void writeLockSession(const lockReport& report) {
    for (const lockEntry& lock : report.locks) {
      row("lock_session", report.source, [&](jsonWriter& json) {
        json.member("class", classOf(lock.name)).member("identity", identityOf(lock.name));
        json.member("entries", lock.entries).member("blocked_seconds", lock.blockedSeconds);
        json.member("waited_seconds", lock.waitedSeconds);
      });
    }
  }

  void writeExceptions() {
    const bool areCounted = countsOf(run_) != nullptr;
    for (const exceptionGroup& group : groupsOf(run_, thrownIn::throwingSite)) {
      row("exception", "", [&](jsonWriter& json) {
        json.member("class", group.className);
        json.member("site", group.isBeyond || group.site ? placeOf(group) : "");
        json.key("thrown");
        areCounted ? json.value(group.counts ? group.counts->thrown : 0) : json.null();
        json.member("caught", group.counts ? group.counts->caught : std::nullopt);
        json.member("uncaught", group.counts ? group.counts->uncaught : std::nullopt);
        json.member("recorded", group.records.size());
      });
    }
  }

  void writeAllocations(const allocationReport& report) {
    row("allocations", report.source, [&](jsonWriter& json) {
      json.member("started_ms", report.startedAt).member("written_ms", report.writtenAt);
      json.member("ended_ms", report.endedAt).member("interval_bytes", report.intervalBytes);
      json.member("after_collection", report.isAfterCollection);
      json.member("other_sites", report.others.sites);
    });
    allocationSession session;
    session.samples = report;
    for (const grownSite& site : grownSitesOf(session)) {
      for (const classAtSite& one : site.classes) {
        row("allocation", report.source, [&](jsonWriter& json) {
          json.member("class", one.className).member("place", site.site);
          json.member("site", site.site ? methodOf(*site.site) : kUnknownStack);
          json.member("estimated_alive_bytes", one.sum.alive.bytes);
          json.member("alive_samples", one.sum.alive.samples);
          json.member("estimated_alive_objects", one.sum.alive.objects);
          json.member("estimated_allocated_bytes", one.sum.allocated.bytes);
          json.member("allocated_samples", one.sum.allocated.samples);
        });
      }
    }
  }

  const profile& run_;
  hostName host_;
  std::string name_;
  std::ostream& out_;
};

}  // namespace

void writeRows(const runPlace& place, const profile& run, std::ostream& out) {
  rowWriter(place, run, out).write();
}

std::size_t writeRows(const std::vector<std::filesystem::path>& inputs, const std::string& grep,
                      std::ostream& out, const std::function<void(const std::string&)>& warn) {
  std::vector<std::string> problems;
  const std::vector<runPlace> places = placesOf(inputs, problems);
  std::size_t count = 0;
  const auto report = [&](const std::vector<std::string>& all) {
    count += all.size();
    std::for_each(all.begin(), all.end(), warn);
  };
  report(problems);
  for (const runPlace& place : places) {
    readRunsIn(place, [&](profile run) {
      if (!grep.empty()) {
        filter(run, grep);
      }
      for (const std::string& file : run.unfinished) {
        warn(file + ": not finished, not exported");
      }
      report(run.problems);
      if (!run.empty() || !run.problems.empty()) {
        writeRows(place, run, out);
      }
    });
  }
  return count;
}

}  // namespace viewer
