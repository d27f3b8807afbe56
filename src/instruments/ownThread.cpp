#include "instruments/ownThread.h"

#include "agent/boundary.h"
#include "instruments/costAccount.h"
#include "support/jniRef.h"

namespace instruments {

bool ownThread::start(ownEnvironment& environment, JNIEnv* jni) {
  const support::lockGuard guard(mutex_);
  goesOn_ = true;
  isThere_ = environment.run(jni, name_, run, this);
  return isThere_;
}

void ownThread::stop() {
  const support::lockGuard guard(mutex_);
  goesOn_ = false;
  wake_.notifyAll();
}

void ownThread::wake() {
  const support::lockGuard guard(mutex_);
  isWoken_ = true;
  wake_.notifyAll();
}

bool ownThread::hasEnded() {
  return comesSoon([&] {
    const support::lockGuard guard(mutex_);
    return !isThere_;
  });
}

void JNICALL ownThread::run(jvmtiEnv* /*jvmti*/, JNIEnv* jni, void* self) {
  auto& thread = *static_cast<ownThread*>(self);
  agent::contained(thread.name_, "Exception occured in the thread of an instrument",
                   [&] { thread.takeSteps(jni); });
  agent::contained(thread.name_, "Exception occured in the thread of an instrument", [&] {
    const support::lockGuard guard(thread.mutex_);
    thread.isThere_ = false;
  });
}

// Waits until the next step; false when there is none.
bool ownThread::isDue(std::int64_t next) {
  const support::lockGuard guard(mutex_);
  const std::int64_t pause = next - steadyNanos();
  const auto end = support::patienceClock::now() + std::chrono::nanoseconds(pause);
  while (goesOn_ && !isWoken_ && pause > 0 && wake_.waitUntil(mutex_, end)) {
  }
  isWoken_ = false;
  return goesOn_;
}

void ownThread::takeSteps(JNIEnv* jni) {
  constexpr jint kReferences = 64;
  std::optional<std::int64_t> next = 0;
  while (next && isDue(*next)) {
    const support::localFrame frame(jni, kReferences);
    next = step_(jni);
  }
}

}  // namespace instruments
