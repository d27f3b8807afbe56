// What all reference agents need at their start.
#pragma once

#include <jvmti.h>

#include <cstdio>
#include <initializer_list>

namespace bench {

// False, with a line on standard error, for a call that the VM refused.
inline bool ok(jvmtiError error, const char* call) {
  if (error == JVMTI_ERROR_NONE) {
    return true;
  }
  std::fprintf(stderr, "%s gave JVMTI error %d\n", call, static_cast<int>(error));
  return false;
}

// A JVMTI environment of the agent's own; null, with a line on standard error, without one.
inline jvmtiEnv* toolEnvironment(JavaVM* vm) {
  jvmtiEnv* jvmti = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&jvmti), JVMTI_VERSION_1_1) == JNI_OK) {
    return jvmti;
  }
  std::fprintf(stderr, "the VM has no tool environment of version 1.1\n");
  return nullptr;
}

// Takes the capabilities, installs the handlers and enables the events for all threads. Gives what
// Agent_OnLoad is to return: JNI_OK, or JNI_ERR after a line on standard error.
inline jint enable(jvmtiEnv* jvmti, const jvmtiCapabilities& capabilities,
                   const jvmtiEventCallbacks& handlers, std::initializer_list<jvmtiEvent> events) {
  if (!ok(jvmti->AddCapabilities(&capabilities), "AddCapabilities")) {
    return JNI_ERR;
  }
  if (!ok(jvmti->SetEventCallbacks(&handlers, sizeof handlers), "SetEventCallbacks")) {
    return JNI_ERR;
  }
  for (const jvmtiEvent event : events) {
    if (!ok(jvmti->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr),
            "SetEventNotificationMode")) {
      return JNI_ERR;
    }
  }
  return JNI_OK;
}

}  // namespace bench
