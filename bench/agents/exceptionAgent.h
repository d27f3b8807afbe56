// What the reference agents for exceptions have in common with each other and with the exception
// profiler: the same capabilities and the same event, enabled for all threads. Only their handlers
// differ. Besides, the calls by which they hand a record to Java.
#pragma once

#include <jvmti.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agentSupport.h"
#include "support/jniRef.h"

namespace bench {

// Takes the capabilities of the exception profiler, installs the handler and enables the event.
// Gives JNI_OK, or JNI_ERR with a line on standard error, which makes the VM's start fail.
inline jint listenToExceptions(JavaVM* vm, jvmtiEventException handler) {
  jvmtiEnv* const jvmti = toolEnvironment(vm);
  if (jvmti == nullptr) {
    return JNI_ERR;
  }
  jvmtiCapabilities capabilities{};
  capabilities.can_get_source_file_name = 1;
  capabilities.can_get_line_numbers = 1;
  capabilities.can_access_local_variables = 1;
  capabilities.can_generate_exception_events = 1;
  jvmtiEventCallbacks handlers{};
  handlers.Exception = handler;
  return enable(jvmti, capabilities, handlers, {JVMTI_EVENT_EXCEPTION});
}

// The frames of a record, from the option `frames=N`; 0 with a line on standard error.
inline jint framesOption(const char* options) {
  constexpr const char* kKey = "frames=";
  constexpr jint kMost = 100;
  const bool given = options != nullptr && std::strncmp(options, kKey, std::strlen(kKey)) == 0;
  const long frames = given ? std::strtol(options + std::strlen(kKey), nullptr, 10) : 0;
  if (frames >= 1 && frames <= kMost) {
    return static_cast<jint>(frames);
  }
  std::fprintf(stderr, "expected frames= and a number from 1 to 100: %s\n",
               options == nullptr ? "" : options);
  return 0;
}

// Hands an empty record to the companion class, which counts it.
inline void deliver(JNIEnv* jni, jobject exception) {
  const support::localRef<jclass> companion(
      jni, jni->FindClass("com/korvane/twutils/nativeagent/TWNativeAgentProfiling"));
  if (companion) {
    const jmethodID method = jni->GetStaticMethodID(companion.get(), "onExceptionOccured",
                                                    "(Ljava/lang/String;Ljava/lang/Object;)V");
    const support::localRef<jstring> record(jni, jni->NewStringUTF(""));
    if (method != nullptr && record) {
      jni->CallStaticVoidMethod(companion.get(), method, record.get(), exception);
    }
  }
  if (jni->ExceptionCheck() != JNI_FALSE) {
    jni->ExceptionClear();
  }
}

}  // namespace bench

// The companion calls it before it hands a record on.
extern "C" JNIEXPORT inline void JNICALL __attribute__((used))
Java_com_korvane_twutils_nativeagent_AgentCounters_sinkBegins(JNIEnv* /*jni*/, jclass /*cls*/,
                                                              jboolean /*now*/) {}
