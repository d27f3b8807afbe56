#include "support/javaClasses.h"

#include <utility>

#include "support/jniRef.h"

namespace support {

classNameResult javaClasses::of(jvmtiEnv* jvmti, JNIEnv* jni, jobject object, jclass cls) {
  const jint key = classes_.keyOf(jvmti, cls);
  if (auto kept = classes_.find(jni, key, cls)) {
    return {std::move(kept), classNameFailure::none};
  }
  pendingExceptionGuard exceptions(jni);
  std::string name;
  const classNameFailure failure = readName(jni, exceptions, object, cls, name);
  if (failure != classNameFailure::none) {
    return {nullptr, failure};
  }
  return {classes_.keep(jni, key, cls, std::move(name)), classNameFailure::none};
}

classNameFailure javaClasses::readName(JNIEnv* jni, pendingExceptionGuard& exceptions,
                                       jobject object, jclass cls, std::string& name) {
  jmethodID getClass = getClass_.load(std::memory_order_relaxed);
  jmethodID getName = getName_.load(std::memory_order_relaxed);
  if (getClass == nullptr || getName == nullptr) {
    // java.lang.Class is asked for both, since GetMethodID initialises the class it is asked with:
    // with the monitor's class, the event would wait for the thread that runs its initialiser.
    const localRef<jclass> classOfClass(jni, jni->GetObjectClass(cls));
    if (!classOfClass) {
      return classNameFailure::noGetClass;
    }
    getClass = jni->GetMethodID(classOfClass.get(), "getClass", "()Ljava/lang/Class;");
    if (getClass == nullptr) {
      return classNameFailure::noGetClass;
    }
    getClass_.store(getClass, std::memory_order_relaxed);
    getName = jni->GetMethodID(classOfClass.get(), "getName", "()Ljava/lang/String;");
    if (getName == nullptr) {
      return classNameFailure::noGetName;
    }
    getName_.store(getName, std::memory_order_relaxed);
  }
  const localRef<> classObject(jni, jni->CallObjectMethod(object, getClass));
  if (exceptions.clear() || !classObject) {
    return classNameFailure::empty;
  }
  const localRef<jstring> string(
      jni, static_cast<jstring>(jni->CallObjectMethod(classObject.get(), getName)));
  if (exceptions.clear()) {
    return classNameFailure::empty;
  }
  name = textOf(jni, string.get());
  return name.empty() ? classNameFailure::empty : classNameFailure::none;
}

}  // namespace support
