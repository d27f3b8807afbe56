// Makes parks of java.util.concurrent visible: calls of natives are inserted into the classes of
// the JDK that threads park in. Platform and virtual threads.
#pragma once

#include <jvmti.h>

#include <string>

namespace agent {

// What the hook calls, on the thread that parks, many at once; no Java exception is pending, none
// is left and nothing is thrown. On the stack, frames of the package kParkHookPackage are on top.
struct parkCallbacks {
  // The thread begins to acquire a lock (or another synchronizer) that it did not get at once. It
  // may get it without parking after all. A thread that takes its lock again at the end of
  // Condition.await begins so, too, whether or not the lock is free.
  void (*acquisitionBegins)(JNIEnv* jni);
  // `thread`, the current one, is about to park because of `blocker`; with null that park is over.
  // An end may come without its begin, and a begin may come without its end, when the hook is
  // installed, removed or paused meanwhile. Parks without a blocker are not seen.
  void (*blockerSet)(JNIEnv* jni, jthread thread, jobject blocker);
};

inline constexpr const char* kParkHookPackage = "com.korvane.twutils.nativeagent.hook";

enum class parkHookLevel {
  none,   // no park is seen, and the classes are as before
  parks,  // every park is seen, but not everywhere where an acquisition begins
  exact,  // parks, and acquisitions of all synchronizers
};

struct parkHookResult {
  parkHookLevel level = parkHookLevel::none;
  std::string missing;  // what is not hooked and why; empty when the level is exact
};

// There is one hook in the process. Control calls are for one thread at a time, which the caller
// sees to, in the live phase, on a Java thread; an exception that was pending there stays so. They
// wait for a safepoint.
class parkHook {
 public:
  // The environment has can_retransform_classes, and ClassFileLoadHook among its callbacks; the
  // event is enabled here, and stays so, for what other agents retransform would lose the calls
  // otherwise. `callbacks` lives as long as the process, and is called from now on. When nothing
  // can be hooked, all is as before.
  static parkHookResult install(jvmtiEnv* jvmti, JNIEnv* jni, const parkCallbacks& callbacks);

  // Makes the classes as before, and disables the event. Empty when that was done; else why not:
  // the calls then stay, and do nothing. A callback that is under way goes on meanwhile.
  static std::string remove(jvmtiEnv* jvmti, JNIEnv* jni);

  // Replaces the callbacks while the hook is installed; with null the natives return at once. Any
  // thread, at any time.
  static void deliverTo(const parkCallbacks* callbacks);

  static void JNICALL ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* jni, jclass redefined,
                                        jobject loader, const char* name, jobject protectionDomain,
                                        jint size, const unsigned char* bytes, jint* newSize,
                                        unsigned char** newBytes);
};

}  // namespace agent
