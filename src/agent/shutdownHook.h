// The moment before the program's shutdown hooks, which Java has no name for: the JDK starts all of
// them at once. A call is inserted into the method of the JDK that starts them.
//
// It has a JVMTI environment of its own.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <string>

#include "instruments/ownEnvironment.h"
#include "support/annotations.h"

namespace agent {

// There is one in the process.
class shutdownHook {
 public:
  static shutdownHook& ofProcess();

  // Has `action`, a java.lang.Runnable, run when the VM begins to shut down: once, on the thread
  // that shuts it down, in place of an earlier action. What it throws is dropped. The first time
  // that waits for a safepoint. Empty, or why it will not run. On a Java thread, in the live phase.
  std::string run(JNIEnv* jni, jobject action) EXCLUDES(mutex_);

  // Has `call` run then, too, before the action; it may have one set. It replaces an earlier one.
  // The same otherwise.
  std::string callBefore(JNIEnv* jni, void (*call)(JNIEnv*));

  // Drops the action, makes the JDK's class as before, which waits for a safepoint, and gives the
  // capability back. Empty, or why not: the call then stays, and does nothing.
  std::string remove(JNIEnv* jni) EXCLUDES(mutex_, controlMutex_);

  // Whether the action is over, so that the program's hooks may run. Any thread.
  bool haveHooksBegun() const { return haveHooksBegun_.load(); }

 private:
  shutdownHook() = default;

  static void JNICALL begins(JNIEnv* jni, jclass cls);
  static void JNICALL ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* jni, jclass redefined,
                                        jobject loader, const char* name, jobject protectionDomain,
                                        jint size, const unsigned char* bytes, jint* newSize,
                                        unsigned char** newBytes);

  std::string install(JNIEnv* jni) REQUIRES(controlMutex_);
  jobject exchange(jobject action) EXCLUDES(mutex_);

  std::atomic<bool> haveHooksBegun_{false};
  std::atomic<void (*)(JNIEnv*)> callBefore_{nullptr};
  support::mutex controlMutex_;
  instruments::ownEnvironment environment_ GUARDED_BY(controlMutex_);
  support::mutex mutex_;
  jobject action_ GUARDED_BY(mutex_) = nullptr;  // a global reference
};

}  // namespace agent
