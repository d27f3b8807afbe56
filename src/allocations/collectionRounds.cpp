#include "allocations/collectionRounds.h"

#include "instruments/costAccount.h"
#include "support/jniRef.h"

namespace agent {

void collectionRounds::begin(JNIEnv* jni) {
  ended_ = 0;
  eventsSeen_ = events_.load();
  renew(jni);
}

void collectionRounds::end(JNIEnv* jni) {
  drop(jni);
}

bool collectionRounds::look(JNIEnv* jni) {
  const std::uint64_t events = events_.load();
  if (events == eventsSeen_ && canary_ != nullptr) {
    return false;
  }
  eventsSeen_ = events;
  if (canary_ == nullptr) {
    make(jni);
    return false;
  }
  if (jni->IsSameObject(canary_, nullptr) == JNI_FALSE) {
    return false;
  }
  ++ended_;
  drop(jni);
  make(jni);
  return true;
}

bool collectionRounds::renew(JNIEnv* jni) {
  drop(jni);
  return make(jni);
}

bool collectionRounds::make(JNIEnv* jni) {
  support::pendingExceptionGuard exceptions(jni);
  const support::localRef<jbyteArray> object(jni, jni->NewByteArray(1));
  if (!object) {
    return false;
  }
  canary_ = jni->NewWeakGlobalRef(object.get());
  canaryAt_ = instruments::steadyNanos();
  return canary_ != nullptr;
}

void collectionRounds::drop(JNIEnv* jni) {
  if (canary_ != nullptr) {
    jni->DeleteWeakGlobalRef(canary_);
  }
  canary_ = nullptr;
}

}  // namespace agent
