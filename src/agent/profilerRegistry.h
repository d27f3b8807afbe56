// The registry of profilers: the JVMTI environment, the profilers by kind, the capabilities they
// ask for and the one callback table of the process.
//
// It is used by Agent_OnLoad, Agent_OnUnload and the native methods. Event handlers do not touch
// it: they reach their profiler through getMutexProfiler() and its siblings, which hand out shared
// ownership, so a profiler that is removed meanwhile stays whole until its last handler returns.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "agent/profiler.h"
#include "support/annotations.h"

namespace agent {

class lockStore;
class mutexLockProfiler;
class memoryProfiler;
class exceptionProfiler;

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
  // replaced, and goes with its last user. Always false; unknown kinds are refused.
  bool createProfiler(std::int32_t kind);

  // Sets the enabled flag of the profiler of `kind`, if there is one, and installs the handlers of
  // all enabled profilers anew, in ascending order of kind.
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

// The profiler of one kind, or none. Any thread; never waits for a control call.
std::shared_ptr<mutexLockProfiler> getMutexProfiler();
std::shared_ptr<memoryProfiler> getMemoryProfiler();
std::shared_ptr<exceptionProfiler> getExceptionProfiler();

// The lock profiler and the store of its session, so that an event takes one reference for both.
struct lockWork {
  const std::shared_ptr<mutexLockProfiler> profiler;
  const std::shared_ptr<lockStore> store;
};
// What lock events are to work on, or none. Any thread; never waits for a control call.
std::shared_ptr<const lockWork> getLockWork();
// Gives the events another store. False when `profiler` is not, or not any more, the lock profiler
// of the process; throws std::bad_alloc and leaves the old one.
bool publishLockStore(const mutexLockProfiler& profiler, std::shared_ptr<lockStore> store);

}  // namespace agent
