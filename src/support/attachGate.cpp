#include "support/attachGate.h"

#include <atomic>
#include <chrono>
#include <deque>

#include "support/jvmtiStatus.h"
#include "support/vmTurn.h"

namespace support {

namespace {

constexpr jint kFirstThatCrashes = 23;

constexpr std::chrono::milliseconds kLookPatience{20};
constexpr std::chrono::milliseconds kUnderWay{200};  // a thread that attaches takes one or less
constexpr std::chrono::seconds kAttachPatience{2};

// The functions that were there, and ours in front of three of them. All stay as long as the
// process: a thread may be on its way through them at any time.
std::atomic<const JNIInvokeInterface_*> first{nullptr};     // when ours were installed first
std::atomic<const JNIInvokeInterface_*> original{nullptr};  // when they were installed last
std::atomic<const JNIInvokeInterface_*> ours{nullptr};      // made once for each `original`

// The functions of another tool, installed in front of ours, may call ours; and when ours were
// removed and are installed again, they are in front of those.
thread_local bool isPassing = false;

bool isAttached(JavaVM* vm) {
  void* environment = nullptr;
  return first.load()->GetEnv(vm, &environment, JNI_VERSION_1_2) != JNI_EDETACHED;
}

template <typename Attach>
jint passGate(JavaVM* vm, const Attach& attach) {
  if (isPassing) {
    return attach(*first.load());
  }
  isPassing = true;
  jint result = JNI_OK;
  if (isAttached(vm)) {
    result = attach(*original.load());
  } else {
    const attachGate::attaching inside;
    result = attach(*original.load());
  }
  isPassing = false;
  return result;
}

jint JNICALL attachCurrentThread(JavaVM* vm, void** environment, void* arguments) {
  return passGate(vm, [&](const JNIInvokeInterface_& functions) {
    return functions.AttachCurrentThread(vm, environment, arguments);
  });
}

jint JNICALL attachCurrentThreadAsDaemon(JavaVM* vm, void** environment, void* arguments) {
  return passGate(vm, [&](const JNIInvokeInterface_& functions) {
    return functions.AttachCurrentThreadAsDaemon(vm, environment, arguments);
  });
}

// Waits for the other threads of the program, and then ends the VM.
thread_local bool isDestroying = false;

jint JNICALL destroyJavaVM(JavaVM* vm) {
  if (isDestroying) {
    return first.load()->DestroyJavaVM(vm);
  }
  isDestroying = true;
  const jint result = original.load()->DestroyJavaVM(vm);
  isDestroying = false;
  return result;
}

}  // namespace

bool attachGate::isDestroyer() {
  return isDestroying;
}

attachGate& attachGate::ofProcess() {
  static attachGate& gate = *new attachGate;  // for threads that still run when the process ends
  return gate;
}

void attachGate::install(JavaVM* vm, jvmtiEnv* jvmti, bool isRunning) {
  const lockGuard guard(mutex_);
  if (featureVersion(jvmti) < kFirstThatCrashes ||
      (ours.load() != nullptr && vm->functions == ours.load())) {
    return;
  }
  // Once: a thread may still be on its way through what was installed before.
  if (original.load() != vm->functions) {
    if (first.load() == nullptr) {
      first.store(vm->functions);
    }
    original.store(vm->functions);
    static auto& made = *new std::deque<JNIInvokeInterface_>;
    JNIInvokeInterface_& functions = made.emplace_back(*vm->functions);
    functions.AttachCurrentThread = attachCurrentThread;
    functions.DestroyJavaVM = destroyJavaVM;
    functions.AttachCurrentThreadAsDaemon = attachCurrentThreadAsDaemon;
    ours.store(&functions);
  }
  if (isRunning) {
    firstLook_ = patienceClock::now() + kUnderWay;
  }
  isNeeded_.store(true);
  std::atomic_ref(vm->functions).store(ours.load());
}

void attachGate::remove(JavaVM* vm) {
  const lockGuard guard(mutex_);
  if (ours.load() != nullptr && vm->functions == ours.load()) {
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
  if (patienceClock::now() < firstLook_) {
    return false;
  }
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
