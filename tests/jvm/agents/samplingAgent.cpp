// An agent that takes the samples of allocations for itself.
#include <jvmti.h>

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* /*options*/, void* /*reserved*/) {
  void* environment = nullptr;
  if (vm->GetEnv(&environment, JVMTI_VERSION_1_2) != JNI_OK) {
    return JNI_ERR;
  }
  jvmtiCapabilities wanted{};
  wanted.can_generate_sampled_object_alloc_events = 1;
  auto* const jvmti = static_cast<jvmtiEnv*>(environment);
  return jvmti->AddCapabilities(&wanted) == JVMTI_ERROR_NONE ? JNI_OK : JNI_ERR;
}
