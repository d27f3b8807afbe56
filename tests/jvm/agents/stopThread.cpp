// An agent that sends exceptions to threads, as debuggers do.
#include <jvmti.h>

namespace {

jvmtiEnv* environment = nullptr;

}  // namespace

extern "C" JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* /*options*/, void* /*reserved*/) {
  void* found = nullptr;
  if (vm->GetEnv(&found, JVMTI_VERSION_1_1) != JNI_OK) {
    return JNI_ERR;
  }
  environment = static_cast<jvmtiEnv*>(found);
  jvmtiCapabilities wanted{};
  wanted.can_signal_thread = 1;
  return environment->AddCapabilities(&wanted) == JVMTI_ERROR_NONE ? JNI_OK : JNI_ERR;
}

// The VM's answer.
extern "C" JNIEXPORT jint JNICALL Java_ExceptionStop_send(JNIEnv* /*jni*/, jclass /*cls*/,
                                                          jobject thread, jobject exception) {
  return environment->StopThread(thread, exception);
}
