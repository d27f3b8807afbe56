// Threads that come back into a monitor after Object.wait.
//
// A waiter that was notified and has to wait for the monitor posts no contended entry in HotSpot up
// to 26; 27 and later post one. It is not an entry of the program, and does not count. A waiter
// that was interrupted, or whose time is over, posts one in all versions, which counts.
//
// A virtual thread posts the end of its way back alone, from 24 on.
#pragma once

#include <jvmti.h>

namespace support {

// Whether the thread is within Object.wait; null for the calling one. From an event of its own.
bool isWithinWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);

// What a native thread knows of the last wait that ended on it: each user has one, thread_local.
class notifiedWaiter {
 public:
  // At MonitorWaited of the calling thread.
  void waited(bool timedOut) { isNotified_ = !timedOut; }
  // At MonitorContendedEnter of the calling thread: whether it comes back because it was notified.
  bool comesBack(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
    return isNotified_ && isBackFrom(jvmti, jni, thread);
  }

 private:
  bool isBackFrom(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);

  bool isNotified_ = false;  // or interrupted
};

}  // namespace support
