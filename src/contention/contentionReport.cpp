#include "contention/contentionReport.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "contention/lockNames.h"
#include "instruments/costAccount.h"
#include "support/version.h"

namespace agent {

namespace {

using support::jsonWriter;

constexpr jsonWriter::layout kLines = jsonWriter::layout::lines;

constexpr std::array<const char*, 5> kKinds = {"monitor", "lock", "wait", "park", "idle"};
constexpr std::array<const char*, 6> kNotes = {"",        "virtual", "handedOver",
                                               "notKept", "changed", "none"};

using pairEntry = std::pair<const pairKey, pairCounts>;
using pairList = std::vector<const pairEntry*>;

std::uint64_t millis(std::int64_t steady) {
  return static_cast<std::uint64_t>(instruments::epochMillisOf(steady));
}

void writeText(jsonWriter& json, std::string_view name, std::string_view text) {
  if (text.empty()) {
    json.nullMember(name);
  } else {
    json.member(name, text);
  }
}

// Ids begin with 1.
void writeId(jsonWriter& json, std::string_view name, std::uint32_t id) {
  if (id == 0) {
    json.nullMember(name);
  } else {
    json.member(name, std::uint64_t{id});
  }
}

// Writes the parts of one report.
class reportWriter {
 public:
  reportWriter(jsonWriter& json, const blockRecorder& recorder, const contentionSamples& samples)
      : json_(json), recorder_(recorder), samples_(samples) {}

  void writeHead(const contentionSession& session, std::int64_t now);
  void writeLocks(JNIEnv* jni, const contentionSampler& sampler);
  void writeWindows();
  void writeStacks();
  void writeStuck();
  void writeCost();
  void writeOmissions();

 private:
  struct lockRow {
    const lockRecord* record;
    blockTotals totals;
    contentionSampler::blockedNow blocked;
  };

  std::vector<lockRow> rows(JNIEnv* jni, const std::vector<contentionSampler::blockedNow>& blocked);
  std::map<std::uint32_t, pairList> pairsByLock() const;
  // The id that a lock has in this report.
  std::uint32_t idOf(std::uint32_t lock) const {
    const auto same = sameLock_.find(lock);
    return same == sameLock_.end() ? lock : same->second;
  }
  void writeName(std::string_view member, std::uint32_t id);
  void writeTotals(const blockTotals& totals);
  void writeHistogram(const blockTotals& totals);
  void writeOwner(const ownerSeen& owner);
  void writePairs(const pairList& pairs);
  void writePair(const pairEntry& pair);
  void writeOthers(const std::map<std::uint32_t, pairList>& pairs,
                   const contentionSampler::blockedOthers& blocked);
  void writeBlocked(const contentionSampler::blockedNow& blocked);
  void writeWindow(const contentionWindow& window);

  jsonWriter& json_;
  const blockRecorder& recorder_;
  const contentionSamples& samples_;
  std::unordered_map<std::uint32_t, std::uint32_t> sameLock_;  // ids of second records
};

void reportWriter::writeHead(const contentionSession& session, std::int64_t now) {
  json_.member("report", "contention").member("version", 1);
  json_.member("agent", support::kAgentVersion);
  json_.member("startedAt", millis(session.started)).member("writtenAt", millis(now));
  if (session.ended == 0) {
    json_.nullMember("endedAt");
  } else {
    json_.member("endedAt", millis(session.ended));
  }
  const contentionSettings& settings = session.settings;
  json_.key("settings").beginObject();
  json_.member("locks", settings.locks).member("samplesPerSecond", settings.samplesPerSecond);
  json_.member("budgetPercent", settings.budgetPercent);
  json_.member("stuckMillis", static_cast<std::uint64_t>(settings.stuckMillis));
  json_.member("windowMillis", static_cast<std::uint64_t>(settings.windowMillis));
  json_.endObject();
  json_.member("parks", session.parks);
}

// The locks with something to show. Two threads that met a new lock at once may have given it two
// records.
std::vector<reportWriter::lockRow> reportWriter::rows(
    JNIEnv* jni, const std::vector<contentionSampler::blockedNow>& blocked) {
  std::vector<lockRow> found;
  std::unordered_multimap<jint, std::size_t> byHash;
  const lockTable& locks = recorder_.locks();
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    if (!locks.isLive(i) || locks.at(i).kind == lockKind::idle) {
      continue;
    }
    const lockRecord& record = locks.at(i);
    lockRow row{&record, record.counts.read(), blocked[i]};
    if (row.totals.entries == 0 && row.blocked.threads == 0) {
      continue;
    }
    const auto [first, last] = byHash.equal_range(record.hash);
    const auto same = std::find_if(first, last, [&](const auto& each) {
      const lockRecord& other = *found[each.second].record;
      return other.by == record.by && jni->IsSameObject(record.object, nullptr) == JNI_FALSE &&
             jni->IsSameObject(other.object, record.object) != JNI_FALSE;
    });
    if (same == last) {
      byHash.emplace(record.hash, found.size());
      found.push_back(row);
      continue;
    }
    lockRow& other = found[same->second];
    other.totals.add(row.totals);
    other.blocked.threads += row.blocked.threads;
    other.blocked.nanos += row.blocked.nanos;
    sameLock_[record.id] = other.record->id;
  }
  const auto nanos = [](const lockRow& row) { return row.totals.nanos + row.blocked.nanos; };
  std::sort(found.begin(), found.end(),
            [&](const lockRow& a, const lockRow& b) { return nanos(a) > nanos(b); });
  return found;
}

std::map<std::uint32_t, pairList> reportWriter::pairsByLock() const {
  std::map<std::uint32_t, pairList> pairs;
  for (const pairEntry& each : samples_.pairs) {
    pairs[idOf(each.first.lock)].push_back(&each);
  }
  return pairs;
}

void reportWriter::writeLocks(JNIEnv* jni, const contentionSampler& sampler) {
  const std::vector<lockRow> all = rows(jni, sampler.blocked());
  std::map<std::uint32_t, pairList> pairs = pairsByLock();
  json_.key("locks").beginArray(kLines);
  for (const lockRow& each : all) {
    const lockRecord& record = *each.record;
    json_.beginObject();
    json_.member("id", std::uint64_t{record.id});
    writeText(json_, "class", publicClass(samples_.classNames[record.cls], record.kind));
    json_.member("identity", identityText(record.hash));
    writeText(json_, "field", samples_.fieldOf(record.id));
    json_.member("kind", kKinds.at(static_cast<std::size_t>(record.kind)));
    writeTotals(each.totals);
    writeBlocked(each.blocked);
    const auto own = pairs.extract(record.id);
    writePairs(own.empty() ? pairList() : own.mapped());
    json_.endObject();
  }
  json_.endArray();
  writeOthers(pairs, sampler.blockedAtOthers());
}

// Sums of the locks without record, with the pairs of those that had one.
void reportWriter::writeOthers(const std::map<std::uint32_t, pairList>& pairs,
                               const contentionSampler::blockedOthers& blocked) {
  std::map<std::pair<std::uint32_t, std::size_t>, pairList> byClass;
  for (const auto& [lock, list] : pairs) {
    for (const pairEntry* const each : list) {
      byClass[{each->second.cls, static_cast<std::size_t>(each->second.by)}].push_back(each);
    }
  }
  json_.key("otherLocks").beginArray(kLines);
  const lockTable& locks = recorder_.locks();
  for (std::uint32_t i = 0; i < lockTable::kClasses; ++i) {
    for (std::size_t by = 0; locks.isClass(i) && by < kChannels; ++by) {
      const lockClass& cls = locks.classAt(i);
      const lockKind kind = lockTable::kindOf(static_cast<channel>(by), cls);
      const blockTotals totals = cls.sums.at(by).read();
      const auto own = byClass.find({i, by});
      const auto still = blocked.find(blockRecorder::othersOf(static_cast<channel>(by), i));
      if (kind == lockKind::idle ||
          (totals.entries == 0 && own == byClass.end() && still == blocked.end())) {
        continue;
      }
      json_.beginObject();
      writeText(json_, "class", publicClass(samples_.classNames[i], kind));
      json_.member("kind", kKinds.at(static_cast<std::size_t>(kind)));
      writeTotals(totals);
      writeBlocked(still == blocked.end() ? contentionSampler::blockedNow{} : still->second);
      writePairs(own == byClass.end() ? pairList() : own->second);
      json_.endObject();
    }
  }
  json_.endArray();
}

void reportWriter::writeBlocked(const contentionSampler::blockedNow& blocked) {
  json_.member("stillBlocked", std::uint64_t{blocked.threads});
  json_.member("stillBlockedNanos", blocked.nanos);
}

void reportWriter::writeTotals(const blockTotals& totals) {
  json_.member("entries", totals.entries).member("blockedNanos", totals.nanos);
  json_.member("maxNanos", totals.maxNanos);
  if (totals.first == 0) {
    json_.nullMember("firstAt").nullMember("lastAt");
  } else {
    json_.member("firstAt", millis(totals.first)).member("lastAt", millis(totals.last));
  }
  writeHistogram(totals);
}

void reportWriter::writeHistogram(const blockTotals& totals) {
  const auto last = std::find_if(totals.histogram.rbegin(), totals.histogram.rend(),
                                 [](std::uint64_t each) { return each != 0; });
  json_.key("histogram").beginArray();
  std::for_each(totals.histogram.begin(), last.base(),
                [&](std::uint64_t each) { json_.number(each); });
  json_.endArray();
}

void reportWriter::writeName(std::string_view member, std::uint32_t id) {
  if (id == 0) {
    json_.nullMember(member);
  } else {
    json_.member(member, samples_.names.at(id));
  }
}

void reportWriter::writePairs(const pairList& pairs) {
  pairList sorted = pairs;
  std::sort(sorted.begin(), sorted.end(), [](const pairEntry* a, const pairEntry* b) {
    return a->second.nanos > b->second.nanos;
  });
  json_.key("pairs").beginArray(kLines);
  for (const pairEntry* const each : sorted) {
    writePair(*each);
  }
  json_.endArray();
}

void reportWriter::writePair(const pairEntry& pair) {
  const auto& [key, counts] = pair;
  json_.beginObject(jsonWriter::layout::oneLine);
  writeName("waiterThread", key.waiter);
  writeId(json_, "waiterStack", key.waiterStack);
  writeName("ownerThread", key.owner.thread);
  writeId(json_, "ownerStack", key.owner.stack);
  if (key.owner.holdingFrame < 0) {
    json_.nullMember("holdingFrame");
  } else {
    json_.member("holdingFrame", key.owner.holdingFrame);
  }
  writeText(json_, "ownerNote", kNotes.at(static_cast<std::size_t>(key.owner.note)));
  writeId(json_, "ownerWaitsFor", idOf(key.owner.waitsFor));
  json_.member("nanos", counts.nanos).member("samples", counts.samples);
  json_.endObject();
}

void reportWriter::writeWindow(const contentionWindow& window) {
  json_.beginObject();
  json_.member("startedAt", millis(window.start)).member("endedAt", millis(window.end));
  json_.member("blockedNanos", window.nanos).member("entries", window.entries);
  json_.member("waitNanos", window.waitNanos).member("waits", window.waits);
  json_.key("locks").beginArray(kLines);
  const std::size_t count = std::min(window.locks.size(), contentionSamples::kWindowLocks);
  for (std::size_t i = 0; i < count; ++i) {
    const windowShare& each = window.locks[i];
    json_.beginObject(jsonWriter::layout::oneLine);
    json_.member("id", std::uint64_t{idOf(each.lock)});
    json_.member("blockedNanos", each.nanos).member("entries", each.entries);
    json_.endObject();
  }
  json_.endArray();
  json_.endObject();
}

void reportWriter::writeWindows() {
  json_.key("windows").beginArray(kLines);
  for (const contentionWindow& each : samples_.windows.windows()) {
    writeWindow(each);
  }
  writeWindow(samples_.current);
  json_.endArray();
}

void reportWriter::writeStacks() {
  json_.key("stacks").beginArray(kLines);
  for (std::uint32_t id = 1; id <= samples_.stacks.size(); ++id) {
    const instruments::stackTable::stack& stack = samples_.stacks.at(id);
    json_.beginObject().member("id", std::uint64_t{id});
    json_.key("frames").beginArray();
    for (const std::uint32_t frame : stack.frames) {
      json_.string(samples_.stacks.frame(frame));
    }
    json_.endArray();
    json_.key("isCut").boolean(stack.isCut);
    json_.endObject();
  }
  json_.endArray();
}

void reportWriter::writeStuck() {
  json_.key("stuck").beginArray(kLines);
  for (const stuckLock& each : samples_.stuck) {
    json_.beginObject().member("lock", std::uint64_t{idOf(each.lock)});
    json_.member("sinceAt", millis(each.since));
    json_.member("waiterCount", std::uint64_t{each.waiterCount});
    json_.key("waiters").beginArray(kLines);
    for (const stuckThread& waiter : each.waiters) {
      json_.beginObject(jsonWriter::layout::oneLine);
      writeName("thread", waiter.thread);
      json_.member("sinceAt", millis(waiter.since));
      writeId(json_, "stack", waiter.stack);
      json_.endObject();
    }
    json_.endArray();
    writeOwner(each.owner);
    json_.endObject();
  }
  json_.endArray();
  json_.key("deadlocks").beginArray(kLines);
  for (const std::vector<deadlockStep>& circle : samples_.deadlocks) {
    json_.beginArray(kLines);
    for (const deadlockStep& step : circle) {
      json_.beginObject(jsonWriter::layout::oneLine);
      writeName("thread", step.thread);
      json_.member("waitsFor", std::uint64_t{idOf(step.waitsFor)});
      json_.endObject();
    }
    json_.endArray();
  }
  json_.endArray();
}

void reportWriter::writeOwner(const ownerSeen& owner) {
  if (owner.note == ownerNote::known) {
    json_.key("owner").beginObject(jsonWriter::layout::oneLine);
    writeName("thread", owner.thread);
    writeId(json_, "stack", owner.stack);
    if (owner.holdingFrame < 0) {
      json_.nullMember("holdingFrame");
    } else {
      json_.member("holdingFrame", owner.holdingFrame);
    }
    writeId(json_, "waitsFor", idOf(owner.waitsFor));
    json_.endObject();
  } else {
    json_.nullMember("owner");
  }
  writeText(json_, "ownerNote", kNotes.at(static_cast<std::size_t>(owner.note)));
}

void reportWriter::writeCost() {
  const instruments::cost& cost = samples_.cost.total();
  json_.key("cost").beginObject();
  json_.member("ticks", cost.ticks).member("ticksLeftOut", cost.ticksLeftOut);
  json_.member("safepoints", cost.safepoints).member("safepointNanos", cost.safepointNanos);
  json_.member("handshakes", cost.handshakes).member("handshakeNanos", cost.handshakeNanos);
  json_.member("processorNanos", cost.processorNanos);
  json_.endObject();
}

void reportWriter::writeOmissions() {
  const blockRecorder::omissions& omitted = recorder_.omitted();
  json_.key("omitted").beginObject();
  json_.member("startsNotSeen", omitted.startsNotSeen.load());
  json_.member("blocksNotSampled", omitted.notSampled.load());
  json_.member("locksNotSampled", samples_.locksNotSampled);
  json_.member("ownersChanged", samples_.ownersChanged);
  json_.member("otherLocks", omitted.otherLocks.load()).member("classes", omitted.classes.load());
  json_.member("pairs", samples_.pairsDropped).member("pairNanos", samples_.pairNanosDropped);
  json_.member("names", samples_.names.dropped());
  json_.member("stacks", samples_.stacks.dropped());
  json_.member("windows", samples_.windows.dropped());
  json_.member("windowLocks", samples_.windowLocksDropped);
  json_.member("stuck", samples_.stuckDropped);
  json_.endObject();
}

}  // namespace

void writeContentionReport(jsonWriter& json, JNIEnv* jni, const contentionSession& session,
                           const blockRecorder& recorder, const contentionSamples& samples,
                           const contentionSampler& sampler, std::int64_t now) {
  reportWriter writer(json, recorder, samples);
  json.beginObject();
  writer.writeHead(session, now);
  writer.writeLocks(jni, sampler);
  writer.writeWindows();
  writer.writeStacks();
  writer.writeStuck();
  writer.writeCost();
  writer.writeOmissions();
  json.endObject();
}

}  // namespace agent
