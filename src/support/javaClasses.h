// Names of the classes of monitors, read once for each class: it takes two calls into Java, several
// times what an event handler costs otherwise.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <memory>
#include <string>

#include "support/classCache.h"
#include "support/jniRef.h"

namespace support {

// A class that was met; its value is its name ("com.example.Lock", "[I").
using namedClass = classCache<std::string>::entry;

// Why a name could not be read.
enum class classNameFailure {
  none,
  noGetClass,  // no method ID for Object.getClass
  noGetName,   // no method ID for Class.getName
  empty,       // the calls into Java gave no name
};

struct classNameResult {
  std::shared_ptr<const namedClass> found;  // none when it failed
  classNameFailure failure = classNameFailure::none;
};

// The classes met so far. Any thread.
class javaClasses {
 public:
  // The class `cls` of `object`. A Java exception raised on the way is cleared, one that was
  // pending before stays pending.
  classNameResult of(jvmtiEnv* jvmti, JNIEnv* jni, jobject object, jclass cls);

  std::size_t size() const { return classes_.size(); }

 private:
  classNameFailure readName(JNIEnv* jni, pendingExceptionGuard& exceptions, jobject object,
                            jclass cls, std::string& name);

  classCache<std::string> classes_;
  // IDs of methods of java.lang.Object and java.lang.Class, which are never unloaded.
  std::atomic<jmethodID> getClass_{nullptr};
  std::atomic<jmethodID> getName_{nullptr};
};

}  // namespace support
