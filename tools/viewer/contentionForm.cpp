#include "contentionForm.h"

#include <unordered_map>

#include "contentionSites.h"
#include "contentionWords.h"

namespace viewer {
namespace {

// What a lock had in one window; the report keeps both.
struct windowShare {
  const contentionWindow* window;
  const windowLock* share;
};
using sharesById = std::unordered_map<std::uint64_t, std::vector<windowShare>>;

sharesById sharesOf(const contentionReport& report) {
  sharesById result;
  for (const contentionWindow& window : report.windows) {
    for (const windowLock& share : window.locks) {
      result[share.id].push_back({&window, &share});
    }
  }
  return result;
}

class contentionWriter {
 public:
  contentionWriter(jsonWriter& json, const contentionReport& report)
      : json_(json), report_(report), shares_(sharesOf(report)) {}

  void write() {
    json_.beginObject().member("source", report_.source);
    json_.member("started", report_.startedAt).member("written", report_.writtenAt);
    json_.member("ended", report_.endedAt).member("filtered", report_.isFiltered);
    json_.member("parks", report_.parks);
    writeSettings();
    writeTotals();
    writeArray(json_, "locks", report_.locks, [&](const auto& one) { writeLock(one); });
    writeArray(json_, "otherLocks", report_.otherLocks, [&](const auto& one) { writeOther(one); });
    writeArray(json_, "windows", report_.windows, [&](const auto& one) { writeWindow(one); });
    writeArray(json_, "stuck", report_.stuck, [&](const auto& one) { writeStuck(one); });
    writeArray(json_, "deadlocks", report_.deadlocks, [&](const auto& one) { writeCircle(one); });
    writeCost();
    writeOmissions();
    writeValues(json_, "missing", omissionsOf(report_));
    json_.endObject();
  }

 private:
  void writeSettings() {
    const contentionSettings& settings = report_.settings;
    json_.key("settings").beginObject().member("locks", settings.locks);
    json_.member("samplesPerSecond", settings.samplesPerSecond);
    json_.member("budgetPercent", settings.budgetPercent);
    json_.member("stuckMillis", settings.stuckMillis);
    json_.member("windowMillis", settings.windowMillis).endObject();
  }

  void writeTotals() {
    const contentionTotals totals = totalsOf(report_);
    json_.key("totals").beginObject().member("locks", totals.locks);
    json_.member("entries", totals.entries).member("totalNanos", totals.nanos);
    json_.member("stillBlocked", totals.stillBlocked).endObject();
  }

  // What locks and sums of locks have both.
  void writeCounts(const contentionLock& lock) {
    json_.member("class", lock.className).member("kind", nameOf(lock.kind));
    json_.member("idle", isIdle(report_, lock));
    json_.member("entries", lock.entries).member("blockedNanos", lock.blockedNanos);
    json_.member("maxNanos", lock.maxNanos);
    json_.member("first", lock.firstAt).member("last", lock.lastAt);
    writeValues(json_, "histogram", lock.histogram);
    writeArray(json_, "pairs", lock.pairs, [&](const auto& one) { writePair(one); });
  }

  void writeLock(const contentionLock& lock) {
    json_.beginObject().member("id", lock.id).member("name", nameOf(lock));
    json_.member("identity", lock.identity).member("field", lock.field);
    json_.member("stillBlocked", lock.stillBlocked);
    json_.member("stillBlockedNanos", lock.stillBlockedNanos);
    json_.member("totalNanos", totalOf(lock));
    json_.member("longestNanos", longestOf(report_, lock).nanos);
    const auto shares = shares_.find(lock.id);
    writeArray(json_, "windows",
               shares == shares_.end() ? std::vector<windowShare>() : shares->second,
               [&](const windowShare& one) {
                 json_.beginObject().member("started", one.window->startedAt);
                 json_.member("ended", one.window->endedAt);
                 json_.member("blockedNanos", one.share->blockedNanos);
                 json_.member("entries", one.share->entries).endObject();
               });
    writeCounts(lock);
    json_.endObject();
  }

  void writeOther(const contentionLock& lock) {
    json_.beginObject();
    writeCounts(lock);
    json_.endObject();
  }

  void writeStack(std::string_view name, const std::optional<std::uint64_t>& stack) {
    if (stack) {
      writeValues(json_, name, report_.stacks[*stack].frames);
    } else {
      json_.key(name).null();
    }
  }

  bool isCut(const std::optional<std::uint64_t>& stack) const {
    return stack && report_.stacks[*stack].isCut;
  }

  void writePair(const contentionPair& pair) {
    json_.beginObject();
    writeStack("waiter", pair.waiterStack);
    writeStack("owner", pair.ownerStack);
    json_.member("waiterThread", pair.waiterThread).member("ownerThread", pair.ownerThread);
    json_.member("waiterSite", siteOf(report_, pair.waiterStack));
    const ownerPlace owner = ownerPlaceOf(report_, pair.ownerStack, pair.holdingFrame);
    json_.member("ownerSite", owner.site).member("ownerNow", owner.now);
    json_.member("waiterCut", isCut(pair.waiterStack)).member("ownerCut", isCut(pair.ownerStack));
    json_.member("holdingFrame", pair.holdingFrame).member("ownerNote", pair.ownerNote);
    json_.member("ownerWaitsFor", pair.ownerWaitsFor);
    json_.member("nanos", pair.nanos).member("samples", pair.samples).endObject();
  }

  void writeWindow(const contentionWindow& window) {
    json_.beginObject().member("started", window.startedAt).member("ended", window.endedAt);
    json_.member("blockedNanos", window.blockedNanos).member("entries", window.entries);
    json_.member("waitNanos", window.waitNanos).member("waits", window.waits).endObject();
  }

  void writeStuck(const stuckLock& stuck) {
    json_.beginObject().member("lock", stuck.lock).member("name", lockNameOf(report_, stuck.lock));
    json_.member("since", stuck.sinceAt).member("waiterCount", stuck.waiterCount);
    writeArray(json_, "waiters", stuck.waiters, [&](const stuckThread& one) {
      json_.beginObject().member("thread", one.thread).member("since", one.sinceAt);
      writeStack("stack", one.stack);
      json_.member("site", siteOf(report_, one.stack)).endObject();
    });
    json_.key("owner");
    if (stuck.owner.isKnown) {
      writeStuckOwner(stuck.owner);
    } else {
      json_.null();
    }
    json_.member("ownerNote", stuck.ownerNote).endObject();
  }

  void writeStuckOwner(const stuckOwner& owner) {
    json_.beginObject().member("thread", owner.thread);
    writeStack("stack", owner.stack);
    const ownerPlace place = ownerPlaceOf(report_, owner.stack, owner.holdingFrame);
    json_.member("site", place.site).member("now", place.now);
    json_.member("holdingFrame", owner.holdingFrame).member("waitsFor", owner.waitsFor);
    json_.endObject();
  }

  void writeCircle(const std::vector<deadlockedThread>& circle) {
    json_.beginArray();
    for (const deadlockedThread& one : circle) {
      json_.beginObject().member("thread", one.thread).member("waitsFor", one.waitsFor);
      json_.member("name", lockNameOf(report_, one.waitsFor)).endObject();
    }
    json_.endArray();
  }

  void writeCost() {
    const contentionCost& cost = report_.cost;
    json_.key("cost").beginObject();
    json_.member("ticks", cost.ticks).member("ticksLeftOut", cost.ticksLeftOut);
    json_.member("safepoints", cost.safepoints).member("safepointNanos", cost.safepointNanos);
    json_.member("handshakes", cost.handshakes).member("handshakeNanos", cost.handshakeNanos);
    json_.member("processorNanos", cost.processorNanos).endObject();
  }

  void writeOmissions() {
    const contentionOmissions& omitted = report_.omitted;
    json_.key("omitted").beginObject().member("startsNotSeen", omitted.startsNotSeen);
    json_.member("blocksNotSampled", omitted.blocksNotSampled);
    json_.member("locksNotSampled", omitted.locksNotSampled);
    json_.member("ownersChanged", omitted.ownersChanged);
    json_.member("otherLocks", omitted.otherLocks).member("classes", omitted.classes);
    json_.member("pairs", omitted.pairs).member("pairNanos", omitted.pairNanos);
    json_.member("stacks", omitted.stacks).member("windows", omitted.windows);
    json_.member("windowLocks", omitted.windowLocks).member("stuck", omitted.stuck).endObject();
  }

  jsonWriter& json_;
  const contentionReport& report_;
  const sharesById shares_;
};

}  // namespace

void writeContention(jsonWriter& json, const contentionReport& report) {
  contentionWriter(json, report).write();
}

}  // namespace viewer
