// Who has made an exception: the first frame below the constructors that make it.
#pragma once

#include <jvmti.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace agent {

struct throwEvent;

// The constructors that run while an object of one exception class is made: those of the class and
// of the classes above it. Read by any thread once it is made.
class constructorTable {
 public:
  // Asks the VM for them, which takes some microseconds; null when it refuses.
  static std::unique_ptr<const constructorTable> of(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls);

  // How far the method's class is below Object; none for any other method.
  std::optional<jint> depthOf(jmethodID method) const;
  // The same for the class itself.
  jint depth() const { return depth_; }

 private:
  struct constructor {
    jmethodID method;
    jint classesAbove;
  };

  std::vector<constructor> constructors_;
  jint depth_ = 0;
};

// Completes an event of an exception that is being made: its method, location, first frame and
// thread. `cls` is the exception's class, of which the event has the information already. False
// when the VM refuses (event.lastError has the reason), or no frame is left below the constructors.
//
// A constructor that makes another exception of its own class is taken for one that calls another
// constructor of that class by this(...), and the frame below it for the one that makes both.
bool findMaker(throwEvent& event, jclass cls);

}  // namespace agent
