// The Java exceptions that an event handler finds pending after its own calls.
//
// What those calls have thrown themselves (a sink, memory that is used up) must not reach the
// program, and is dropped. Another thread may send this one an asynchronous exception, by
// Thread.stop or by StopThread of JVMTI. It may be delivered in one of those calls. It belongs to
// the program, and is sent again when the handler is done.
#pragma once

#include <jvmti.h>

#include <string>

namespace agent {

// Used by one handler, on its thread. The last of the handler's objects to go: after it no call is
// made that the exception could be delivered in.
class raisedInHandler {
 public:
  raisedInHandler(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);
  ~raisedInHandler();
  raisedInHandler(const raisedInHandler&) = delete;
  raisedInHandler& operator=(const raisedInHandler&) = delete;

  enum class kind {
    none,
    noStack,       // a StackOverflowError
    noMemory,      // an OutOfMemoryError
    other,         // what a call threw
    asynchronous,  // what another thread sent
  };
  // Clears what is pending after a call that runs no code but the VM's own and that of java.lang:
  // what these throw is of a class of java.lang, and all else counts as sent.
  kind clear();
  // Just before the callback is called, and clears what is pending after that. An exception counts
  // as sent, whatever its class, when it came up before the sink began: nothing there throws.
  static void beginCallback();
  kind clearAfterCallback();
  // The class of what was cleared last, as in "java.lang.Error".
  const std::string& className() const { return className_; }

  // The callback is about to call its sink, on this thread. What comes up from now on may be the
  // sink's. A callback that never announces it may throw at any point.
  static void noteSink();

 private:
  // Who may have thrown what is pending.
  enum class thrower { nobody, javaLang, anybody };
  kind clear(thrower possible);
  kind kindOf(jthrowable raised, thrower possible);
  std::string signatureOf(jclass cls);

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  jthread thread_;
  jobject asynchronous_ = nullptr;  // a global reference on the first one
  std::string className_;
};

}  // namespace agent
