#include "agent/profilerRegistry.h"

#include <utility>

#include "support/sharedSlot.h"

namespace agent {

namespace {

// What control calls of any thread may still look up while the process ends: made on first use and
// never destroyed.
struct processState {
  support::mutex mutex;  // around making the registry and giving it up
  support::sharedSlot<profilerRegistry> registry;
};

processState& process() {
  static processState& state = *new processState;
  return state;
}

}  // namespace

bool profilerRegistry::createProfiler(std::int32_t kind) {
  std::shared_ptr<profiler> made = profilerKind::make(kind);
  if (!made) {
    return false;
  }
  made->addCapabilities();
  const support::lockGuard guard(mutex_);
  made->publish(made);
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
  for (const auto& [eachKind, each] : all) {
    if (each->enabled()) {
      each->noteSwitchedHandlers();
    }
  }
}

void profilerRegistry::removeProfiler(std::int32_t kind) {
  const std::shared_ptr<profiler> removed = find(kind);
  if (!removed) {
    return;
  }
  {
    const support::lockGuard guard(mutex_);
    removed->withdraw();
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

}  // namespace agent
