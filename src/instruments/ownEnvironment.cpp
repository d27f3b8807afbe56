#include "instruments/ownEnvironment.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiStatus.h"

namespace instruments {

namespace {

using capabilityBytes = std::array<unsigned char, sizeof(jvmtiCapabilities)>;

// The group of the VM's own threads.
support::localRef<jthreadGroup> systemGroup(jvmtiEnv* jvmti, JNIEnv* jni) {
  jint count = 0;
  support::jvmtiPtr<jthreadGroup> groups(jvmti);
  groups.fill([&](jthreadGroup** out) { return jvmti->GetTopThreadGroups(&count, out); });
  for (jint i = 1; groups && i < count; ++i) {
    jni->DeleteLocalRef(groups[i]);
  }
  return {jni, groups && count > 0 ? groups[0] : nullptr};
}

}  // namespace

jvmtiCapabilities inBoth(const jvmtiCapabilities& a, const jvmtiCapabilities& b) {
  capabilityBytes left;
  capabilityBytes right;
  std::memcpy(left.data(), &a, sizeof(a));
  std::memcpy(right.data(), &b, sizeof(b));
  for (std::size_t i = 0; i < left.size(); ++i) {
    left[i] &= right[i];
  }
  jvmtiCapabilities result;
  std::memcpy(&result, left.data(), sizeof(result));
  return result;
}

std::string ownEnvironment::open(JavaVM* vm, const jvmtiCapabilities& wanted,
                                 const jvmtiEventCallbacks& callbacks) {
  if (jvmti_ == nullptr) {
    void* environment = nullptr;
    if (vm->GetEnv(&environment, JVMTI_VERSION_1_2) != JNI_OK || environment == nullptr) {
      return "the VM gives no JVMTI environment";
    }
    vm_ = vm;
    jvmti_ = static_cast<jvmtiEnv*>(environment);
  }
  jvmtiCapabilities potential{};
  jvmtiError error = jvmti_->GetPotentialCapabilities(&potential);
  if (error != JVMTI_ERROR_NONE) {
    return "the VM does not name its capabilities: " + support::errorName(jvmti_, error);
  }
  const jvmtiCapabilities asked = inBoth(wanted, potential);
  error = jvmti_->AddCapabilities(&asked);
  if (error != JVMTI_ERROR_NONE) {
    return "the VM refuses the capabilities: " + support::errorName(jvmti_, error);
  }
  jvmti_->GetCapabilities(&capabilities_);
  error = jvmti_->SetEventCallbacks(&callbacks, static_cast<jint>(sizeof(callbacks)));
  return error == JVMTI_ERROR_NONE
             ? std::string()
             : "the VM refuses the handlers: " + support::errorName(jvmti_, error);
}

bool ownEnvironment::enable(const std::vector<jvmtiEvent>& events) {
  for (const jvmtiEvent event : events) {
    if (jvmti_->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr) != JVMTI_ERROR_NONE) {
      disable(events);
      return false;
    }
  }
  return true;
}

void ownEnvironment::disable(const std::vector<jvmtiEvent>& events) {
  for (const jvmtiEvent event : events) {
    jvmti_->SetEventNotificationMode(JVMTI_DISABLE, event, nullptr);
  }
}

std::string ownEnvironment::close() {
  const jvmtiError error =
      jvmti_ == nullptr ? JVMTI_ERROR_NONE : jvmti_->RelinquishCapabilities(&capabilities_);
  if (error != JVMTI_ERROR_NONE) {
    return "the VM does not take capabilities back: " + support::errorName(jvmti_, error);
  }
  capabilities_ = {};
  return {};
}

bool ownEnvironment::run(JNIEnv* jni, const char* name, jvmtiStartFunction body, void* argument) {
  support::pendingExceptionGuard exceptions(jni);
  const support::localRef<jclass> cls(jni, jni->FindClass("java/lang/Thread"));
  if (exceptions.clear() || !cls) {
    return false;
  }
  jmethodID const made =
      jni->GetMethodID(cls.get(), "<init>", "(Ljava/lang/ThreadGroup;Ljava/lang/String;)V");
  if (exceptions.clear() || made == nullptr) {
    return false;
  }
  const support::localRef<jthreadGroup> group = systemGroup(jvmti_, jni);
  const support::localRef<jstring> text(jni, jni->NewStringUTF(name));
  if (exceptions.clear() || !text) {
    return false;
  }
  const support::localRef<jthread> thread(jni,
                                          jni->NewObject(cls.get(), made, group.get(), text.get()));
  if (exceptions.clear() || !thread) {
    return false;
  }
  return jvmti_->RunAgentThread(thread.get(), body, argument, JVMTI_THREAD_NORM_PRIORITY) ==
         JVMTI_ERROR_NONE;
}

}  // namespace instruments
