// Whose code answers for the message of an exception.
#pragma once

#include <jvmti.h>

namespace agent {

// The class, `type` or one above it, whose getMessage() answers for exceptions of `type`, as a
// local reference. Loads and initializes no class and runs no code of the program. Null for a class
// that is not initialized, that is not an exception, and when the VM gives no answer.
jclass messageOriginOf(jvmtiEnv* jvmti, JNIEnv* jni, jclass type);

}  // namespace agent
