// The base of all profilers: what the registry and the control interface ask of each.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace agent {

// Registry keys.
inline constexpr std::int32_t kMutexLockProfiler = 0;
inline constexpr std::int32_t kMemoryProfiler = 1;
inline constexpr std::int32_t kExceptionProfiler = 2;

// Values of profiler::state.
inline constexpr std::int32_t kLockStopped = 1;
inline constexpr std::int32_t kLockProfiling = 2;
inline constexpr std::int32_t kLockSummary = 3;
inline constexpr std::int32_t kLockDetail = 4;
inline constexpr std::int32_t kMemoryRunning = 5;
inline constexpr std::int32_t kMemoryStopped = 6;
inline constexpr std::int32_t kExceptionRunning = 7;
inline constexpr std::int32_t kExceptionStopped = 8;

// A session's settings: built by a native method, owned by the profiler it is handed to.
struct sessionSettings {
  sessionSettings() = default;
  virtual ~sessionSettings() = default;
  sessionSettings(const sessionSettings&) = delete;
  sessionSettings& operator=(const sessionSettings&) = delete;
};

// Operations are called by Agent_OnLoad, Agent_OnUnload and the native methods, one at a time; the
// two flags are also read by event handlers, on any thread.
class profiler {
 public:
  explicit profiler(std::int32_t initialState) : state_(initialState) {}
  virtual ~profiler() = default;
  profiler(const profiler&) = delete;
  profiler& operator=(const profiler&) = delete;

  // Writes this profiler's handlers into the registry's callback table.
  virtual void setEventCallbacks() {}
  // Drops session data before destruction.
  virtual void release() {}
  // ORs this profiler's capabilities into the registry's set.
  virtual void addCapabilities() {}
  // Takes a session's settings; 1 when they were taken, else 0.
  virtual std::int32_t setProfileData(std::unique_ptr<sessionSettings> /*settings*/) { return 0; }
  // Enables or disables this profiler's events for all threads.
  virtual void setProfilerEventMode(bool /*enable*/) {}
  // Ranks what was gathered so far.
  virtual void sortData() {}
  // Writes the session's report to the file that `path` names; 1 when it was written, else 0.
  virtual std::int32_t dumpJsonObjectFromMapDS(JNIEnv* /*jni*/, jstring /*path*/) { return 0; }
  // Scans the heap and writes the report; the report's status.
  virtual std::int32_t scanJavaHeap(JNIEnv* /*jni*/, jstring /*path*/) { return 0; }

  // The registry's own operations stand after the others, whose order stays as it is.
  //
  // Has the event handlers find this profiler from now on; `self` is a share of it. By the registry
  // only, as the next two.
  virtual void publish(const std::shared_ptr<profiler>& /*self*/) {}
  // Handlers that begin from now on find no profiler of this kind; others finish with their share.
  virtual void withdraw() {}
  // The VM's handlers were taken out and put in again: events may have been lost meanwhile.
  virtual void noteSwitchedHandlers() {}

  std::int32_t state() const { return state_.load(std::memory_order_acquire); }

  // Set while this profiler wants its handlers installed.
  bool enabled() const { return enabled_.load(std::memory_order_acquire); }
  void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_release); }

  // Object capture settings; set by Agent_OnLoad only.
  std::int32_t captureObjType = 3;
  std::int32_t captureObjDepth = 1;
  std::int32_t captureSTDepth = 3;

 protected:
  void setState(std::int32_t state) { state_.store(state, std::memory_order_release); }

 private:
  std::atomic<std::int32_t> state_;
  std::atomic<bool> enabled_{false};
};

// Makes a kind of profiler known to the registry. Each profiler has one such object in its source
// file, which is made when the library is loaded.
class profilerKind {
 public:
  using maker = std::shared_ptr<profiler> (*)();

  // Of profilers that are made without arguments.
  template <typename Profiler>
  static profilerKind of(std::int32_t kind) noexcept {
    return {kind, []() -> std::shared_ptr<profiler> { return std::make_shared<Profiler>(); }};
  }

  // Kinds are numbers from 0 up to this one.
  static constexpr std::size_t kMost = 8;

  // A new profiler of the kind; none for an unknown kind.
  static std::shared_ptr<profiler> make(std::int32_t kind);
  // Those that are known, in ascending order. Allocates nothing.
  static std::span<const std::int32_t> all();

 private:
  profilerKind(std::int32_t kind, maker function) noexcept;
};

}  // namespace agent
