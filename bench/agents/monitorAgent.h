// What the reference agents for locks have in common with each other and with the lock profiler:
// the same capabilities and the same events, enabled for all threads. Only their handlers differ,
// so that a comparison shows what the handlers cost.
#pragma once

#include "agentSupport.h"

namespace bench {

// Called once, from Agent_OnLoad; gives what that is to return.
inline jint listenToMonitors(JavaVM* vm, const jvmtiEventCallbacks& handlers) {
  jvmtiEnv* const jvmti = toolEnvironment(vm);
  if (jvmti == nullptr) {
    return JNI_ERR;
  }
  jvmtiCapabilities capabilities{};
  capabilities.can_get_owned_monitor_info = 1;
  capabilities.can_get_current_contended_monitor = 1;
  capabilities.can_get_monitor_info = 1;
  capabilities.can_generate_monitor_events = 1;
  return enable(jvmti, capabilities, handlers,
                {JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED,
                 JVMTI_EVENT_MONITOR_CONTENDED_ENTER, JVMTI_EVENT_MONITOR_CONTENDED_ENTERED});
}

}  // namespace bench
