// A JVMTI environment of an instrument's own: its events, capabilities and thread-local storage are
// its alone, so that no other profiler is slowed or stands in its way.
#pragma once

#include <jvmti.h>

#include <string>
#include <vector>

namespace instruments {

// The capabilities that both have.
jvmtiCapabilities inBoth(const jvmtiCapabilities& a, const jvmtiCapabilities& b);

class ownEnvironment {
 public:
  // Asks for an environment and for those of `wanted` that the VM can give in this phase. An
  // environment that is there already is kept, and asked for more capabilities. Returns why there
  // is none, or an empty text.
  std::string open(JavaVM* vm, const jvmtiCapabilities& wanted,
                   const jvmtiEventCallbacks& callbacks);

  // Null before open(). It lives as long as the process: handlers may be within it.
  jvmtiEnv* jvmti() const { return jvmti_; }
  JavaVM* vm() const { return vm_; }
  // What the VM gave.
  const jvmtiCapabilities& capabilities() const { return capabilities_; }

  // Switches events for all threads; false, and none is on, when the VM refuses one.
  bool enable(const std::vector<jvmtiEvent>& events);
  void disable(const std::vector<jvmtiEvent>& events);

  // Gives back what open() got, the environment excepted; events are disabled by then. Empty, or
  // why the VM keeps it.
  std::string close();

  // Runs `body(argument)` on a Java thread of that name, a daemon in the system's group. False,
  // with no exception left, when the VM refuses. On a Java thread, in the live phase.
  bool run(JNIEnv* jni, const char* name, jvmtiStartFunction body, void* argument);

 private:
  JavaVM* vm_ = nullptr;
  jvmtiEnv* jvmti_ = nullptr;
  jvmtiCapabilities capabilities_{};
};

}  // namespace instruments
