#include "locks/lockReport.h"

#include <string>
#include <utility>

namespace agent {

namespace {

constexpr std::int64_t kNanosPerSecond = 1000000000;

// Deliberate: every number of the report is the low 32 bits of its value, signed.
template <typename Number>
std::int32_t cut(Number value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

// Deliberate: whole seconds, cut towards 0 and then to 32 bits.
std::int32_t seconds(std::uint64_t nanos) {
  return cut(static_cast<std::int64_t>(nanos) / kNanosPerSecond);
}

// `beans` has pairs of hash and bean.
template <typename Beans>
void writeStackTraces(support::jsonWriter& json, const Beans& beans) {
  json.key("stacktracebean").beginObject();
  for (const auto& [hash, bean] : beans) {
    json.key(std::to_string(hash)).beginObject();
    json.member("count", cut(bean.count));
    json.member("hashcode", std::to_string(bean.hashcode));
    json.endObject();
  }
  json.endObject();
}

void writeThread(support::jsonWriter& json, const threadSnapshot& thread) {
  json.key(thread.name).beginObject();
  json.member("name", thread.name);
  json.member("count", cut(thread.count));
  json.member("totalBlockTime", seconds(thread.totalBlockTime));
  json.member("totalWaitTime", seconds(thread.totalWaitTime));
  writeStackTraces(json, thread.stacktracebean);
  json.endObject();
}

// "graph": exactly `size` numbers; slots beyond those that are counted are 0.
void writeGraph(support::jsonWriter& json, const std::vector<std::uint32_t>& slots,
                std::int32_t size) {
  json.key("graph").beginArray();
  for (std::int32_t i = 0; i < size; ++i) {
    const auto slot = static_cast<std::size_t>(i);
    json.number(slot < slots.size() ? cut(slots[slot]) : 0);
  }
  json.endArray();
}

void writeLock(support::jsonWriter& json, const lockSnapshot& lock, std::int32_t graphSize) {
  json.key(lock.lockName).beginObject();
  json.member("id", lock.id);
  json.member("count", cut(lock.count));
  writeGraph(json, lock.graph, graphSize);
  json.member("totalBlockTime", seconds(lock.totalBlockTime));
  json.member("totalWaitTime", seconds(lock.totalWaitTime));
  json.key("threadbean").beginObject();
  for (const threadSnapshot& each : lock.threads) {
    writeThread(json, each);
  }
  json.endObject();
  json.endObject();
}

// Deliberate: the texts are empty; they are in the stack file.
void writeStackHashes(support::jsonWriter& json, const std::vector<std::uint64_t>& hashes) {
  json.key("stacktracemap").beginObject();
  for (const std::uint64_t hash : hashes) {
    json.member(std::to_string(hash), "");
  }
  json.endObject();
}

void writeBlockingThreads(support::jsonWriter& json, const blockingThreadBeans& owners) {
  json.key("blockingThreads").beginObject();
  for (const auto& [name, owner] : owners) {
    json.key(name).beginObject();
    json.member("name", name);
    json.member("blockingCount", cut(owner.blockingCount));
    json.member("blockCount", cut(owner.blockCount));
    json.member("totalBlockingTime", seconds(owner.totalBlockingTime));
    writeStackTraces(json, owner.stacktracebean);
    json.endObject();
  }
  json.endObject();
}

void writeOwnerLookups(support::jsonWriter& json, const ownerLookupCounts& lookups,
                       std::int32_t perSecond) {
  json.key("ownerLookups").beginObject();
  json.member("perSecond", perSecond);
  json.member("made", lookups.made);
  json.member("leftOut", lookups.skipped);
  json.endObject();
}

}  // namespace

sessionSnapshot snapshotOf(const std::shared_ptr<lockStore>& store, rankedLocks ranked,
                           std::int32_t lookupsPerSecond) {
  sessionSnapshot session;
  session.sessionName = store->config->sessionName;
  session.sessionId = store->config->sessionId;
  session.graphSize = store->config->graphSize;
  session.nothingRanked = ranked.empty();
  session.locks.reserve(ranked.size());
  for (; !ranked.empty(); ranked.pop()) {
    const rankedLock& each = ranked.top();
    // A lock of an earlier session is not reported any more.
    if (each.store.lock() == store && each.bean->hasThreads()) {
      session.locks.push_back(each.bean->snapshot());
    }
  }
  session.stackHashes = store->stackTraces.hashes();
  for (const auto& [lockName, top] : store->topLockMap()) {
    mergeBlockingThreads(session.blockingThreads, top->snapshot().blockingThreads);
  }
  if (lookupsPerSecond > 0) {
    session.lookupsPerSecond = lookupsPerSecond;
    session.ownerLookups = {store->ownerLookups.made.load(), store->ownerLookups.skipped.load()};
  }
  return session;
}

void writeLockReport(support::jsonWriter& json, const sessionSnapshot& session) {
  json.beginObject();
  json.member("sessionname", session.sessionName);
  json.member("sessionid", cut(session.sessionId));
  json.key("lockmap").beginObject();
  for (const lockSnapshot& each : session.locks) {
    writeLock(json, each, session.graphSize);
  }
  json.endObject();
  writeStackHashes(json, session.stackHashes);
  writeBlockingThreads(json, session.blockingThreads);
  if (session.ownerLookups) {
    writeOwnerLookups(json, *session.ownerLookups, session.lookupsPerSecond);
  }
  json.endObject();
}

}  // namespace agent
