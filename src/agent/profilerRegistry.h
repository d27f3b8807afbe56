// The registry of profilers: the JVMTI environment, the profilers by kind, the capabilities they
// ask for and the one callback table of the process.
//
// It is used by Agent_OnLoad, Agent_OnUnload and the native methods, and knows profilers by their
// base class alone. Event handlers do not touch it: they reach their profiler through
// getMutexProfiler() and its siblings, which hand out shared ownership, so a profiler that is
// removed meanwhile stays complete until its last handler returns.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "agent/profiler.h"
#include "support/annotations.h"

namespace agent {

class profilerRegistry {
 public:
  profilerRegistry() = default;
  ~profilerRegistry() = default;
  profilerRegistry(const profilerRegistry&) = delete;
  profilerRegistry& operator=(const profilerRegistry&) = delete;

  // Null until Agent_OnLoad got one and after Agent_OnUnload.
  jvmtiEnv* environment() const { return environment_.load(std::memory_order_acquire); }
  void setEnvironment(jvmtiEnv* jvmti) { environment_.store(jvmti, std::memory_order_release); }

  // Makes the profiler of `kind` and has it add its capabilities. One that stood under that kind is
  // replaced, and goes with its last user. Unknown kinds are refused. Deliberate: always false.
  bool createProfiler(std::int32_t kind);

  // Sets the enabled flag of the profiler of `kind`, if there is one, and reinstalls the handlers
  // of all enabled profilers, in ascending order of kind.
  void switchProfiler(std::int32_t kind, bool enable);

  // Unregisters, releases and gives up the profiler of `kind`, if there is one.
  void removeProfiler(std::int32_t kind);

  // The profiler of `kind`, or none.
  std::shared_ptr<profiler> find(std::int32_t kind) const;

  bool empty() const;

  // What the profilers asked for; handed to AddCapabilities once, at start-up.
  jvmtiCapabilities capabilities{};
  // Written by setEventCallbacks() of the profilers, within switchProfiler() only.
  jvmtiEventCallbacks callbacks{};

 private:
  std::atomic<jvmtiEnv*> environment_{nullptr};
  // Serialises control calls that should come one at a time; no handler takes it.
  mutable support::mutex mutex_;
  std::map<std::int32_t, std::shared_ptr<profiler>> profilers_ GUARDED_BY(mutex_);
  support::mutex switchMutex_;  // outside mutex_: one rebuilt callback table at a time
};

// The registry of the process, made on first use.
std::shared_ptr<profilerRegistry> getRegistry();
// The registry if there is one.
std::shared_ptr<profilerRegistry> findRegistry();
// Gives the registry up; the next getRegistry() makes a new one.
void freeRegistry();

}  // namespace agent
