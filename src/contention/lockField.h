// The static field that holds a lock, as people call it.
#pragma once

#include <jvmti.h>

#include <string>

namespace agent {

// Looks for `lock` in the static fields of the classes that the innermost frames of `thread` are
// in: the object itself, or a lock of java.util.concurrent whose synchronizer it is. The name,
// "com.example.Shop.STOCK"; empty when there is none. Not for event handlers. No exception is left.
std::string staticFieldOf(jvmtiEnv* jvmti, JNIEnv* jni, jobject lock, jthread thread);

}  // namespace agent
