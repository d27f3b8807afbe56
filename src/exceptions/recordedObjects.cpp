#include "exceptions/recordedObjects.h"

#include <cstdint>
#include <utility>

namespace agent {

namespace {

jint hashOf(jvmtiEnv* jvmti, jobject object) {
  jint hash = 0;
  return jvmti->GetObjectHashCode(object, &hash) == JVMTI_ERROR_NONE ? hash : 0;
}

}  // namespace

std::size_t recordedObjects::setOf(jint hash) {
  return (static_cast<std::uint32_t>(hash) * 0x9E3779B1U >> 16U) % kSets * kWays;
}

void recordedObjects::enable(bool isOn) {
  isOn_.store(isOn, std::memory_order_relaxed);
  if (isOn) {
    return;
  }
  for (std::size_t i = 0; i < kObjects; ++i) {
    reference gone;  // let go of unlocked
    const support::lockGuard guard(mutex_);
    hashes_[i].store(0, std::memory_order_relaxed);
    gone.swap(objects_[i]);
  }
}

bool recordedObjects::has(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) {
  const jint hash = hashOf(jvmti, object);
  if (hash == 0) {
    return false;
  }
  const std::size_t set = setOf(hash);
  for (std::size_t i = set; i < set + kWays; ++i) {
    if (hashes_[i].load(std::memory_order_relaxed) != hash) {
      continue;
    }
    reference known;
    {
      const support::lockGuard guard(mutex_);
      known = objects_[i];
    }
    if (known && known->is(jni, object)) {
      return true;
    }
  }
  return false;
}

void recordedObjects::add(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) noexcept {
  try {
    const jint hash = hashOf(jvmti, object);
    if (hash != 0) {
      put(jni, hash, object);
    }
  } catch (...) {
    // No memory, or no lock.
  }
}

void recordedObjects::put(JNIEnv* jni, jint hash, jobject object) {
  reference made = std::make_shared<const support::weakObject>(jni, object);
  if (!made->held()) {
    return;
  }
  // What was there is let go of unlocked, as `made`.
  const support::lockGuard guard(mutex_);
  if (!isOn()) {
    return;
  }
  const std::size_t place = setOf(hash) + turn_++ % kWays;
  hashes_[place].store(hash, std::memory_order_relaxed);
  made.swap(objects_[place]);
}

}  // namespace agent
