// Which exceptions have their record, so that one that is thrown again gets no other.
#pragma once

#include <jvmti.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>

#include "support/annotations.h"
#include "support/classCache.h"

namespace agent {

// Remembers the last 1024 objects or so with a weak reference each: an object is found by its
// identity hash code and is the same only when the VM finds it so. One that others have crowded out
// is not known any more. Any thread; no lock is held across a call into the VM.
class recordedObjects {
 public:
  static constexpr std::size_t kSets = 256;
  static constexpr std::size_t kWays = 4;  // objects of one set of hash codes

  // Nothing is remembered until this is on; switched off, it forgets all.
  void enable(bool isOn) EXCLUDES(mutex_);
  bool isOn() const { return isOn_.load(std::memory_order_relaxed); }

  // Whether the object has its record.
  bool has(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) EXCLUDES(mutex_);
  // The object has its record now. Without memory it is not remembered.
  void add(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) noexcept EXCLUDES(mutex_);

 private:
  using reference = std::shared_ptr<const support::weakObject>;

  static constexpr std::size_t kObjects = kSets * kWays;
  static std::size_t setOf(jint hash);
  void put(JNIEnv* jni, jint hash, jobject object) EXCLUDES(mutex_);

  std::atomic<bool> isOn_{false};
  // Read without the lock: mostly no object of that hash code is there. 0 for none.
  std::array<std::atomic<jint>, kObjects> hashes_{};
  support::mutex mutex_;
  std::array<reference, kObjects> objects_ GUARDED_BY(mutex_);
  std::size_t turn_ GUARDED_BY(mutex_) = 0;  // which of a set goes next
};

}  // namespace agent
