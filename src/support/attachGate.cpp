#include "support/attachGate.h"

#include <atomic>
#include <chrono>

#include "support/jvmtiStatus.h"
#include "support/vmTurn.h"

namespace support {

namespace {

constexpr jint kFirstThatCrashes = 23;

constexpr std::chrono::milliseconds kLookPatience{20};
constexpr std::chrono::seconds kAttachPatience{2};

// The VM's own functions, and ours in front of two of them. Both stay as long as the process: a
// thread may be on its way through them at any time.
std::atomic<const JNIInvokeInterface_*> original{nullptr};
JNIInvokeInterface_ replacement;

bool isAttached(JavaVM* vm) {
  void* environment = nullptr;
  return original.load()->GetEnv(vm, &environment, JNI_VERSION_1_2) != JNI_EDETACHED;
}

template <typename Attach>
jint passGate(JavaVM* vm, const Attach& attach) {
  if (isAttached(vm)) {
    return attach();
  }
  const attachGate::attaching inside;
  return attach();
}

jint JNICALL attachCurrentThread(JavaVM* vm, void** environment, void* arguments) {
  return passGate(vm,
                  [&] { return original.load()->AttachCurrentThread(vm, environment, arguments); });
}

jint JNICALL attachCurrentThreadAsDaemon(JavaVM* vm, void** environment, void* arguments) {
  return passGate(
      vm, [&] { return original.load()->AttachCurrentThreadAsDaemon(vm, environment, arguments); });
}

}  // namespace

attachGate& attachGate::ofProcess() {
  static attachGate& gate = *new attachGate;  // for threads that still run when the process ends
  return gate;
}

void attachGate::install(JavaVM* vm, jvmtiEnv* jvmti) {
  const lockGuard guard(mutex_);
  if (featureVersion(jvmti) < kFirstThatCrashes || vm->functions == &replacement) {
    return;
  }
  original.store(vm->functions);
  replacement = *vm->functions;
  replacement.AttachCurrentThread = attachCurrentThread;
  replacement.AttachCurrentThreadAsDaemon = attachCurrentThreadAsDaemon;
  isNeeded_.store(true);
  std::atomic_ref(vm->functions).store(&replacement);
}

void attachGate::remove(JavaVM* vm) {
  const lockGuard guard(mutex_);
  if (vm->functions == &replacement) {
    std::atomic_ref(vm->functions).store(original.load());
  }
}

// Until nobody of the other group is inside, nor to go first; false when that takes too long.
template <typename Duration>
bool attachGate::waitFor(side& other, side& own, bool isTurnOfLooks, Duration patience) {
  const auto mayEnter = [&]() REQUIRES(mutex_) {
    return other.inside == 0 && (other.waiting == 0 || looksAreNext_ == isTurnOfLooks);
  };
  if (mayEnter()) {
    return true;
  }
  if (other.isStuck && other.inside > 0) {
    return false;
  }
  const auto end = patienceClock::now() + patience;
  ++own.waiting;
  while (!mayEnter() && changed_.waitUntil(mutex_, end)) {
  }
  --own.waiting;
  if (mayEnter()) {
    return true;
  }
  other.isStuck = other.inside > 0;
  return false;
}

bool attachGate::enterLook() {
  const lockGuard guard(mutex_);
  if (!waitFor(attaches_, looks_, true, kLookPatience)) {
    changed_.notifyAll();
    return false;
  }
  ++looks_.inside;
  looksAreNext_ = false;
  return true;
}

void attachGate::enterAttach() {
  const lockGuard guard(mutex_);
  waitFor(looks_, attaches_, false, kAttachPatience);  // it has to attach, whatever becomes of it
  ++attaches_.inside;
  looksAreNext_ = true;
}

void attachGate::leave(side& own) {
  if (--own.inside == 0) {
    own.isStuck = false;
    if (looks_.waiting + attaches_.waiting > 0) {
      changed_.notifyAll();
    }
  }
}

void attachGate::leaveLook() {
  const lockGuard guard(mutex_);
  leave(looks_);
}

void attachGate::leaveAttach() {
  const lockGuard guard(mutex_);
  leave(attaches_);
}

}  // namespace support
