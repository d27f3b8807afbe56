// Makes every VM call of a straightforward lock profiler, one after another, and keeps nothing of
// the results: what an implementation without any shortcut pays to the VM alone.
//
// Option `mode=summary` (the default): time, thread-local storage, the lock's name and the thread's
// name. `mode=detail` adds owner and stack trace to each contended enter, and the question for
// waiters to each contended entered. All calls run on the thread of the event.
#include <array>
#include <cstddef>

#include "monitorAgent.h"
#include "monitorCalls.h"

namespace {

using bench::readMonitorUsage;
using bench::readThreadName;
using support::jvmtiText;
using support::localRef;

bool detail = false;  // Written by Agent_OnLoad, before any event.

jlong now(jvmtiEnv* jvmti) {
  jlong nanos = 0;
  jvmti->GetTime(&nanos);
  return nanos;
}

void setStart(jvmtiEnv* jvmti, jthread thread, jlong nanos) {
  jvmti->SetThreadLocalStorage(thread, reinterpret_cast<void*>(nanos));
}

void getStart(jvmtiEnv* jvmti, jthread thread) {
  void* start = nullptr;
  jvmti->GetThreadLocalStorage(thread, &start);
}

// Calls a method without parameters that gives an object; empty when the method or its result is
// missing.
localRef<> callObjectMethod(JNIEnv* jni, jobject object, const char* name, const char* signature) {
  const localRef<jclass> type(jni, jni->GetObjectClass(object));
  const jmethodID method = jni->GetMethodID(type.get(), name, signature);
  if (method == nullptr) {
    jni->ExceptionClear();
    return {};
  }
  localRef<> result(jni, jni->CallObjectMethod(object, method));
  if (jni->ExceptionCheck() != JNI_FALSE) {
    jni->ExceptionClear();
    return {};
  }
  return result;
}

void readLockName(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) {
  const localRef<> type = callObjectMethod(jni, object, "getClass", "()Ljava/lang/Class;");
  if (!type) {
    return;
  }
  const localRef<> name = callObjectMethod(jni, type.get(), "getName", "()Ljava/lang/String;");
  if (!name) {
    return;
  }
  const auto text = static_cast<jstring>(name.get());
  const char* chars = jni->GetStringUTFChars(text, nullptr);
  if (chars == nullptr) {
    jni->ExceptionClear();
    return;
  }
  jni->ReleaseStringUTFChars(text, chars);
  jint hash = 0;
  jvmti->GetObjectHashCode(object, &hash);
}

void readFrame(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method) {
  jvmtiText name(jvmti);
  name.fill([&](char** out) { return jvmti->GetMethodName(method, out, nullptr, nullptr); });
  jclass written = nullptr;
  if (jvmti->GetMethodDeclaringClass(method, &written) != JVMTI_ERROR_NONE) {
    return;
  }
  const localRef<jclass> type(jni, written);
  jvmtiText signature(jvmti);
  signature.fill([&](char** out) { return jvmti->GetClassSignature(type.get(), out, nullptr); });
}

void readStack(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  std::array<jvmtiFrameInfo, bench::kMaxFrames> frames;
  jint count = 0;
  if (jvmti->GetStackTrace(thread, 0, bench::kMaxFrames, frames.data(), &count) !=
      JVMTI_ERROR_NONE) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    readFrame(jvmti, jni, frames[static_cast<std::size_t>(i)].method);
  }
}

void JNICALL MonitorContendedEnter(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object) {
  setStart(jvmti, thread, now(jvmti));
  readLockName(jvmti, jni, object);
  readThreadName(jvmti, jni, thread);
  if (!detail) {
    return;
  }
  const localRef<jthread> owner = readMonitorUsage(jvmti, jni, object);
  if (owner) {
    readThreadName(jvmti, jni, owner.get());
  }
  readStack(jvmti, jni, thread);
}

void JNICALL MonitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object) {
  now(jvmti);
  getStart(jvmti, thread);
  readLockName(jvmti, jni, object);
  readThreadName(jvmti, jni, thread);
  if (!detail) {
    return;
  }
  now(jvmti);
  readMonitorUsage(jvmti, jni, object);
}

void JNICALL MonitorWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object, jlong) {
  setStart(jvmti, thread, now(jvmti));
  readLockName(jvmti, jni, object);
  readThreadName(jvmti, jni, thread);
}

void JNICALL MonitorWaited(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object, jboolean) {
  now(jvmti);
  getStart(jvmti, thread);
  readLockName(jvmti, jni, object);
  readThreadName(jvmti, jni, thread);
}

}  // namespace

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*) {
  if (!bench::parseMode(options, detail)) {
    return JNI_ERR;
  }
  jvmtiEventCallbacks handlers{};
  handlers.MonitorContendedEnter = MonitorContendedEnter;
  handlers.MonitorContendedEntered = MonitorContendedEntered;
  handlers.MonitorWait = MonitorWait;
  handlers.MonitorWaited = MonitorWaited;
  return bench::listenToMonitors(vm, handlers);
}
