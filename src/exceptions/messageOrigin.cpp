#include "exceptions/messageOrigin.h"

namespace agent {

jclass messageOriginOf(jvmtiEnv* jvmti, JNIEnv* jni, jclass type) {
  // GetMethodID would wait for the thread that initializes the class.
  jint status = 0;
  if (jvmti->GetClassStatus(type, &status) != JVMTI_ERROR_NONE ||
      (status & JVMTI_CLASS_STATUS_INITIALIZED) == 0) {
    return nullptr;
  }
  jmethodID const method = jni->GetMethodID(type, "getMessage", "()Ljava/lang/String;");
  if (method == nullptr) {
    jni->ExceptionClear();
    return nullptr;
  }
  jclass origin = nullptr;
  const jvmtiError error = jvmti->GetMethodDeclaringClass(method, &origin);
  return error == JVMTI_ERROR_NONE ? origin : nullptr;
}

}  // namespace agent
