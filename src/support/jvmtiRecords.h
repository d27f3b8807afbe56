// Owners of the records that JVMTI functions fill with memory and local references.
#pragma once

#include <jvmti.h>

#include <string_view>

#include "support/attachGate.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"

namespace support {

// The name of a thread; empty when the VM does not give one.
class threadName {
 public:
  threadName(jvmtiEnv* jvmti, JNIEnv* jni) : jvmti_(jvmti), jni_(jni), name_(jvmti) {}

  void read(jthread thread) {
    jvmtiThreadInfo info{};
    if (jvmti_->GetThreadInfo(thread, &info) != JVMTI_ERROR_NONE) {
      return;
    }
    name_.adopt(info.name);
    const localRef<> group(jni_, info.thread_group);
    const localRef<> loader(jni_, info.context_class_loader);
  }

  // Valid as long as this object.
  std::string_view view() const { return name_.view(); }
  const char* c_str() const { return name_ ? name_.get() : ""; }

 private:
  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  jvmtiText name_;
};

// Who uses a monitor. References are valid as long as this object.
class monitorUsage {
 public:
  monitorUsage(jvmtiEnv* jvmti, JNIEnv* jni)
      : jvmti_(jvmti),
        jni_(jni),
        frame_(jni, kExpectedThreads),
        waiters_(jvmti),
        notifyWaiters_(jvmti) {}
  ~monitorUsage() {
    if (frame_.pushed()) {
      return;
    }
    if (owner_ != nullptr) {
      jni_->DeleteLocalRef(owner_);
    }
    for (jint i = 0; i < waiterCount_; ++i) {
      deleteAt(waiters_, i);
    }
    for (jint i = 0; i < notifyWaiterCount_; ++i) {
      deleteAt(notifyWaiters_, i);
    }
  }
  monitorUsage(const monitorUsage&) = delete;
  monitorUsage& operator=(const monitorUsage&) = delete;

  // Asks the VM, which takes a global safepoint; false when it was not asked, or refused.
  bool read(jobject monitor) {
    jvmtiMonitorUsage usage{};
    {
      const attachGate::look look;
      if (!look || jvmti_->GetObjectMonitorUsage(monitor, &usage) != JVMTI_ERROR_NONE) {
        return false;
      }
    }
    waiters_.adopt(usage.waiters);
    notifyWaiters_.adopt(usage.notify_waiters);
    owner_ = usage.owner;
    waiterCount_ = usage.waiter_count;
    notifyWaiterCount_ = usage.notify_waiter_count;
    return true;
  }

  // Null when no thread owns it, or none that the VM names.
  jthread owner() const { return owner_; }
  jint waiterCount() const { return waiterCount_; }

 private:
  static constexpr jint kExpectedThreads = 1024;

  void deleteAt(jvmtiPtr<jthread>& threads, jint index) {
    if (threads && threads[index] != nullptr) {
      jni_->DeleteLocalRef(threads[index]);
    }
  }

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  localFrame frame_;  // the references to owner and waiters
  jvmtiPtr<jthread> waiters_;
  jvmtiPtr<jthread> notifyWaiters_;
  jthread owner_ = nullptr;
  jint waiterCount_ = 0;
  jint notifyWaiterCount_ = 0;
};

// The variable table of a method; empty until read.
class localVariables {
 public:
  explicit localVariables(jvmtiEnv* jvmti) : jvmti_(jvmti), table_(jvmti) {}
  ~localVariables() {
    for (jint i = 0; i < count_; ++i) {
      const jvmtiLocalVariableEntry& each = table_[i];
      for (char* const text : {each.name, each.signature, each.generic_signature}) {
        if (text != nullptr) {
          jvmti_->Deallocate(reinterpret_cast<unsigned char*>(text));
        }
      }
    }
  }
  localVariables(const localVariables&) = delete;
  localVariables& operator=(const localVariables&) = delete;

  jvmtiError read(jmethodID method) {
    jint count = 0;
    const jvmtiError error = table_.fill([&](jvmtiLocalVariableEntry** out) {
      return jvmti_->GetLocalVariableTable(method, &count, out);
    });
    if (error == JVMTI_ERROR_NONE) {
      count_ = count;
    }
    return error;
  }

  const jvmtiLocalVariableEntry* begin() const { return table_.get(); }
  const jvmtiLocalVariableEntry* end() const { return table_.get() + count_; }

 private:
  jvmtiEnv* jvmti_;
  jvmtiPtr<jvmtiLocalVariableEntry> table_;
  jint count_ = 0;
};

}  // namespace support
