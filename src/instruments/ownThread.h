// A Java thread of an instrument's own, which takes a step again and again until it is stopped.
#pragma once

#include <jvmti.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

#include "instruments/ownEnvironment.h"
#include "support/annotations.h"
#include "support/vmTurn.h"

namespace instruments {

// Waits for `condition`, two seconds at most: what has not come by then was suspended by a
// debugger, or has no processor. Returns whether it came.
template <typename Condition>
bool comesSoon(Condition&& condition, std::chrono::nanoseconds patience = std::chrono::seconds(2)) {
  constexpr std::chrono::milliseconds kPause{1};
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

// Lives as long as the process. Any thread; start() and stop() in turn, which the caller sees to.
class ownThread {
 public:
  // When the next step is due, in steady nanoseconds; nothing ends the thread. What it throws is
  // logged and ends the thread as well.
  using step = std::function<std::optional<std::int64_t>(JNIEnv* jni)>;

  // `name` is that of the Java thread, and of the place in the log.
  ownThread(const char* name, step body) : name_(name), step_(std::move(body)) {}

  // False when the VM gives no thread. On a Java thread, in the live phase.
  bool start(ownEnvironment& environment, JNIEnv* jni) EXCLUDES(mutex_);
  // The thread ends soon, after its current step.
  void stop() EXCLUDES(mutex_);
  // The next step is due at once.
  void wake() EXCLUDES(mutex_);
  // Waits until it has ended, two seconds at most.
  bool hasEnded() EXCLUDES(mutex_);

 private:
  static void JNICALL run(jvmtiEnv* jvmti, JNIEnv* jni, void* self);
  void takeSteps(JNIEnv* jni) EXCLUDES(mutex_);
  bool isDue(std::int64_t next) EXCLUDES(mutex_);

  const char* name_;
  step step_;
  support::mutex mutex_;
  support::condition wake_;
  bool goesOn_ GUARDED_BY(mutex_) = false;
  bool isWoken_ GUARDED_BY(mutex_) = false;
  bool isThere_ GUARDED_BY(mutex_) = false;
};

}  // namespace instruments
