// What the exception handler does with an answer of JVMTI.
#pragma once

#include <jvmti.h>

namespace agent {

// Whether `code` is an error. It is then logged, as of exceptionProfiler::check, and a pending Java
// exception is described and cleared.
bool checkJvmti(JNIEnv* jni, jvmtiEnv* jvmti, jvmtiError code);

}  // namespace agent
