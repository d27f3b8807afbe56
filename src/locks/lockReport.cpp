#include "locks/lockReport.h"

#include <utility>
#include <vector>

namespace agent {

namespace {

constexpr std::int64_t kNanosPerSecond = 1000000000;

// Every number of the report is the low 32 bits of its value, signed.
template <typename Number>
std::int32_t cut(Number value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

std::int32_t seconds(std::uint64_t nanos) {
  return cut(static_cast<std::int64_t>(nanos) / kNanosPerSecond);
}

void mergeStackTraces(stackTraceBeans& into, const stackTraceBeans& from) {
  for (const auto& [hash, bean] : from) {
    const auto [merged, isNew] = into.try_emplace(hash, bean);
    if (isNew) {
      continue;
    }
    merged->second.count += bean.count;
    merged->second.hashcode = hash;
  }
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

void writeThread(support::jsonWriter& json, std::string_view name, threadBean& thread) {
  std::vector<std::pair<std::uint64_t, stackTraceBean>> stackTraces;
  {
    const support::lockGuard guard(thread.stackMutex);
    stackTraces.assign(thread.stacktracebean.begin(), thread.stacktracebean.end());
  }
  json.key(name).beginObject();
  json.member("name", name);
  json.member("count", cut(thread.count.load()));
  json.member("totalBlockTime", seconds(thread.totalBlockTime.load()));
  json.member("totalWaitTime", seconds(thread.totalWaitTime.load()));
  writeStackTraces(json, stackTraces);
  json.endObject();
}

// "graph": exactly `size` numbers; slots beyond those that are counted are 0.
void writeGraph(support::jsonWriter& json, lockBean& lock, std::int32_t size) {
  std::vector<std::uint32_t> slots;
  {
    const support::lockGuard guard(lock.mutex);
    slots = lock.graph;
  }
  json.key("graph").beginArray();
  for (std::int32_t i = 0; i < size; ++i) {
    const auto slot = static_cast<std::size_t>(i);
    json.number(slot < slots.size() ? cut(slots[slot]) : 0);
  }
  json.endArray();
}

}  // namespace

blockingThreadBeans mergeBlockingThreads(const std::map<std::string_view, topLockBean*>& topLocks) {
  blockingThreadBeans merged;
  for (const auto& [lockName, top] : topLocks) {
    const support::lockGuard guard(top->mutex);
    for (const auto& [ownerName, owner] : top->blockingThreads) {
      const auto [known, isNew] = merged.try_emplace(ownerName, owner);
      if (isNew) {
        continue;
      }
      known->second.blockCount += owner.blockCount;
      known->second.blockingCount += owner.blockingCount;
      known->second.totalBlockingTime += owner.totalBlockingTime;
      mergeStackTraces(known->second.stacktracebean, owner.stacktracebean);
    }
  }
  return merged;
}

void writeSession(support::jsonWriter& json, const LockSessionConfig& config) {
  json.member("sessionname", config.sessionName);
  json.member("sessionid", cut(config.sessionId));
}

std::size_t writeLock(support::jsonWriter& json, lockBean& lock, std::int32_t graphSize) {
  std::vector<std::pair<std::string_view, threadBean*>> threads;
  {
    const support::lockGuard guard(lock.mutex);
    threads.reserve(lock.threadbean.size());
    for (auto& [name, thread] : lock.threadbean) {
      threads.emplace_back(name, &thread);
    }
  }
  json.key(lock.lockName).beginObject();
  json.member("id", lock.name());
  json.member("count", cut(lock.count.load()));
  writeGraph(json, lock, graphSize);
  json.member("totalBlockTime", seconds(lock.totalBlockTime.load()));
  json.member("totalWaitTime", seconds(lock.totalWaitTime.load()));
  json.key("threadbean").beginObject();
  for (const auto& [name, thread] : threads) {
    writeThread(json, name, *thread);
  }
  json.endObject();
  json.endObject();
  return threads.size();
}

void writeStackHashes(support::jsonWriter& json, const lockStore& store) {
  json.key("stacktracemap").beginObject();
  for (const std::uint64_t hash : store.stackHashes()) {
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

ownerLookupCounts writeOwnerLookups(support::jsonWriter& json, const lockStore& store,
                                    std::int32_t perSecond) {
  const ownerLookupCounts counts{store.madeOwnerLookups.load(std::memory_order_relaxed),
                                 store.leftOutOwnerLookups.load(std::memory_order_relaxed)};
  json.key("ownerLookups").beginObject();
  json.member("perSecond", perSecond);
  json.member("made", counts.made);
  json.member("leftOut", counts.skipped);
  json.endObject();
  return counts;
}

}  // namespace agent
