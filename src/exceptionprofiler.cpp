#include "exceptionprofiler.h"

#include "profilerRegistry.h"

namespace agent {

void exceptionProfiler::addCapabilities() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) return;
  registry->capabilities.can_get_source_file_name = 1;
  registry->capabilities.can_get_line_numbers = 1;
  registry->capabilities.can_access_local_variables = 1;
  registry->capabilities.can_generate_exception_events = 1;
}

void exceptionProfiler::setProfilerEventMode(bool enable) {
  jvmtiEnv* const jvmti = getRegistry()->environment();
  if (jvmti == nullptr) return;
  if (enable) setState(kExceptionRunning);
  for (const jvmtiEvent event : {JVMTI_EVENT_VM_INIT, JVMTI_EVENT_EXCEPTION}) {
    jvmti->SetEventNotificationMode(enable ? JVMTI_ENABLE : JVMTI_DISABLE, event, nullptr);
  }
}

}  // namespace agent
