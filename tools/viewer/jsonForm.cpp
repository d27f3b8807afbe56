#include "jsonForm.h"

#include <unordered_map>

#include "allocationForm.h"
#include "contentionForm.h"
#include "exceptionForm.h"
#include "findings.h"
#include "jsonWriter.h"
#include "sites.h"

namespace viewer {
namespace {

constexpr int kVersion = 1;

void writeRun(jsonWriter& json, const std::optional<runInfo>& run) {
  json.key("run");
  if (!run) {
    json.null();
    return;
  }
  json.beginObject();
  json.member("pid", run->pid).member("started", run->started).member("agent", run->agent);
  json.member("host", run->host).member("java", run->java);
  json.member("vm", run->vm).member("command", run->command);
  json.key("options").beginObject();
  for (const auto& [name, value] : run->options) {
    json.member(name, value);
  }
  json.endObject().member("removedReports", run->removedReports).endObject();
}

// The stacks and methods that a report refers to, numbered from 0 as they turn up.
template <typename key>
class numbering {
 public:
  std::size_t of(const key& one) {
    const auto [found, isNew] = numbers_.emplace(one, all_.size());
    if (isNew) {
      all_.push_back(one);
    }
    return found->second;
  }
  const std::vector<key>& all() const { return all_; }

 private:
  std::unordered_map<key, std::size_t> numbers_;
  std::vector<key> all_;
};

class lockSessionWriter {
 public:
  lockSessionWriter(jsonWriter& json, const lockReport& report, const stackTable& stacks)
      : json_(json), report_(report), stacks_(stacks) {}

  void write() {
    const std::vector<threadSum> threads = threadsOf(report_);
    json_.beginObject();
    json_.member("source", report_.source).member("name", report_.sessionName);
    json_.member("id", report_.sessionId);
    writeTotals(threads.size());
    writeLookups();
    writeArray(json_, "locks", report_.locks, [&](const lockEntry& one) { writeLock(one); });
    writeArray(json_, "threads", threads, [&](const threadSum& one) { writeThreadSum(one); });
    writeArray(json_, "sites", sitesOf(report_, stacks_),
               [&](const siteSum& one) { writeSite(one); });
    writeArray(json_, "blockers", report_.blockers,
               [&](const blockerEntry& one) { writeBlocker(one); });
    writeArray(json_, "stacksOfNoLock", report_.stacksOfNoLock,
               [&](std::uint64_t hash) { json_.value(hashes_.of(hash)); });
    writeArray(json_, "stacks", hashes_.all(), [&](std::uint64_t hash) { writeStack(hash); });
    writeArray(json_, "frames", frames_.all(),
               [&](frameId frame) { json_.value(stacks_.method(frame)); });
    json_.endObject();
  }

 private:
  template <typename type>
  void writeTimes(const type& one) {
    json_.member("entries", one.entries).member("blockedSeconds", one.blockedSeconds);
    json_.member("waitedSeconds", one.waitedSeconds);
  }

  void writeTotals(std::size_t threads) {
    json_.key("totals").beginObject().member("locks", report_.locks.size());
    writeTimes(totalsOf(report_));
    json_.member("threads", threads).endObject();
  }

  void writeLookups() {
    json_.key("ownerLookups");
    if (!report_.lookups) {
      json_.null();
      return;
    }
    json_.beginObject().member("perSecond", report_.lookups->perSecond);
    json_.member("made", report_.lookups->made).member("leftOut", report_.lookups->leftOut);
    json_.endObject();
  }

  void writeStackUses(const std::vector<stackUse>& uses) {
    writeArray(json_, "stacks", uses, [&](const stackUse& use) {
      json_.beginArray().value(hashes_.of(use.hash)).value(use.count).endArray();
    });
  }

  void writeLock(const lockEntry& lock) {
    json_.beginObject().member("name", lock.name).member("class", classOf(lock.name));
    json_.member("identity", identityOf(lock.name));
    writeTimes(lock);
    writeValues(json_, "graph", lock.entriesPerMinute);
    writeArray(json_, "threads", lock.threads, [&](const threadEntry& thread) {
      json_.beginObject().member("name", thread.name);
      writeTimes(thread);
      writeStackUses(thread.stacks);
      json_.endObject();
    });
    json_.endObject();
  }

  void writeOwner(const blockerEntry& owner) {
    json_.member("timesOwner", owner.timesOwner);
    json_.member("estimatedTimesOwner", estimatedTimesOwner(report_, owner));
    json_.member("blockingPeriods", owner.blockingPeriods);
    json_.member("blockingSeconds", owner.blockingSeconds);
  }

  void writeThreadSum(const threadSum& sum) {
    json_.beginObject().member("name", sum.name).member("locks", sum.locks);
    writeTimes(sum);
    writeOwner(sum.asOwner);
    json_.endObject();
  }

  void writeSite(const siteSum& site) {
    json_.beginObject().member("method", site.method).member("entries", site.entries);
    json_.member("stacks", site.stacks);
    writeValues(json_, "locks", site.locks);
    json_.endObject();
  }

  void writeBlocker(const blockerEntry& blocker) {
    json_.beginObject().member("name", blocker.name);
    writeOwner(blocker);
    writeStackUses(blocker.stacks);
    json_.endObject();
  }

  void writeStack(std::uint64_t hash) {
    json_.beginObject().member("hash", std::to_string(hash));
    const std::vector<frameId>* frames = stacks_.find(hash);
    if (frames == nullptr) {
      json_.key("frames").null();
    } else {
      writeArray(json_, "frames", *frames, [&](frameId one) { json_.value(frames_.of(one)); });
    }
    json_.endObject();
  }

  jsonWriter& json_;
  const lockReport& report_;
  const stackTable& stacks_;
  numbering<std::uint64_t> hashes_;
  numbering<frameId> frames_;
};

void writeMemory(jsonWriter& json, const memoryReport& report) {
  std::uint64_t objects = 0;
  std::uint64_t bytes = 0;
  for (const classEntry& one : report.classes) {
    objects += one.objects;
    bytes += one.bytes;
  }
  json.beginObject().member("source", report.source).member("name", report.sessionName);
  json.member("id", report.sessionId).key("totals").beginObject();
  json.member("classes", report.classes.size()).member("objects", objects);
  json.member("bytes", std::to_string(bytes)).endObject();
  writeValues(json, "generations", generationsOf(report));
  writeArray(json, "classes", report.classes, [&](const classEntry& one) {
    json.beginObject().member("name", one.name).member("objects", one.objects);
    json.member("bytes", std::to_string(one.bytes));
    writeArray(json, "generations", one.generations, [&](const generationEntry& generation) {
      json.beginObject().member("generation", generation.generation);
      json.member("objects", generation.objects);
      json.member("bytes", std::to_string(generation.bytes)).endObject();
    });
    json.endObject();
  });
  json.endObject();
}

void writeSide(jsonWriter& json, std::string_view name, const profile& side) {
  json.key(name).beginObject();
  writeValues(json, "inputs", side.inputs);
  writeRun(json, side.run);
  writeValues(json, "problems", side.problems);
  json.endObject();
}

}  // namespace

void writeJson(const comparison& both, std::ostream& out) {
  jsonWriter json(out);
  json.beginObject().member("version", kVersion);
  writeSide(json, "before", both.before);
  writeSide(json, "after", both.after);
  json.key("threshold").beginObject().member("percent", both.limit.percent);
  json.member("least", both.limit.least).endObject();
  writeArray(json, "tables", both.tables, [&](const comparedTable& table) {
    json.beginObject().member("name", table.name).member("measure", table.measure);
    json.member("notRecordedIn", table.notRecordedIn);
    json.member("sessionsBefore", table.sessionsBefore);
    json.member("sessionsAfter", table.sessionsAfter);
    writeValues(json, "notes", table.notes);
    writeArray(json, "rows", table.rows, [&](const comparedSum& row) {
      json.beginObject().member("name", row.name).member("before", row.before);
      json.member("after", row.after);
      json.member("change", nameOf(changeOf(row, both.limit))).endObject();
    });
    json.endObject();
  });
  json.endObject();
  out << '\n';
}

void writeJson(const profile& all, std::ostream& out, thrownIn where, recordForm form) {
  jsonWriter json(out);
  json.beginObject().member("version", kVersion);
  writeValues(json, "inputs", all.inputs);
  writeRun(json, all.run);
  writeArray(json, "locks", all.lockReports, [&](const lockReport& report) {
    lockSessionWriter(json, report, all.stacks).write();
  });
  writeArray(json, "contention", all.contentionReports,
             [&](const contentionReport& report) { writeContention(json, report); });
  writeExceptions(json, all.exceptions, where, form);
  writeArray(json, "allocations", all.allocations,
             [&](const allocationSession& session) { writeAllocations(json, session, form); });
  writeArray(json, "memory", all.memoryReports,
             [&](const memoryReport& report) { writeMemory(json, report); });
  writeArray(json, "findings", findingsOf(all, where), [&](const finding& one) {
    json.beginObject().member("question", one.question).member("view", one.view);
    json.member("text", one.text).member("isKnown", one.isKnown).endObject();
  });
  writeValues(json, "unfinished", all.unfinished);
  writeValues(json, "notes", all.notes);
  writeValues(json, "problems", all.problems);
  json.endObject();
  out << '\n';
}

}  // namespace viewer
