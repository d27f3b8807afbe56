// Owners of the records that JVMTI functions fill with memory and local references.
#pragma once

#include <jvmti.h>

#include <string_view>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"

namespace support {

// The name of a thread; empty when the VM does not give one.
class threadName {
 public:
  threadName(jvmtiEnv* jvmti, JNIEnv* jni) : jvmti_(jvmti), jni_(jni), name_(jvmti) {}

  void read(jthread thread) {
    jvmtiThreadInfo info{};
    if (jvmti_->GetThreadInfo(thread, &info) != JVMTI_ERROR_NONE) return;
    name_.adopt(info.name);
    const localRef<> group(jni_, info.thread_group);
    const localRef<> loader(jni_, info.context_class_loader);
  }

  // Valid as long as this object.
  std::string_view view() const { return name_.view(); }

 private:
  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  jvmtiText name_;
};

// Who uses a monitor. References are valid as long as this object.
class monitorUsage {
 public:
  monitorUsage(jvmtiEnv* jvmti, JNIEnv* jni)
      : jvmti_(jvmti), frame_(jni, kExpectedThreads), waiters_(jvmti), notifyWaiters_(jvmti) {}

  // Asks the VM, which takes a global safepoint.
  void read(jobject monitor) {
    jvmtiMonitorUsage usage{};
    if (jvmti_->GetObjectMonitorUsage(monitor, &usage) != JVMTI_ERROR_NONE) return;
    waiters_.adopt(usage.waiters);
    notifyWaiters_.adopt(usage.notify_waiters);
    owner_ = usage.owner;
    waiterCount_ = usage.waiter_count;
  }

  // Null when no thread owns it, or none that the VM names.
  jthread owner() const { return owner_; }
  jint waiterCount() const { return waiterCount_; }

 private:
  static constexpr jint kExpectedThreads = 1024;

  jvmtiEnv* jvmti_;
  localFrame frame_;  // the references to owner and waiters
  jvmtiPtr<jthread> waiters_;
  jvmtiPtr<jthread> notifyWaiters_;
  jthread owner_ = nullptr;
  jint waiterCount_ = 0;
};

}  // namespace support
