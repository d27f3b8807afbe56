#include "locks/lockOwners.h"

#include <chrono>
#include <utility>

#include "agent/vmEnd.h"
#include "support/jvmtiRecords.h"

namespace agent {

namespace {

// Tells those who wait for a lookup what it has found, however it ends.
struct announcement {
  ownerLookup* lookup;
  std::optional<foundOwner> found;
  ~announcement() {
    if (lookup == nullptr) {
      return;
    }
    lookup->begin();
    lookup->publish(std::move(found));
  }
};

}  // namespace

void ownerLookup::publish(std::optional<foundOwner> found) {
  {
    const support::lockGuard guard(mutex_);
    found_ = std::move(found);
    published_ = true;
  }
  done_.notifyAll();
}

std::optional<foundOwner> ownerLookup::wait() {
  constexpr std::chrono::seconds kPatience{1};
  const auto end = support::patienceClock::now() + kPatience;
  const support::lockGuard guard(mutex_);
  while (!published_ && done_.waitUntil(mutex_, end)) {
  }
  if (!published_) {
    begun_.store(true);  // nobody else is to wait for it
  }
  return found_;
}

bool monitorLookups::take(std::int64_t time, ownerLookupTally& counts) {
  if (limit_.perSecond() == 0) {
    return true;
  }
  const bool isLeft = limit_.take(time);
  (isLeft ? counts.made : counts.skipped).fetch_add(1, std::memory_order_relaxed);
  return isLeft;
}

std::optional<foundOwner> monitorLookups::findOwner(const monitorQuestion& question,
                                                    ownerLookup* lookup) {
  announcement announced{lookup, std::nullopt};
  foundOwner found;
  support::monitorUsage usage(question.jvmti, question.jni);
  {
    const support::vmTurn turn(turns_);
    if (lookup != nullptr) {
      lookup->begin();
    }
    if (vmIsEnding()) {
      return std::nullopt;
    }
    usage.read(question.monitor);
  }
  if (usage.owner() != nullptr) {
    support::threadName owner(question.jvmti, question.jni);
    owner.read(usage.owner());
    found = {true, std::string(owner.view())};
  }
  announced.found = found;
  return found;
}

bool monitorLookups::hasWaiters(const monitorQuestion& question) {
  if (!limit_.take(question.time)) {
    return false;
  }
  support::monitorUsage usage(question.jvmti, question.jni);
  {
    const support::vmTurn turn(turns_);
    if (vmIsEnding()) {
      return false;
    }
    usage.read(question.monitor);
  }
  return usage.waiterCount() > 0;
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

void mergeBlockingThreads(blockingThreadBeans& into, blockingThreadBeans from) {
  into.merge(from);
  for (const auto& [name, owner] : from) {  // those that are in both
    blockingThreadBean& known = into.find(name)->second;
    known.blockCount += owner.blockCount;
    known.blockingCount += owner.blockingCount;
    known.totalBlockingTime += owner.totalBlockingTime;
    mergeStackTraces(known.stacktracebean, owner.stacktracebean);
  }
}

void topLockBean::clear() {
  const support::lockGuard guard(mutex_);
  known_.ownerName.clear();
  known_.blockingThreads.clear();
  known_.ownerSeen = false;
}

topLockBean::content topLockBean::snapshot() const {
  const support::lockGuard guard(mutex_);
  return known_;
}

topLockBean::share topLockBean::takeShare(monitorLookups& lookups, std::int64_t time,
                                          ownerLookupTally& counts) {
  const support::lockGuard guard(mutex_);
  known_.ownerSeen = true;
  if (lookup_ && lookup_->join()) {
    return {lookup_, false};
  }
  if (!lookups.take(time, counts)) {
    return {};
  }
  lookup_ = std::make_shared<ownerLookup>();
  return {lookup_, true};
}

std::optional<foundOwner> topLockBean::findOwner(monitorLookups& lookups,
                                                 const monitorQuestion& question,
                                                 ownerLookupTally& counts) {
  const share mine = takeShare(lookups, question.time, counts);
  if (!mine.lookup) {
    return std::nullopt;
  }
  if (mine.isOwn) {
    return lookups.findOwner(question, mine.lookup.get());
  }
  std::optional<foundOwner> shared = mine.lookup->wait();
  if (shared) {
    return shared;
  }
  giveUp(mine.lookup);
  return lookups.take(question.time, counts) ? lookups.findOwner(question, nullptr) : std::nullopt;
}

void topLockBean::giveUp(const std::shared_ptr<ownerLookup>& lookup) {
  const support::lockGuard guard(mutex_);
  if (lookup_ == lookup) {
    lookup_ = nullptr;
  }
}

blockingThreadBean* topLockBean::find(std::string_view owner) {
  const auto found = known_.blockingThreads.find(owner);
  return found == known_.blockingThreads.end() ? nullptr : &found->second;
}

void topLockBean::found(std::string_view owner, countdown* budget) {
  const support::lockGuard guard(mutex_);
  known_.ownerName = owner;
  if (blockingThreadBean* const known = find(owner)) {
    ++known->blockingCount;
  } else if (budget != nullptr && budget->take()) {
    known_.blockingThreads.try_emplace(std::string(owner));
  }
}

bool topLockBean::closePeriod(std::int64_t time, std::string* owner) {
  const support::lockGuard guard(mutex_);
  if (known_.ownerName.empty() || !known_.ownerSeen) {
    return false;
  }
  blockingThreadBean* const last = find(known_.ownerName);
  if (last == nullptr) {
    return false;
  }
  last->totalBlockingTime += elapsed(last->blockStartTime, time);
  last->blockStartTime = 0;
  if (owner != nullptr) {
    *owner = known_.ownerName;
  }
  return true;
}

void topLockBean::openPeriod(std::string_view owner, std::int64_t time) {
  const support::lockGuard guard(mutex_);
  if (blockingThreadBean* const own = find(owner)) {
    ++own->blockCount;
    own->blockStartTime = time;
  }
}

bool topLockBean::knows(std::string_view owner) const {
  const support::lockGuard guard(mutex_);
  return known_.blockingThreads.find(owner) != known_.blockingThreads.end();
}

void topLockBean::countStack(std::string_view owner, std::uint64_t hash) {
  const support::lockGuard guard(mutex_);
  if (blockingThreadBean* const own = find(owner)) {
    countStackTrace(own->stacktracebean, hash);
  }
}

}  // namespace agent
