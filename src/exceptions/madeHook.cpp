#include "exceptions/madeHook.h"

#include <array>
#include <atomic>

#include "agent/boundary.h"
#include "exceptions/madeHookClass.h"
#include "instruments/classHook.h"

namespace agent {

namespace {

using instruments::classHook;
using instruments::hookedMethod;

constexpr const char* kMade = "made";
constexpr const char* kMadeDescriptor = "(Ljava/lang/Throwable;)V";

constexpr hookedMethod constructor(const char* descriptor) {
  return {"java/lang/Throwable",
          "<init>",
          descriptor,
          1,
          kMade,
          kMadeDescriptor,
          support::callPlace::afterObjectConstructor};
}

constexpr std::array kConstructors{
    constructor("(Ljava/lang/String;)V"),
    constructor("()V"),
    constructor("(Ljava/lang/String;Ljava/lang/Throwable;)V"),
    constructor("(Ljava/lang/Throwable;)V"),
    constructor("(Ljava/lang/String;Ljava/lang/Throwable;ZZ)V"),
};

// Whom the native calls; null while there is nothing to do.
std::atomic<madeCallback> theCallback{nullptr};

void JNICALL made(JNIEnv* jni, jclass /*cls*/, jobject exception) {
  const madeCallback callback = theCallback.load(std::memory_order_acquire);
  if (callback != nullptr) {
    callback(jni, exception);
  }
}

classHook& theHook() {
  static classHook& hook = *new classHook(
      "com/korvane/twutils/nativeagent/hook/MadeHook", {kMadeHookBytes, kMadeHookSize},
      {{kMade, kMadeDescriptor, reinterpret_cast<void*>(&made)}}, kConstructors);
  return hook;
}

}  // namespace

madeHook& madeHook::ofProcess() {
  static madeHook& hook = *new madeHook;
  return hook;
}

bool madeHook::isInstalled() const {
  return theHook().isInstalled();
}

std::string madeHook::install(JNIEnv* jni) {
  const std::string problem = instruments::openForHooks(environment_, jni, ClassFileLoadHook);
  return problem.empty() ? theHook().install(environment_.jvmti(), jni) : problem;
}

std::string madeHook::switchOn(JNIEnv* jni, madeCallback callback) {
  if (!isInstalled()) {
    missing_ = install(jni);
  }
  if (isInstalled()) {
    theCallback.store(callback, std::memory_order_release);
  }
  return missing_;
}

void madeHook::switchOff() {
  theCallback.store(nullptr, std::memory_order_release);
}

std::string madeHook::remove(JNIEnv* jni) {
  switchOff();
  std::string problem = isInstalled() ? theHook().remove(environment_.jvmti(), jni) : std::string();
  return problem.empty() ? environment_.close() : problem;
}

void JNICALL madeHook::ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* /*jni*/, jclass /*redefined*/,
                                         jobject loader, const char* name,
                                         jobject /*protectionDomain*/, jint size,
                                         const unsigned char* bytes, jint* newSize,
                                         unsigned char** newBytes) {
  contained(
      "madeHook::ClassFileLoadHook", "Exception occured in madeHook : ClassFileLoadHook",
      [&] { theHook().classFileLoaded(jvmti, loader, name, size, bytes, newSize, newBytes); });
}

}  // namespace agent
