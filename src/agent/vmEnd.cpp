#include "agent/vmEnd.h"

#include <atomic>
#include <string_view>

#include "agent/boundary.h"
#include "support/attachGate.h"
#include "support/jvmtiRecords.h"
#include "support/jvmtiStatus.h"

namespace agent {

namespace {

constexpr const char* kThreadEnd = "vmEnd::ThreadEnd";
constexpr std::string_view kDestroyer = "DestroyJavaVM";  // HotSpot's name for the last thread

constexpr jint kFirstThatWaits = 26;

std::atomic<bool> isEnding{false};
std::atomic<bool> isNeeded{true};  // as far as is known
std::atomic<void (*)()> callAtEnd{nullptr};
std::atomic<jvmtiEnv*> watching{nullptr};  // null for a VM that needs no watch

// The thread that ends the VM is within System.exit or Runtime.halt, where another thread that ends
// has no frame left. Or it is the one that has waited for all others after main returned: HotSpot's
// launcher has one with a name, and other programs one that was attached before.
bool endsVm(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  if (support::attachGate::isDestroyer()) {
    return true;
  }
  jint frames = 0;
  if (jvmti->GetFrameCount(thread, &frames) != JVMTI_ERROR_NONE) {
    return false;
  }
  if (frames > 0) {
    return true;
  }
  support::threadName name(jvmti, jni);
  name.read(thread);
  return name.view() == kDestroyer;
}

void JNICALL ThreadEnd(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  contained(kThreadEnd, "Exception occured in vmEnd : ThreadEnd", [&] {
    if (!endsVm(jvmti, jni, thread) || isEnding.exchange(true)) {
      return;
    }
    // Other threads end meanwhile, and this is a handler too.
    jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_THREAD_END, nullptr);
    callAtEnd.load()();
  });
}

}  // namespace

namespace {

void watch(JavaVM* vm, void (*atEnd)()) {
  callAtEnd.store(atEnd);
  void* environment = nullptr;
  if (vm->GetEnv(&environment, JVMTI_VERSION_1_2) != JNI_OK || environment == nullptr) {
    return;
  }
  auto* const jvmti = static_cast<jvmtiEnv*>(environment);
  if (support::featureVersion(jvmti) < kFirstThatWaits) {
    isNeeded.store(false);
    return;
  }
  jvmtiEventCallbacks callbacks{};
  callbacks.ThreadEnd = ThreadEnd;
  jvmti->SetEventCallbacks(&callbacks, static_cast<jint>(sizeof(callbacks)));
  jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_THREAD_END, nullptr);
  watching.store(jvmti);
}

}  // namespace

void watchForVmEnd(JavaVM* vm, void (*atEnd)()) {
  isEnding.store(false);
  watch(vm, atEnd);
}

void watchForVmEndAgain(JavaVM* vm, void (*atEnd)()) {
  if (jvmtiEnv* const jvmti = watching.load()) {
    jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_THREAD_END, nullptr);
  } else if (isNeeded.load()) {  // each environment that is taken stays until the VM ends
    watch(vm, atEnd);
  }
}

void stopWatchingForVmEnd() {
  if (jvmtiEnv* const jvmti = watching.load()) {
    jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_THREAD_END, nullptr);
  }
}

bool vmIsEnding() {
  return isEnding.load();
}

}  // namespace agent
