// What the reference agents have in common with each other and with the lock profiler: the same
// capabilities and the same events, enabled for all threads. Only their handlers differ, so that a
// comparison shows what the handlers cost. Called once, from Agent_OnLoad.
#pragma once

#include <jvmti.h>

#include <cstdio>
#include <initializer_list>

namespace bench {

inline bool ok(jvmtiError error, const char* call) {
  if (error == JVMTI_ERROR_NONE) return true;
  std::fprintf(stderr, "%s gave JVMTI error %d\n", call, static_cast<int>(error));
  return false;
}

// Takes the capabilities of the lock profiler, installs the handlers and enables the four monitor
// events. Gives JNI_OK, or JNI_ERR with a line on standard error, which makes the VM's start fail.
inline jint listenToMonitors(JavaVM* vm, const jvmtiEventCallbacks& handlers) {
  jvmtiEnv* jvmti = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&jvmti), JVMTI_VERSION_1_1) != JNI_OK) {
    std::fprintf(stderr, "the VM has no tool environment of version 1.1\n");
    return JNI_ERR;
  }
  jvmtiCapabilities capabilities{};
  capabilities.can_get_owned_monitor_info = 1;
  capabilities.can_get_current_contended_monitor = 1;
  capabilities.can_get_monitor_info = 1;
  capabilities.can_generate_monitor_events = 1;
  if (!ok(jvmti->AddCapabilities(&capabilities), "AddCapabilities")) return JNI_ERR;
  if (!ok(jvmti->SetEventCallbacks(&handlers, sizeof handlers), "SetEventCallbacks")) {
    return JNI_ERR;
  }
  for (const jvmtiEvent event :
       {JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED, JVMTI_EVENT_MONITOR_CONTENDED_ENTER,
        JVMTI_EVENT_MONITOR_CONTENDED_ENTERED}) {
    if (!ok(jvmti->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr),
            "SetEventNotificationMode")) {
      return JNI_ERR;
    }
  }
  return JNI_OK;
}

}  // namespace bench
