// What was once found out about classes, kept for as long as the class lives.
//
// An entry goes with a weak reference on its class and is given again only for that very class: a
// class that was unloaded, and another one of the same name, never meet it. Nothing here keeps a
// class alive. Any thread; no lock is held across a call into the VM.
#pragma once

#include <jvmti.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/annotations.h"

namespace support {

// A weak reference on an object, such as a class. It is deleted by whoever lets go last: any thread
// of the VM.
class weakObject {
 public:
  // Without memory for a reference it matches no object.
  weakObject(JNIEnv* jni, jobject object) {
    if (jni->GetJavaVM(&vm_) != JNI_OK) {
      return;
    }
    reference_ = jni->NewWeakGlobalRef(object);
    if (reference_ == nullptr) {
      jni->ExceptionClear();
    }
  }
  ~weakObject() {
    void* jni = nullptr;
    if (reference_ == nullptr || vm_->GetEnv(&jni, JNI_VERSION_1_8) != JNI_OK) {
      return;
    }
    static_cast<JNIEnv*>(jni)->DeleteWeakGlobalRef(reference_);
  }
  weakObject(const weakObject&) = delete;
  weakObject& operator=(const weakObject&) = delete;

  // False when there was no memory for a reference.
  bool held() const { return reference_ != nullptr; }
  bool is(JNIEnv* jni, jobject object) const {
    return reference_ != nullptr && jni->IsSameObject(reference_, object) != JNI_FALSE;
  }
  // The class is gone, or was never held.
  bool unloaded(JNIEnv* jni) const { return jni->IsSameObject(reference_, nullptr) != JNI_FALSE; }

 private:
  JavaVM* vm_ = nullptr;
  jweak reference_ = nullptr;
};

template <typename Value>
class classCache {
 public:
  struct entry {
    template <typename... Args>
    entry(JNIEnv* jni, jclass klass, Args&&... args)
        : cls(jni, klass), value(std::forward<Args>(args)...) {}

    const weakObject cls;
    const Value value;
  };
  using entryPtr = std::shared_ptr<const entry>;

  // Where a class is looked for: its identity hash code, 0 when the VM gives none.
  static jint keyOf(jvmtiEnv* jvmti, jclass cls) {
    jint hash = 0;
    return jvmti->GetObjectHashCode(cls, &hash) == JVMTI_ERROR_NONE ? hash : 0;
  }

  // What is kept for `cls`, or none.
  entryPtr find(JNIEnv* jni, jint key, jclass cls) const {
    for (std::size_t n = 0;; ++n) {
      entryPtr candidate = nth(key, n);
      if (!candidate || candidate->cls.is(jni, cls)) {
        return candidate;
      }
    }
  }

  // Keeps a value for `cls`, made from `args`.
  template <typename... Args>
  entryPtr keep(JNIEnv* jni, jint key, jclass cls, Args&&... args) {
    auto made = std::make_shared<const entry>(jni, cls, std::forward<Args>(args)...);
    bool sweep = false;
    {
      const lockGuard guard(mutex_);
      byKey_.emplace(key, made);
      sweep = byKey_.size() >= sizeToSweep_;
    }
    if (sweep) {
      dropUnloaded(jni);
    }
    return made;
  }

  // How many classes are kept, unloaded ones not yet dropped included.
  std::size_t size() const {
    const sharedLockGuard guard(mutex_);
    return byKey_.size();
  }

 private:
  static constexpr std::size_t kFirstSweep = 64;

  // The n-th entry under `key`; more than one is rare.
  entryPtr nth(jint key, std::size_t n) const {
    const sharedLockGuard guard(mutex_);
    auto [each, end] = byKey_.equal_range(key);
    for (; each != end && n > 0; ++each) {
      --n;
    }
    return each == end ? nullptr : each->second;
  }

  // Unloaded classes leave when the number of kept ones has doubled since the last time. Their weak
  // references are deleted at the end of it, unlocked.
  void dropUnloaded(JNIEnv* jni) {
    std::vector<entryPtr> gone;
    {
      const sharedLockGuard guard(mutex_);
      for (const auto& [key, each] : byKey_) {
        gone.push_back(each);
      }
    }
    std::erase_if(gone, [&](const entryPtr& each) { return !each->cls.unloaded(jni); });
    std::sort(gone.begin(), gone.end());
    const lockGuard guard(mutex_);
    std::erase_if(byKey_, [&](const auto& kept) {
      return std::binary_search(gone.begin(), gone.end(), kept.second);
    });
    sizeToSweep_ = std::max(kFirstSweep, 2 * byKey_.size());
  }

  mutable sharedMutex mutex_;
  std::unordered_multimap<jint, entryPtr> byKey_ GUARDED_BY(mutex_);
  std::size_t sizeToSweep_ GUARDED_BY(mutex_) = kFirstSweep;
};

}  // namespace support
