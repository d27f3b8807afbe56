// The hook in the constructors of Throwable, by which exceptions are captured where they are made.
//
// It has a JVMTI environment of its own: other profilers are not slowed by its event.
#pragma once

#include <jvmti.h>

#include <string>

#include "instruments/ownEnvironment.h"

namespace agent {

// Called within the constructor, behind that of Object, on the thread that makes the exception,
// many at once; no Java exception is pending, none is left and nothing is thrown. On the stack, the
// hook's own frame is on top, then those of the exception's constructors.
using madeCallback = void (*)(JNIEnv* jni, jobject exception) noexcept;

// There is one in the process. Control calls are for one thread at a time, which the caller sees
// to, in the live phase, on a Java thread; an exception that was pending there stays so.
class madeHook {
 public:
  static madeHook& ofProcess();

  // Has `callback` called from now on. The first time that waits for a safepoint: the constructors
  // get their call, which stays. Empty when all five have it. Else what is missing and why; and
  // when isInstalled() is false, nothing is called.
  std::string switchOn(JNIEnv* jni, madeCallback callback);
  bool isInstalled() const;

  // The natives return at once. Any thread, at any time.
  static void switchOff();

  // Makes the constructors as before, which waits for a safepoint, and gives the capability back.
  // Empty, or why not: the calls then stay, and do nothing.
  std::string remove(JNIEnv* jni);

 private:
  madeHook() = default;

  static void JNICALL ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* jni, jclass redefined,
                                        jobject loader, const char* name, jobject protectionDomain,
                                        jint size, const unsigned char* bytes, jint* newSize,
                                        unsigned char** newBytes);

  std::string install(JNIEnv* jni);

  instruments::ownEnvironment environment_;
  std::string missing_;  // after the installation
};

}  // namespace agent
