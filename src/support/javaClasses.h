// Names of classes, read once for each class.
//
// Reading a name takes two calls into Java, several times what an event handler costs otherwise. A
// name is therefore kept with a weak reference on its class and is given again only for that very
// class: a class that was unloaded, and another one of the same name, never meet it. Nothing here
// keeps a class alive.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace support {

// A class that was met, and its name ("com.example.Lock", "[I").
class javaClass {
 public:
  // Makes its own weak reference on `cls`; without memory for one the name matches no class.
  javaClass(JNIEnv* jni, jclass cls, std::string name);
  ~javaClass();
  javaClass(const javaClass&) = delete;
  javaClass& operator=(const javaClass&) = delete;

  const std::string& name() const { return name_; }
  bool is(JNIEnv* jni, jclass cls) const {
    return reference_ != nullptr && jni->IsSameObject(reference_, cls) != JNI_FALSE;
  }
  // The class is gone, or was never held.
  bool unloaded(JNIEnv* jni) const { return jni->IsSameObject(reference_, nullptr) != JNI_FALSE; }

 private:
  const std::string name_;
  JavaVM* vm_ = nullptr;
  jweak reference_ = nullptr;
};

// Why a name could not be read.
enum class classNameFailure {
  none,
  noGetClass,  // no method ID for Object.getClass
  noGetName,   // no method ID for Class.getName
  empty,       // the calls into Java gave no name
};

struct classNameResult {
  std::shared_ptr<const javaClass> found;  // none when it failed
  classNameFailure failure = classNameFailure::none;
};

// The classes met so far. Any thread; no lock is held across a call into the VM.
class javaClasses {
 public:
  // The class `cls` of `object`. A Java exception raised on the way is cleared.
  classNameResult of(jvmtiEnv* jvmti, JNIEnv* jni, jobject object, jclass cls);

  // How many classes are kept, unloaded ones not yet dropped included.
  std::size_t size() const;

 private:
  using entry = std::shared_ptr<const javaClass>;

  classNameFailure readName(JNIEnv* jni, jobject object, jclass cls, std::string& name);
  std::vector<entry> candidates(jint hash) const;
  void keep(JNIEnv* jni, jint hash, const entry& made);
  void dropUnloaded(JNIEnv* jni);

  // IDs of methods of java.lang.Object and java.lang.Class, which are never unloaded.
  std::atomic<jmethodID> getClass_{nullptr};
  std::atomic<jmethodID> getName_{nullptr};

  mutable std::shared_mutex mutex_;  // guards the two below
  std::unordered_multimap<jint, entry> byHash_;
  std::size_t sizeToSweep_ = 64;
};

}  // namespace support
