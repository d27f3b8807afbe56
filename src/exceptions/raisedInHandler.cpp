#include "exceptions/raisedInHandler.h"

#include <atomic>
#include <string_view>

#include "agent/twAprLib.h"
#include "support/annotations.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiStatus.h"
#include "support/text.h"

namespace agent {

namespace {

using support::localRef;

constexpr jint kToolInterfaceVersion = 0x30010000;  // JVMTI 1.0
constexpr const char* kSend = "raisedInHandler::send";

// Whether the callback that this thread's handler called last has come to its sink.
thread_local bool hasSinkBegun = false;
// Whether the callback of this process announces its sink; it has by the first record of a sink.
std::atomic<bool> sinksAreNoted{false};

// An environment with the capability to send exceptions, made before the first one is sent:
// the one that profiles does not ask for it. Null when the VM gives none.
class sender {
 public:
  static jvmtiEnv* of(JNIEnv* jni) {
    static sender& kept = *new sender;
    JavaVM* vm = nullptr;
    if (jni->GetJavaVM(&vm) != JNI_OK) {
      return nullptr;
    }
    jvmtiEnv* const known = kept.find(vm);
    return known != nullptr ? known : kept.keep(vm, make(vm));
  }

 private:
  static jvmtiEnv* make(JavaVM* vm) {
    void* made = nullptr;
    if (vm->GetEnv(&made, kToolInterfaceVersion) != JNI_OK || made == nullptr) {
      return nullptr;
    }
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
    if (made == nullptr) {
      return nullptr;
    }
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
    : jvmti_(jvmti), jni_(jni), thread_(thread) {}

raisedInHandler::~raisedInHandler() {
  if (asynchronous_ == nullptr) {
    return;
  }
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

void raisedInHandler::noteSink() {
  hasSinkBegun = true;
  if (!sinksAreNoted.load(std::memory_order_relaxed)) {
    sinksAreNoted.store(true);
  }
}

void raisedInHandler::beginCallback() {
  hasSinkBegun = false;
}

raisedInHandler::kind raisedInHandler::clear() {
  return clear(thrower::javaLang);
}

raisedInHandler::kind raisedInHandler::clearAfterCallback() {
  const bool isBeforeSink = !hasSinkBegun && sinksAreNoted.load();
  return clear(isBeforeSink ? thrower::nobody : thrower::anybody);
}

raisedInHandler::kind raisedInHandler::clear(thrower possible) {
  if (jni_->ExceptionCheck() == JNI_FALSE) {
    return kind::none;
  }
  const localRef<jthrowable> raised(jni_, jni_->ExceptionOccurred());
  jni_->ExceptionClear();
  if (!raised) {
    return kind::other;
  }
  const kind found = kindOf(raised.get(), possible);
  if (found == kind::asynchronous && asynchronous_ == nullptr) {
    asynchronous_ = jni_->NewGlobalRef(raised.get());
    if (asynchronous_ == nullptr) {
      TW_LOG(kLogError, kSeverityError, kSend,
             "An exception that was sent to this thread is lost: there is no memory");
    }
  }
  return found;
}

// That of Thread.stop is known by its class. Nothing else shows how an exception came to be
// pending. One that a sink throws must not end a thread of the program. So it counts as sent only
// where nothing of ours can have thrown it. What the VM runs out of may come up anywhere.
raisedInHandler::kind raisedInHandler::kindOf(jthrowable raised, thrower possible) {
  const localRef<jclass> cls(jni_, jni_->GetObjectClass(raised));
  const std::string signature = signatureOf(cls.get());
  className_.clear();
  support::appendDottedClass(className_, signature);
  if (signature == "Ljava/lang/StackOverflowError;") {
    return kind::noStack;
  }
  if (signature == "Ljava/lang/OutOfMemoryError;") {
    return kind::noMemory;
  }
  const bool isJavaLangs = signature.starts_with("Ljava/lang/");
  const bool isSent = signature == "Ljava/lang/ThreadDeath;" || possible == thrower::nobody ||
                      (possible == thrower::javaLang && !isJavaLangs);
  return isSent ? kind::asynchronous : kind::other;
}

std::string raisedInHandler::signatureOf(jclass cls) {
  support::jvmtiText signature(jvmti_);
  if (cls != nullptr) {
    signature.fill([&](char** out) { return jvmti_->GetClassSignature(cls, out, nullptr); });
  }
  return std::string(signature.view());
}

}  // namespace agent
