// The ranking of locks at the start of a detail session: which of them are selected, and the queue
// in which they wait for the report.
//
// Control calls come one at a time, but nothing here relies on it: the queue has its mutex, and the
// locks are selected while events go on.
#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "locks/lockStore.h"
#include "support/annotations.h"

namespace agent {

// A lock of one store, and its block time when it was ranked.
struct rankedLock {
  std::string lockName;
  std::int64_t blockTime = 0;
  std::weak_ptr<lockStore> store;
  lockBean* bean = nullptr;  // valid while `store` is
};

struct longerBlocked {
  bool operator()(const rankedLock& a, const rankedLock& b) const {
    return a.blockTime > b.blockTime;
  }
};
// Deliberate: the shortest block time is on top, so a report has the locks in ascending order.
using rankedLocks = std::priority_queue<rankedLock, std::vector<rankedLock>, longerBlocked>;

class lockRanking {
 public:
  // Deliberate: the queue is that of the process. Locks of a profiler or session that is gone wait
  // in it until the next report drops them.
  static lockRanking& ofProcess();

  // Selects those of the store's locks that were blocked longest, as many as its settings want, and
  // queues them for the report, after those of earlier rankings.
  void select(const std::shared_ptr<lockStore>& store, const std::vector<lockBean*>& locks)
      EXCLUDES(mutex_);
  // Takes the locks ranked since the last report.
  rankedLocks takeReportQueue() EXCLUDES(mutex_);

 private:
  void queue(const rankedLock& lock) EXCLUDES(mutex_);

  support::mutex mutex_;
  rankedLocks reportQueue_ GUARDED_BY(mutex_);
};

}  // namespace agent
