#include "raisedInHandler.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "support/annotations.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiStatus.h"
#include "support/text.h"
#include "twAprLib.h"

namespace agent {

namespace {

using support::localRef;

constexpr jint kToolInterfaceVersion = 0x30010000;  // JVMTI 1.0
constexpr const char* kSend = "raisedInHandler::send";
constexpr const char* kCallbackClass = "com.korvane.twutils.nativeagent.TWNativeAgentProfiling";
constexpr jsize kMostFrames = 1024;  // of a stack trace; the VM leaves out what is deeper

// Since this thread's handler looked last, an exception was thrown by Java code that it called.
thread_local bool wasThrown = false;

// An environment with the capability to send exceptions, made when the first one is to be sent:
// the one that profiles does not ask for it. Null when the VM gives none.
class sender {
 public:
  static jvmtiEnv* of(JNIEnv* jni) {
    static sender& kept = *new sender;
    JavaVM* vm = nullptr;
    if (jni->GetJavaVM(&vm) != JNI_OK) return nullptr;
    jvmtiEnv* const known = kept.find(vm);
    return known != nullptr ? known : kept.keep(vm, make(vm));
  }

 private:
  static jvmtiEnv* make(JavaVM* vm) {
    void* made = nullptr;
    if (vm->GetEnv(&made, kToolInterfaceVersion) != JNI_OK || made == nullptr) return nullptr;
    auto* const jvmti = static_cast<jvmtiEnv*>(made);
    jvmtiCapabilities wanted{};
    wanted.can_signal_thread = 1;
    return jvmti->AddCapabilities(&wanted) == JVMTI_ERROR_NONE ? jvmti : nullptr;
  }
  jvmtiEnv* find(JavaVM* vm) EXCLUDES(mutex_) {
    const support::lockGuard guard(mutex_);
    return vm_ == vm ? jvmti_ : nullptr;
  }
  // Threads that come first together make one each; the last one is used from then on.
  jvmtiEnv* keep(JavaVM* vm, jvmtiEnv* made) EXCLUDES(mutex_) {
    const support::lockGuard guard(mutex_);
    if (made == nullptr) return nullptr;
    vm_ = vm;
    jvmti_ = made;
    return made;
  }

  support::mutex mutex_;  // guards the two below
  JavaVM* vm_ GUARDED_BY(mutex_) = nullptr;
  jvmtiEnv* jvmti_ GUARDED_BY(mutex_) = nullptr;
};

}  // namespace

raisedInHandler::raisedInHandler(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread)
    : jvmti_(jvmti), jni_(jni), thread_(thread) {
  wasThrown = false;
}

raisedInHandler::~raisedInHandler() {
  if (asynchronous_ == nullptr) return;
  jvmtiEnv* const jvmti = sender::of(jni_);
  const jvmtiError error =
      jvmti == nullptr ? JVMTI_ERROR_NOT_AVAILABLE : jvmti->StopThread(thread_, asynchronous_);
  if (error != JVMTI_ERROR_NONE) {
    TW_LOG(kLogError, kSeverityError, kSend,
           "An exception that was sent to this thread is lost: the VM answers %d to StopThread",
           static_cast<int>(error));
  }
  jni_->DeleteGlobalRef(asynchronous_);
}

void raisedInHandler::noteThrow() {
  wasThrown = true;
}

raisedInHandler::kind raisedInHandler::clear() {
  const bool wasThrownInJava = std::exchange(wasThrown, false);
  if (jni_->ExceptionCheck() == JNI_FALSE) return kind::none;
  const localRef<jthrowable> raised(jni_, jni_->ExceptionOccurred());
  jni_->ExceptionClear();
  if (!raised) return kind::other;
  const kind found = kindOf(raised.get(), wasThrownInJava);
  if (found == kind::asynchronous && asynchronous_ == nullptr) {
    asynchronous_ = jni_->NewGlobalRef(raised.get());
  }
  wasThrown = false;
  return found;
}

// An exception tells in no way how it came to be pending. That of Thread.stop is known by its
// class. Another one counts as sent when two things come together: no exception event said that
// Java code has thrown it, which is so when it was pending before the first line of the method
// that was called, where nearly all are delivered; and it was made where the method was not
// running.
raisedInHandler::kind raisedInHandler::kindOf(jthrowable raised, bool wasThrownInJava) {
  const localRef<jclass> cls(jni_, jni_->GetObjectClass(raised));
  const std::string signature = signatureOf(cls.get());
  className_.clear();
  support::appendDottedClass(className_, signature);
  if (signature == "Ljava/lang/StackOverflowError;") return kind::noStack;
  if (signature == "Ljava/lang/OutOfMemoryError;") return kind::noMemory;
  if (signature == "Ljava/lang/ThreadDeath;") return kind::asynchronous;
  return !wasThrownInJava && comesFromElsewhere(raised) ? kind::asynchronous : kind::other;
}

std::string raisedInHandler::signatureOf(jclass cls) {
  support::jvmtiText signature(jvmti_);
  if (cls != nullptr) {
    signature.fill([&](char** out) { return jvmti_->GetClassSignature(cls, out, nullptr); });
  }
  return std::string(signature.view());
}

// Whether its stack trace is whole and has no frame of the agent's callback. Java's own code is
// asked, not that of the exception's class.
bool raisedInHandler::comesFromElsewhere(jthrowable raised) {
  constexpr const char* kText = "()Ljava/lang/String;";
  const auto failed = [this] {
    if (jni_->ExceptionCheck() == JNI_FALSE) return false;
    jni_->ExceptionClear();
    return true;
  };
  localRef<jclass> throwable(jni_, jni_->GetObjectClass(raised));
  while (throwable && signatureOf(throwable.get()) != "Ljava/lang/Throwable;") {
    throwable = localRef<jclass>(jni_, jni_->GetSuperclass(throwable.get()));
  }
  if (!throwable) return false;
  const jmethodID getStackTrace =
      jni_->GetMethodID(throwable.get(), "getStackTrace", "()[Ljava/lang/StackTraceElement;");
  if (failed() || getStackTrace == nullptr) return false;
  const localRef<jobjectArray> trace(
      jni_, static_cast<jobjectArray>(
                jni_->CallNonvirtualObjectMethod(raised, throwable.get(), getStackTrace)));
  if (failed() || !trace) return false;
  const jsize frames = jni_->GetArrayLength(trace.get());
  if (frames == 0 || frames >= kMostFrames) return false;  // nothing to tell it by
  for (jsize i = 0; i < frames; ++i) {
    const localRef<> frame(jni_, jni_->GetObjectArrayElement(trace.get(), i));
    if (failed() || !frame) return false;
    const localRef<jclass> cls(jni_, jni_->GetObjectClass(frame.get()));
    const jmethodID getClassName = jni_->GetMethodID(cls.get(), "getClassName", kText);
    if (failed() || getClassName == nullptr) return false;
    const localRef<jstring> name(
        jni_, static_cast<jstring>(jni_->CallObjectMethod(frame.get(), getClassName)));
    if (failed() || support::textOf(jni_, name.get()) == kCallbackClass) return false;
  }
  return true;
}

}  // namespace agent
