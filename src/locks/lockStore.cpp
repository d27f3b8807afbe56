#include "locks/lockStore.h"

#include <algorithm>
#include <utility>

#include "support/jniRef.h"

namespace agent {

namespace {

std::uint64_t keyOf(jint hash) {
  return static_cast<std::uint32_t>(hash);
}

identityFailure failureOf(support::classNameFailure failure) {
  switch (failure) {
    case support::classNameFailure::none:
      break;
    case support::classNameFailure::noGetClass:
      return identityFailure::noGetClass;
    case support::classNameFailure::noGetName:
      return identityFailure::noGetName;
    case support::classNameFailure::empty:
      return identityFailure::classIsEmpty;
  }
  return identityFailure::none;
}

}  // namespace

void blockStarts::lowerFirstStarts(std::int64_t time) {
  if (time <= 0) {
    return;  // the VM gave none
  }
  for (std::atomic<std::int64_t>* const each : {&firstStart_, &firstSinceLoss_}) {
    std::int64_t first = each->load(std::memory_order_relaxed);
    while (time < first && !each->compare_exchange_weak(first, time, std::memory_order_relaxed)) {
    }
  }
}

void threadBean::countStack(std::uint64_t hash) {
  const support::lockGuard guard(stackMutex_);
  countStackTrace(stacktracebean_, hash);
}

stackTraceBeans threadBean::stackTraces() const {
  const support::lockGuard guard(stackMutex_);
  return stacktracebean_;
}

threadSnapshot threadBean::snapshot(std::string_view name) const {
  threadSnapshot result{name, count.load(), totalBlockTime.load(), totalWaitTime.load(), {}};
  const support::lockGuard guard(stackMutex_);
  result.stacktracebean.assign(stacktracebean_.begin(), stacktracebean_.end());
  return result;
}

threadBean* lockBean::countEntry(std::string_view threadName, std::size_t slot) {
  const support::lockGuard guard(mutex_);
  setName();
  auto found = threadbean_.find(threadName);
  if (found != threadbean_.end()) {
    found->second.count.fetch_add(1, std::memory_order_relaxed);
  } else {
    if (!takeThreadSlot()) {
      return nullptr;
    }
    found = threadbean_.try_emplace(std::string(threadName), 1).first;
  }
  count.fetch_add(1, std::memory_order_relaxed);
  if (slot >= graph_.capacity()) {
    graph_.reserve(std::min(kGraphSlots, 2 * slot + 1));
  }
  if (slot >= graph_.size()) {
    graph_.resize(slot + 1);
  }
  ++graph_[slot];
  return &found->second;
}

void lockBean::addBlock(threadBean* thread, std::int64_t start, std::int64_t end) {
  const std::uint64_t blocked = elapsed(start, end);
  totalBlockTime.fetch_add(blocked, std::memory_order_relaxed);
  if (thread != nullptr) {
    thread->totalBlockTime.fetch_add(blocked, std::memory_order_relaxed);
    thread->lastEnterTime.store(start, std::memory_order_relaxed);
  }
}

void lockBean::addWait(threadBean* thread, std::int64_t start, std::int64_t end) {
  const std::uint64_t waited = elapsed(start, end);
  totalWaitTime.fetch_add(waited, std::memory_order_relaxed);
  if (thread != nullptr) {
    thread->totalWaitTime.fetch_add(waited, std::memory_order_relaxed);
    thread->lastWaitTime.store(start, std::memory_order_relaxed);
  }
}

threadBean* lockBean::threadForWait(std::string_view threadName) {
  const support::lockGuard guard(mutex_);
  setName();
  const auto found = threadbean_.find(threadName);
  if (found != threadbean_.end()) {
    return &found->second;
  }
  if (!takeThreadSlot()) {
    return nullptr;
  }
  // Deliberate: 0, as a wait is not a contended entry.
  return &threadbean_.try_emplace(std::string(threadName), 0).first->second;
}

threadBean* lockBean::findThread(std::string_view threadName) {
  const support::lockGuard guard(mutex_);
  const auto found = threadbean_.find(threadName);
  return found == threadbean_.end() ? nullptr : &found->second;
}

bool lockBean::hasThreads() const {
  const support::lockGuard guard(mutex_);
  return !threadbean_.empty();
}

std::int32_t lockBean::threadSlotsLeft() const {
  const support::lockGuard guard(mutex_);
  return threadSlotsLeft_;
}

// Deliberate: the time waited, the graph and the threads go on from the summary.
void lockBean::resetCounts() {
  count.store(0);
  totalBlockTime.store(0);
}

void lockBean::select() {
  topLockBean* top = nullptr;
  {
    const support::lockGuard guard(mutex_);
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

// A reader of many threads holds the mutex only for the list of them: their records stay.
lockSnapshot lockBean::snapshot() const {
  lockSnapshot result{
      lockName, name(), count.load(), {}, totalBlockTime.load(), totalWaitTime.load(), {}};
  std::vector<std::pair<std::string_view, const threadBean*>> threads;
  {
    const support::lockGuard guard(mutex_);
    result.graph = graph_;
    threads.reserve(threadbean_.size());
    for (const auto& [threadName, thread] : threadbean_) {
      threads.emplace_back(threadName, &thread);
    }
  }
  result.threads.reserve(threads.size());
  for (const auto& [threadName, thread] : threads) {
    result.threads.push_back(thread->snapshot(threadName));
  }
  return result;
}

// Deliberate: each refused thread takes one too.
bool lockBean::takeThreadSlot() {
  constexpr std::int32_t kLowest = INT32_MIN;
  if (threadSlotsLeft_ == kLowest) {
    return false;
  }
  return threadSlotsLeft_-- >= 1;
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

identityFailure lockStore::identify(jvmtiEnv* jvmti, JNIEnv* jni, jobject object,
                                    support::javaClasses& classes, bool named,
                                    identifiedLock& lock) const {
  if (object == nullptr) {
    return identityFailure::objectIsNull;
  }
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(object));
  if (!cls) {
    return identityFailure::noGetClass;
  }
  const bool hashed = jvmti->GetObjectHashCode(object, &lock.hash) == JVMTI_ERROR_NONE;
  if (hashed) {
    lock.bean = findLock(jni, cls.get(), lock.hash);
    // Beyond the budget, what a lock would be called matters only to those who read of it.
    if (lock.bean != nullptr || (!named && refuses(lock.hash))) {
      return identityFailure::none;
    }
  }
  support::classNameResult read = classes.of(jvmti, jni, object, cls.get());
  if (read.failure != support::classNameFailure::none) {
    return failureOf(read.failure);
  }
  lock.cls = std::move(read.found);
  if (!hashed) {
    return identityFailure::noHash;
  }
  lock.bean = findLock(*lock.cls, lock.hash);
  return identityFailure::none;
}

bool lockStore::refuses(jint hash) const {
  return (!config || config->maxLockCount.value() < 1) && lockmap_.find(keyOf(hash)) == nullptr;
}

lockStore::recordedLock lockStore::recordLock(const std::shared_ptr<const support::namedClass>& cls,
                                              jint hash) {
  if (config->maxLockCount.value() < 1) {  // spent: count down without a lock
    // Deliberate: counts on below zero.
    config->maxLockCount.take();
    return {};
  }
  using node = support::insertOnlyMap<lockEntry>::node;
  auto entry = std::make_unique<node>(keyOf(hash), cls, lockNameOf(cls->value, hash),
                                      config->maxThreadPerLockCount);
  const support::lockGuard guard(lockMapMutex_);
  if (lockBean* const present = findLock(*cls, hash)) {
    return {present, false};
  }
  const std::int32_t left = config->maxLockCount.takeAndReturn();
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

}  // namespace agent
