#include "contention/parkHook.h"

#include <array>
#include <atomic>
#include <utility>

#include "agent/boundary.h"
#include "contention/parkHookClass.h"
#include "instruments/classHook.h"

namespace agent {

namespace {

using instruments::classHook;
using instruments::hookedMethod;

constexpr const char* kHookClass = "com/korvane/twutils/nativeagent/hook/ParkHook";
constexpr const char* kLockSupport = "java/util/concurrent/locks/LockSupport";
constexpr const char* kStampedLock = "java/util/concurrent/locks/StampedLock";
constexpr const char* kThreadAndBlocker = "(Ljava/lang/Thread;Ljava/lang/Object;)V";
constexpr const char* kBlocker = "(Ljava/lang/Object;)V";
constexpr const char* kBegins = "acquisitionBegins";

// The first one is what all parks with a blocker go through, except for those of conditions since
// JDK 14.
constexpr std::array kHooked{
    hookedMethod{kLockSupport, "setBlocker", kThreadAndBlocker, 2, "blockerSet", kThreadAndBlocker},
    hookedMethod{kLockSupport, "setCurrentBlocker", kBlocker, 1, "currentBlockerSet", kBlocker},
    hookedMethod{"java/util/concurrent/locks/AbstractQueuedSynchronizer", "acquire",
                 "(Ljava/util/concurrent/locks/AbstractQueuedSynchronizer$Node;IZZZJ)I", 0, kBegins,
                 "()V"},
    hookedMethod{"java/util/concurrent/locks/AbstractQueuedLongSynchronizer", "acquire",
                 "(Ljava/util/concurrent/locks/AbstractQueuedLongSynchronizer$Node;JZZZJ)I", 0,
                 kBegins, "()V"},
    hookedMethod{kStampedLock, "acquireWrite", "(ZZJ)J", 0, kBegins, "()V"},
    hookedMethod{kStampedLock, "acquireRead", "(ZZJ)J", 0, kBegins, "()V"},
};

// Whom the natives call; null while there is nothing to do.
std::atomic<const parkCallbacks*> theCallbacks{nullptr};

// --- The natives.

template <typename Call>
void deliver(JNIEnv* jni, const Call& call) noexcept {
  const parkCallbacks* const callbacks = theCallbacks.load(std::memory_order_acquire);
  if (callbacks == nullptr) {
    return;
  }
  contained("parkHook", "Exception occured in jagent : park hook", [&] { call(*callbacks); });
  if (jni->ExceptionCheck() != JNI_FALSE) {
    jni->ExceptionClear();
  }
}

void JNICALL acquisitionBegins(JNIEnv* jni, jclass /*cls*/) {
  deliver(jni, [&](const parkCallbacks& to) { to.acquisitionBegins(jni); });
}

void JNICALL blockerSet(JNIEnv* jni, jclass /*cls*/, jthread thread, jobject blocker) {
  deliver(jni, [&](const parkCallbacks& to) { to.blockerSet(jni, thread, blocker); });
}

classHook& theHook() {
  static classHook& hook =
      *new classHook(kHookClass, {kParkHookBytes, kParkHookSize},
                     {{kBegins, "()V", reinterpret_cast<void*>(&acquisitionBegins)},
                      {"blockerSet", kThreadAndBlocker, reinterpret_cast<void*>(&blockerSet)}},
                     kHooked);
  return hook;
}

}  // namespace

parkHookResult parkHook::install(jvmtiEnv* jvmti, JNIEnv* jni, const parkCallbacks& callbacks) {
  deliverTo(&callbacks);
  std::string missing = theHook().install(jvmti, jni);
  if (!theHook().isInstalled()) {
    deliverTo(nullptr);
    return {parkHookLevel::none, std::move(missing)};
  }
  return {missing.empty() ? parkHookLevel::exact : parkHookLevel::parks, std::move(missing)};
}

std::string parkHook::remove(jvmtiEnv* jvmti, JNIEnv* jni) {
  deliverTo(nullptr);
  return theHook().remove(jvmti, jni);
}

void parkHook::deliverTo(const parkCallbacks* callbacks) {
  theCallbacks.store(callbacks, std::memory_order_release);
}

void JNICALL parkHook::ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* /*jni*/, jclass /*redefined*/,
                                         jobject loader, const char* name,
                                         jobject /*protectionDomain*/, jint size,
                                         const unsigned char* bytes, jint* newSize,
                                         unsigned char** newBytes) {
  contained("parkHook::ClassFileLoadHook", "Exception occured in jagent : park hook", [&] {
    theHook().classFileLoaded(jvmti, loader, name, size, bytes, newSize, newBytes);
  });
}

}  // namespace agent
