#include "locks/lockWork.h"

#include <utility>

#include "support/annotations.h"
#include "support/sharedSlot.h"

namespace agent {

namespace {

struct publishedWork {
  support::mutex mutex;  // around publishing
  support::sharedSlot<const lockWork> slot;
};

publishedWork& published() {
  static publishedWork& work = *new publishedWork;
  return work;
}

}  // namespace

std::shared_ptr<const lockWork> getLockWork() {
  return published().slot.load();
}

std::shared_ptr<mutexLockProfiler> getMutexProfiler() {
  const std::shared_ptr<const lockWork> work = getLockWork();
  return work ? work->profiler : nullptr;
}

void publishLockWork(std::shared_ptr<mutexLockProfiler> profiler,
                     std::shared_ptr<lockStore> store) {
  std::shared_ptr<const lockWork> work;
  if (profiler) {
    work = std::make_shared<const lockWork>(lockWork{std::move(profiler), std::move(store)});
  }
  const support::lockGuard guard(published().mutex);
  published().slot.store(work);
}

bool publishLockStore(const mutexLockProfiler& profiler, std::shared_ptr<lockStore> store) {
  const support::lockGuard guard(published().mutex);
  const std::shared_ptr<const lockWork> old = published().slot.load();
  if (!old || old->profiler.get() != &profiler) {
    return false;
  }
  published().slot.store(
      std::make_shared<const lockWork>(lockWork{old->profiler, std::move(store)}));
  return true;
}

}  // namespace agent
