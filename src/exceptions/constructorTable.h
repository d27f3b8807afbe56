// The constructors that make an exception, which distinguish its maker from them.
#pragma once

#include <jvmti.h>

#include <memory>
#include <optional>
#include <vector>

namespace agent {

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

}  // namespace agent
