#include "agent/profilerRegistry.h"

#include <utility>

#include "exceptions/exceptionprofiler.h"
#include "locks/mutexlockprofiler.h"
#include "memory/memoryprofiler.h"
#include "support/sharedSlot.h"

namespace agent {

namespace {

// What event handlers and control calls of any thread may still look up while the process ends:
// made on first use and never destroyed.
struct processState {
  support::mutex mutex;  // around making the registry and giving it up
  support::sharedSlot<profilerRegistry> registry;
  support::mutex lockMutex;  // around publishing to the next
  support::sharedSlot<const lockWork> lock;
  support::sharedSlot<memoryProfiler> memory;
  support::sharedSlot<exceptionProfiler> exception;
};

processState& process() {
  static processState& state = *new processState;
  return state;
}

void publishLock(std::shared_ptr<mutexLockProfiler> made) {
  std::shared_ptr<const lockWork> work;
  if (made) {
    std::shared_ptr<lockStore> store = made->store();
    work = std::make_shared<const lockWork>(lockWork{std::move(made), std::move(store)});
  }
  const support::lockGuard guard(process().lockMutex);
  process().lock.store(work);
}

void publish(std::int32_t kind, const std::shared_ptr<profiler>& made) {
  switch (kind) {
    case kMutexLockProfiler:
      publishLock(std::dynamic_pointer_cast<mutexLockProfiler>(made));
      break;
    case kMemoryProfiler:
      process().memory.store(std::dynamic_pointer_cast<memoryProfiler>(made));
      break;
    case kExceptionProfiler:
      process().exception.store(std::dynamic_pointer_cast<exceptionProfiler>(made));
      break;
    default:
      break;
  }
}

std::shared_ptr<profiler> make(std::int32_t kind) {
  switch (kind) {
    case kMutexLockProfiler:
      return std::make_shared<mutexLockProfiler>();
    case kMemoryProfiler:
      return std::make_shared<memoryProfiler>();
    case kExceptionProfiler:
      return std::make_shared<exceptionProfiler>();
    default:
      return nullptr;
  }
}

}  // namespace

bool profilerRegistry::createProfiler(std::int32_t kind) {
  std::shared_ptr<profiler> made = make(kind);
  if (!made) {
    return false;
  }
  made->addCapabilities();
  const support::lockGuard guard(mutex_);
  publish(kind, made);
  profilers_[kind].swap(made);
  return false;
}

void profilerRegistry::switchProfiler(std::int32_t kind, bool enable) {
  const support::lockGuard oneSwitch(switchMutex_);
  if (const std::shared_ptr<profiler> switched = find(kind)) {
    switched->setEnabled(enable);
  }

  std::map<std::int32_t, std::shared_ptr<profiler>> all;
  {
    const support::lockGuard guard(mutex_);
    all = profilers_;
  }
  callbacks = {};
  for (const auto& [eachKind, each] : all) {
    if (each->enabled()) {
      each->setEventCallbacks();
    }
  }
  if (jvmtiEnv* const jvmti = environment()) {
    jvmti->SetEventCallbacks(&callbacks, static_cast<jint>(sizeof(callbacks)));
  }
  // The VM takes the old handlers out before it puts the new ones in.
  const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
  if (locks && locks->enabled()) {
    locks->noteLostEvents();
  }
}

void profilerRegistry::removeProfiler(std::int32_t kind) {
  const std::shared_ptr<profiler> removed = find(kind);
  if (!removed) {
    return;
  }
  {
    const support::lockGuard guard(mutex_);
    publish(kind, nullptr);
    profilers_.erase(kind);
  }
  removed->release();
}

std::shared_ptr<profiler> profilerRegistry::find(std::int32_t kind) const {
  const support::lockGuard guard(mutex_);
  const auto found = profilers_.find(kind);
  return found == profilers_.end() ? nullptr : found->second;
}

bool profilerRegistry::empty() const {
  const support::lockGuard guard(mutex_);
  return profilers_.empty();
}

std::shared_ptr<profilerRegistry> getRegistry() {
  if (std::shared_ptr<profilerRegistry> known = findRegistry()) {
    return known;
  }
  const support::lockGuard guard(process().mutex);
  if (std::shared_ptr<profilerRegistry> known = findRegistry()) {
    return known;
  }
  auto made = std::make_shared<profilerRegistry>();
  process().registry.store(made);
  return made;
}

std::shared_ptr<profilerRegistry> findRegistry() {
  return process().registry.load();
}

void freeRegistry() {
  const support::lockGuard guard(process().mutex);
  process().registry.store(nullptr);
}

std::shared_ptr<mutexLockProfiler> getMutexProfiler() {
  const std::shared_ptr<const lockWork> work = getLockWork();
  return work ? work->profiler : nullptr;
}
std::shared_ptr<memoryProfiler> getMemoryProfiler() {
  return process().memory.load();
}
std::shared_ptr<exceptionProfiler> getExceptionProfiler() {
  return process().exception.load();
}

std::shared_ptr<const lockWork> getLockWork() {
  return process().lock.load();
}
bool publishLockStore(const mutexLockProfiler& profiler, std::shared_ptr<lockStore> store) {
  const support::lockGuard guard(process().lockMutex);
  const std::shared_ptr<const lockWork> old = process().lock.load();
  if (!old || old->profiler.get() != &profiler) {
    return false;
  }
  process().lock.store(std::make_shared<const lockWork>(lockWork{old->profiler, std::move(store)}));
  return true;
}

}  // namespace agent
