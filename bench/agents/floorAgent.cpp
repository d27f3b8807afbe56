// Makes only those VM calls that a lock profiler's handlers cannot do without, and keeps nothing of
// the results: the class and the hash code that tell which lock it is, and the thread's storage for
// the start of a block. The time comes from the system, not from the VM.
//
// Option `mode=summary` (the default) makes just these; `mode=stacks` adds the stack trace, without
// names, to each contended enter, and the thread's name to all events; `mode=detail` the owner,
// too.
#include <array>
#include <cstring>
#include <ctime>

#include "monitorAgent.h"
#include "monitorCalls.h"

namespace {

using support::localRef;

// Written by Agent_OnLoad, before any event.
bool detail = false;
bool owners = true;  // in detail

void storeStart(jvmtiEnv* jvmti, jthread thread) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  jvmti->SetThreadLocalStorage(thread, reinterpret_cast<void*>(now.tv_nsec));
}

void readStart(jvmtiEnv* jvmti, jthread thread) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  void* start = nullptr;
  jvmti->GetThreadLocalStorage(thread, &start);
}

void readLock(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) {
  const localRef<jclass> cls(jni, jni->GetObjectClass(object));
  jint hash = 0;
  jvmti->GetObjectHashCode(object, &hash);
}

void readEvent(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object) {
  readLock(jvmti, jni, object);
  if (detail) {
    bench::readThreadName(jvmti, jni, thread);
  }
}

void readStack(jvmtiEnv* jvmti, jthread thread) {
  std::array<jvmtiFrameInfo, bench::kMaxFrames> frames;
  jint count = 0;
  jvmti->GetStackTrace(thread, 0, bench::kMaxFrames, frames.data(), &count);
}

void JNICALL MonitorContendedEnter(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object) {
  storeStart(jvmti, thread);
  readEvent(jvmti, jni, thread, object);
  if (!detail) {
    return;
  }
  if (owners) {
    const localRef<jthread> owner = bench::readMonitorUsage(jvmti, jni, object);
    if (owner) {
      bench::readThreadName(jvmti, jni, owner.get());
    }
  }
  readStack(jvmti, thread);
}

void JNICALL MonitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object) {
  readStart(jvmti, thread);
  readEvent(jvmti, jni, thread, object);
}

void JNICALL MonitorWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object, jlong) {
  storeStart(jvmti, thread);
  readLock(jvmti, jni, object);
}

void JNICALL MonitorWaited(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object, jboolean) {
  if (!detail) {
    return;
  }
  readStart(jvmti, thread);
  readEvent(jvmti, jni, thread, object);
}

}  // namespace

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*) {
  if (options != nullptr && std::strcmp(options, "mode=stacks") == 0) {
    detail = true;
    owners = false;
  } else if (!bench::parseMode(options, detail)) {
    return JNI_ERR;
  }
  jvmtiEventCallbacks handlers{};
  handlers.MonitorContendedEnter = MonitorContendedEnter;
  handlers.MonitorContendedEntered = MonitorContendedEntered;
  handlers.MonitorWait = MonitorWait;
  handlers.MonitorWaited = MonitorWaited;
  return bench::listenToMonitors(vm, handlers);
}
