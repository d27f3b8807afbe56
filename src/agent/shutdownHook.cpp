#include "agent/shutdownHook.h"

#include <array>
#include <utility>

#include "agent/boundary.h"
#include "agent/shutdownHookClass.h"
#include "instruments/classHook.h"
#include "support/jniRef.h"

namespace agent {

namespace {

using instruments::classHook;
using instruments::hookedMethod;

constexpr const char* kBegins = "begins";
constexpr const char* kNothing = "()V";

constexpr std::array<hookedMethod, 1> kMethods{
    {{"java/lang/ApplicationShutdownHooks", "runHooks", kNothing, 0, kBegins, kNothing}}};

classHook& theHook(void* native) {
  static classHook& hook = *new classHook("com/korvane/twutils/nativeagent/hook/ShutdownHook",
                                          {kShutdownHookBytes, kShutdownHookSize},
                                          {{kBegins, kNothing, native}}, kMethods);
  return hook;
}

void runAction(JNIEnv* jni, jobject action) {
  support::pendingExceptionGuard exceptions(jni);
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(action));
  jmethodID const run = cls ? jni->GetMethodID(cls.get(), "run", kNothing) : nullptr;
  if (!exceptions.clear() && run != nullptr) {
    jni->CallVoidMethod(action, run);
  }
}

}  // namespace

shutdownHook& shutdownHook::ofProcess() {
  static shutdownHook& hook = *new shutdownHook;
  return hook;
}

jobject shutdownHook::exchange(jobject action) {
  const support::lockGuard guard(mutex_);
  return std::exchange(action_, action);
}

void JNICALL shutdownHook::begins(JNIEnv* jni, jclass /*cls*/) {
  contained("shutdownHook::begins", "Exception occured in shutdownHook : begins", [&] {
    void (*const before)(JNIEnv*) = ofProcess().callBefore_.exchange(nullptr);
    if (before != nullptr) {
      before(jni);
    }
    jobject const action = ofProcess().exchange(nullptr);
    if (action != nullptr) {
      runAction(jni, action);
      jni->DeleteGlobalRef(action);
    }
  });
  ofProcess().haveHooksBegun_.store(true);
}

void JNICALL shutdownHook::ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* /*jni*/, jclass /*redefined*/,
                                             jobject loader, const char* name,
                                             jobject /*protectionDomain*/, jint size,
                                             const unsigned char* bytes, jint* newSize,
                                             unsigned char** newBytes) {
  contained("shutdownHook::ClassFileLoadHook",
            "Exception occured in shutdownHook : ClassFileLoadHook", [&] {
              theHook(reinterpret_cast<void*>(&begins))
                  .classFileLoaded(jvmti, loader, name, size, bytes, newSize, newBytes);
            });
}

std::string shutdownHook::install(JNIEnv* jni) {
  const std::string problem = instruments::openForHooks(environment_, jni, ClassFileLoadHook);
  classHook& hook = theHook(reinterpret_cast<void*>(&begins));
  return !problem.empty() || hook.isInstalled() ? problem : hook.install(environment_.jvmti(), jni);
}

std::string shutdownHook::remove(JNIEnv* jni) {
  callBefore_.store(nullptr);
  jobject const action = exchange(nullptr);
  if (action != nullptr) {
    jni->DeleteGlobalRef(action);
  }
  const support::lockGuard oneCall(controlMutex_);
  classHook& hook = theHook(reinterpret_cast<void*>(&begins));
  std::string problem = hook.isInstalled() ? hook.remove(environment_.jvmti(), jni) : std::string();
  return problem.empty() ? environment_.close() : problem;
}

std::string shutdownHook::run(JNIEnv* jni, jobject action) {
  if (action == nullptr) {
    return "no action";
  }
  {
    const support::lockGuard oneCall(controlMutex_);
    std::string problem = install(jni);
    if (!problem.empty()) {
      return problem;
    }
  }
  jobject const held = jni->NewGlobalRef(action);
  if (held == nullptr) {
    jni->ExceptionClear();
    return "the VM has no memory for a reference";
  }
  jobject const before = exchange(held);
  if (before != nullptr) {
    jni->DeleteGlobalRef(before);
  }
  return "";
}

std::string shutdownHook::callBefore(JNIEnv* jni, void (*call)(JNIEnv*)) {
  const support::lockGuard oneCall(controlMutex_);
  callBefore_.store(call);
  return install(jni);
}

}  // namespace agent
