#include "support/waitReturn.h"

#include <atomic>
#include <string_view>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiStatus.h"

namespace support {

namespace {

constexpr jint kFirstThatPosts = 27;
constexpr std::string_view kObject = "Ljava/lang/Object;";

// The native method of Object.wait: "wait0", before JDK 19 "wait".
bool isWait(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method) {
  jvmtiText name(jvmti);
  name.fill([&](char** out) { return jvmti->GetMethodName(method, out, nullptr, nullptr); });
  if (!name || (name.view() != "wait0" && name.view() != "wait")) {
    return false;
  }
  jclass found = nullptr;
  if (jvmti->GetMethodDeclaringClass(method, &found) != JVMTI_ERROR_NONE) {
    return false;
  }
  const localRef<jclass> cls(jni, found);
  jvmtiText signature(jvmti);
  signature.fill([&](char** out) { return jvmti->GetClassSignature(found, out, nullptr); });
  return signature && signature.view() == kObject;
}

}  // namespace

bool isWithinWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  static std::atomic<jmethodID> known{nullptr};  // Object is never unloaded
  jvmtiFrameInfo top{};
  jint count = 0;
  if (jvmti->GetStackTrace(thread, 0, 1, &top, &count) != JVMTI_ERROR_NONE || count != 1 ||
      top.location != -1) {
    return false;
  }
  if (top.method == known.load(std::memory_order_relaxed)) {
    return true;
  }
  if (!isWait(jvmti, jni, top.method)) {
    return false;
  }
  known.store(top.method, std::memory_order_relaxed);
  return true;
}

bool notifiedWaiter::isBackFrom(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  isNotified_ = false;
  jint state = 0;
  return featureVersion(jvmti) >= kFirstThatPosts && isWithinWait(jvmti, jni, thread) &&
         jvmti->GetThreadState(thread, &state) == JVMTI_ERROR_NONE &&
         (state & JVMTI_THREAD_STATE_INTERRUPTED) == 0;
}

}  // namespace support
