#include "locks/lockRanking.h"

namespace agent {

namespace {

// The `most` locks with the longest block times; at the cut, the one met first stays.
rankedLocks longestBlocked(const std::shared_ptr<lockStore>& store,
                           const std::vector<lockBean*>& locks, std::uint32_t most) {
  rankedLocks selectionHeap;
  for (lockBean* const lock : locks) {
    // Deliberate: compared as a signed number.
    const auto blockTime = static_cast<std::int64_t>(lock->totalBlockTime.load());
    if (selectionHeap.size() >= most) {
      if (most == 0 || blockTime <= selectionHeap.top().blockTime) {
        continue;
      }
      selectionHeap.pop();
    }
    selectionHeap.push({lock->lockName, blockTime, store, lock});
  }
  return selectionHeap;
}

}  // namespace

lockRanking& lockRanking::ofProcess() {
  static lockRanking& ranking = *new lockRanking;
  return ranking;
}

void lockRanking::select(const std::shared_ptr<lockStore>& store,
                         const std::vector<lockBean*>& locks) {
  // Deliberate: read without its sign, so a negative number selects all locks.
  const auto most = static_cast<std::uint32_t>(store->config ? store->config->topLockCount : 0);
  rankedLocks selected = longestBlocked(store, locks, most);
  for (; !selected.empty(); selected.pop()) {
    queue(selected.top());
    selected.top().bean->select();
  }
}

rankedLocks lockRanking::takeReportQueue() {
  rankedLocks taken;
  const support::lockGuard guard(mutex_);
  taken.swap(reportQueue_);
  return taken;
}

void lockRanking::queue(const rankedLock& lock) {
  const support::lockGuard guard(mutex_);
  reportQueue_.push(lock);
}

}  // namespace agent
