// VM calls that the literal and the floor agent for locks have in common.
#pragma once

#include <jvmti.h>

#include <cstdio>
#include <cstring>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"

namespace bench {

constexpr jint kMaxFrames = 100;

inline void readThreadName(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  support::threadName name(jvmti, jni);
  name.read(thread);
}

// Gives the owner; empty when the VM names none. One global safepoint.
inline support::localRef<jthread> readMonitorUsage(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) {
  jvmtiMonitorUsage usage{};
  if (jvmti->GetObjectMonitorUsage(object, &usage) != JVMTI_ERROR_NONE) {
    return {};
  }
  const auto deleteAll = [&](jthread* threads, jint count) {
    support::jvmtiPtr<jthread> owned(jvmti);
    owned.adopt(threads);
    for (jint i = 0; i < count; i++) {
      jni->DeleteLocalRef(threads[i]);
    }
  };
  deleteAll(usage.waiters, usage.waiter_count);
  deleteAll(usage.notify_waiters, usage.notify_waiter_count);
  return {jni, usage.owner};
}

// Reads the option `mode=summary`, which absent or empty options mean too, or `mode=detail`; false,
// with a line on standard error, for any other.
inline bool parseMode(const char* options, bool& detail) {
  if (options == nullptr || *options == '\0' || std::strcmp(options, "mode=summary") == 0) {
    return true;
  }
  detail = std::strcmp(options, "mode=detail") == 0;
  if (!detail) {
    std::fprintf(stderr, "expected mode=summary or mode=detail: %s\n", options);
  }
  return detail;
}

}  // namespace bench
