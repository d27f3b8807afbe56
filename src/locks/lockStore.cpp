#include "locks/lockStore.h"

#include <algorithm>

namespace agent {

namespace {

std::uint64_t keyOf(jint hash) {
  return static_cast<std::uint32_t>(hash);
}

}  // namespace

LockSessionConfig::LockSessionConfig(std::int64_t id, std::string name, std::int64_t seconds,
                                     std::int32_t topLocks, std::int32_t locks,
                                     std::int32_t threadsPerLock, std::int32_t threads,
                                     std::int32_t stackTraces, std::int32_t stackTracesPerThread,
                                     std::string stackFile, std::int32_t graphSlots)
    : sessionId(id),
      sessionName(std::move(name)),
      duration(seconds),
      topLockCount(topLocks),
      maxLockCount(locks),
      maxThreadPerLockCount(threadsPerLock),
      maxThreadCount(threads),
      maxThreadCountCopy(threads),
      maxStackTraceCount(stackTraces),
      maxStackTraceCountPerThread(stackTracesPerThread),
      stackFilePath(std::move(stackFile)),
      graphSize(graphSlots) {}

void countStackTrace(stackTraceBeans& beans, std::uint64_t hash) {
  const auto [bean, isNew] = beans.try_emplace(hash);
  if (isNew) {
    return;
  }
  ++bean->second.count;
  bean->second.hashcode = hash;
}

void waiterTally::enter(std::uint32_t epoch) {
  std::uint64_t word = word_.load(std::memory_order_acquire);
  std::uint64_t next = 0;
  do {
    const auto wordEpoch = static_cast<std::uint32_t>(word >> 32U);
    if (static_cast<std::int32_t>(epoch - wordEpoch) < 0) {
      return;  // counted for a later epoch
    }
    next = epoch == wordEpoch ? word + 1 : (std::uint64_t{epoch} << 32U) + 1;
  } while (!word_.compare_exchange_weak(word, next, std::memory_order_acq_rel));
}

std::uint32_t waiterTally::leave(std::uint32_t epoch) {
  std::uint64_t word = word_.load(std::memory_order_acquire);
  do {
    const auto count = static_cast<std::uint32_t>(word);
    if (static_cast<std::uint32_t>(word >> 32U) != epoch || count == 0) {
      return 0;
    }
  } while (!word_.compare_exchange_weak(word, word - 1, std::memory_order_acq_rel));
  return static_cast<std::uint32_t>(word) - 1;
}

void topLockBean::clear() {
  const support::lockGuard guard(mutex);
  ownerName.clear();
  blockingThreads.clear();
  ownerSeen = false;
}

threadBean* lockBean::countEntry(std::string_view threadName, std::size_t slot) {
  const support::lockGuard guard(mutex);
  setName();
  auto found = threadbean.find(threadName);
  if (found != threadbean.end()) {
    found->second.count.fetch_add(1, std::memory_order_relaxed);
  } else {
    if (!takeThreadSlot()) {
      return nullptr;
    }
    found = threadbean.try_emplace(std::string(threadName), 1).first;
  }
  count.fetch_add(1, std::memory_order_relaxed);
  if (slot >= graph.capacity()) {
    graph.reserve(std::min(kGraphSlots, 2 * slot + 1));
  }
  if (slot >= graph.size()) {
    graph.resize(slot + 1);
  }
  ++graph[slot];
  return &found->second;
}

threadBean* lockBean::threadForWait(std::string_view threadName) {
  const support::lockGuard guard(mutex);
  setName();
  const auto found = threadbean.find(threadName);
  if (found != threadbean.end()) {
    return &found->second;
  }
  if (!takeThreadSlot()) {
    return nullptr;
  }
  return &threadbean.try_emplace(std::string(threadName), 0).first->second;
}

threadBean* lockBean::findThread(std::string_view threadName) {
  const support::lockGuard guard(mutex);
  const auto found = threadbean.find(threadName);
  return found == threadbean.end() ? nullptr : &found->second;
}

bool lockBean::hasThreads() {
  const support::lockGuard guard(mutex);
  return !threadbean.empty();
}

void lockBean::select() {
  topLockBean* top = nullptr;
  {
    const support::lockGuard guard(mutex);
    if (!top_) {
      top_ = std::make_unique<topLockBean>();
    }
    top = top_.get();
  }
  top->clear();
  selected_.store(top, std::memory_order_release);
}

void lockBean::deselect() {
  topLockBean* const top = selected_.exchange(nullptr, std::memory_order_acq_rel);
  if (top != nullptr) {
    top->clear();
  }
}

bool lockBean::takeThreadSlot() {
  constexpr std::int32_t kLowest = INT32_MIN;
  if (threadSlotsLeft == kLowest) {
    return false;
  }
  return threadSlotsLeft-- >= 1;
}

std::string lockNameOf(const std::string& className, jint hash) {
  return className + "@" + std::to_string(hash);
}

lockStore::lockStore(std::unique_ptr<LockSessionConfig> settings) : config(std::move(settings)) {}

lockBean* lockStore::findLock(JNIEnv* jni, jclass cls, jint hash) const {
  lockEntry* const found =
      lockmap_.find(keyOf(hash), [&](const lockEntry& each) { return each.cls->cls.is(jni, cls); });
  return found == nullptr ? nullptr : &found->bean;
}

lockBean* lockStore::findLock(const support::namedClass& cls, jint hash) const {
  lockEntry* const found = lockmap_.find(
      keyOf(hash), [&](const lockEntry& each) { return each.cls->value == cls.value; });
  return found == nullptr ? nullptr : &found->bean;
}

bool lockStore::refuses(jint hash) const {
  return (!config || config->maxLockCount.value() < 1) && lockmap_.find(keyOf(hash)) == nullptr;
}

lockStore::recordedLock lockStore::recordLock(const std::shared_ptr<const support::namedClass>& cls,
                                              jint hash) {
  if (config->maxLockCount.value() < 1) {  // spent: count down without a lock
    config->maxLockCount.take();
    return {};
  }
  using node = support::insertOnlyMap<lockEntry>::node;
  auto entry = std::make_unique<node>(keyOf(hash), cls, lockNameOf(cls->value, hash),
                                      config->maxThreadPerLockCount);
  const support::lockGuard guard(lockMapMutex);
  if (lockBean* const present = findLock(*cls, hash)) {
    return {present, false};
  }
  const std::int32_t left = config->maxLockCount.takeAndTell();
  if (left < 0) {
    return {};
  }
  return {&lockmap_.insert(std::move(entry)).bean, true, left};
}

std::vector<lockBean*> lockStore::locksByName() const {
  std::vector<lockBean*> locks;
  locks.reserve(lockmap_.size());
  lockmap_.forEach([&](std::uint64_t, lockEntry& each) { locks.push_back(&each.bean); });
  std::sort(locks.begin(), locks.end(),
            [](const lockBean* a, const lockBean* b) { return a->lockName < b->lockName; });
  return locks;
}

std::map<std::string_view, topLockBean*> lockStore::topLockMap() const {
  std::map<std::string_view, topLockBean*> selected;
  lockmap_.forEach([&](std::uint64_t, const lockEntry& each) {
    if (topLockBean* const top = each.bean.top()) {
      selected.emplace(each.bean.lockName, top);
    }
  });
  return selected;
}

void lockStore::clearTopLocks() {
  lockmap_.forEach([](std::uint64_t, lockEntry& each) { each.bean.deselect(); });
}

void lockStore::lowerFirstStarts(std::int64_t time) {
  if (time <= 0) {
    return;  // the VM gave none
  }
  for (std::atomic<std::int64_t>* const each : {&firstStart_, &firstSinceLoss_}) {
    std::int64_t first = each->load(std::memory_order_relaxed);
    while (time < first && !each->compare_exchange_weak(first, time, std::memory_order_relaxed)) {
    }
  }
}

bool lockStore::addStackTrace(std::uint64_t hash, std::string_view text) {
  std::string joined(text);
  std::replace(joined.begin(), joined.end(), '\n', ',');
  if (!joined.empty()) {
    joined.pop_back();
  }

  using node = support::insertOnlyMap<nothing>::node;
  auto entry = std::make_unique<node>(hash);
  const support::lockGuard guard(stackMapMutex);
  if (knowsStackTrace(hash)) {
    return false;
  }
  stacktracemap.insert_or_assign(hash, std::move(joined));
  stackHashMap_.insert(std::move(entry));
  return true;
}

std::vector<std::uint64_t> lockStore::stackHashes() const {
  std::vector<std::uint64_t> hashes;
  hashes.reserve(stackHashMap_.size());
  stackHashMap_.forEach([&](std::uint64_t hash, const nothing&) { hashes.push_back(hash); });
  std::sort(hashes.begin(), hashes.end());
  return hashes;
}

}  // namespace agent
