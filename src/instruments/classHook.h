// Calls of natives that are inserted into classes of the JDK: a class that has these natives is
// defined in the bootstrap loader, and the classes are retransformed.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "instruments/ownEnvironment.h"
#include "support/classFile.h"
#include "support/jniRef.h"

namespace instruments {

// A method of the JDK, and what is called in it: a static method of the hook's class.
struct hookedMethod {
  const char* cls;  // "java/lang/Throwable"
  const char* name;
  const char* descriptor;
  std::uint8_t arguments;  // how many variables, from the first on, go to what is called
  const char* calls;
  const char* callsDescriptor;
  support::callPlace place = support::callPlace::start;
};

struct hookNative {
  const char* name;
  const char* descriptor;
  void* function;
};

// Opens an environment for hooks: it has can_retransform_classes and this handler. Why it has not,
// or an empty text.
std::string openForHooks(ownEnvironment& environment, JNIEnv* jni,
                         jvmtiEventClassFileLoadHook handler);

// One object for each hook of the process; it is never destroyed. Control calls are for one thread
// at a time, which the caller sees to, in the live phase, on a Java thread; an exception that was
// pending there stays so. They wait for a safepoint. Hooks of several environments do not meet,
// unless they name the same class.
class classHook {
 public:
  // `className` as in "a/b/Hook". All that is pointed to lives as long as the process. Methods of
  // one class follow one another; the first method is the one that the hook is of no use without.
  classHook(const char* className, std::span<const std::uint8_t> classFile,
            std::vector<hookNative> natives, std::span<const hookedMethod> methods);

  // Inserts the calls. The environment has can_retransform_classes, and a handler of
  // ClassFileLoadHook that calls classFileLoaded; the event is enabled here, and stays so, for what
  // other agents retransform would lose the calls otherwise. Empty when every method has its call;
  // else what is missing and why. When the first method has none, all is as before.
  std::string install(jvmtiEnv* jvmti, JNIEnv* jni);

  // Makes the classes as before, and disables the event. Empty when that was done; else why not:
  // the calls then stay. Not installed any more in either case.
  std::string remove(jvmtiEnv* jvmti, JNIEnv* jni);

  // Whether the first method has its call.
  bool isInstalled() const { return isHooked_.front(); }

  // What ClassFileLoadHook was given. Any thread. Throws std::bad_alloc.
  void classFileLoaded(jvmtiEnv* jvmti, jobject loader, const char* name, jint size,
                       const unsigned char* bytes, jint* newSize, unsigned char** newBytes);

 private:
  struct foundClass {
    const char* name;
    support::localRef<jclass> cls;
  };

  std::string define(JNIEnv* jni, support::pendingExceptionGuard& exceptions);
  bool bindNatives(JNIEnv* jni, jclass cls) const;
  std::vector<foundClass> findClasses(JNIEnv* jni,
                                      support::pendingExceptionGuard& exceptions) const;
  std::string retransform(jvmtiEnv* jvmti, const std::vector<foundClass>& classes);
  std::string missingFor(std::string reason) const;
  void setHooked(std::string_view cls, const std::vector<bool>& isInserted);
  std::vector<support::callInsertion> insertionsFor(std::string_view cls) const;

  const char* className_;
  std::span<const std::uint8_t> classFile_;
  std::vector<hookNative> natives_;
  std::span<const hookedMethod> methods_;
  // Which methods have their call, as the last load of their class left it.
  std::vector<std::atomic<bool>> isHooked_;
  // Whether the class of the hook was defined: it never goes.
  std::atomic<bool> isDefined_{false};
};

}  // namespace instruments
