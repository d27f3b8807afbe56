#include "contention/parkHook.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/boundary.h"
#include "contention/parkHookClass.h"
#include "support/classFile.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiStatus.h"

namespace agent {

namespace {

constexpr const char* kHookClass = "com/korvane/twutils/nativeagent/hook/ParkHook";
constexpr std::string_view kPackage = "java/util/concurrent/locks/";

// A method of the JDK, and what it calls at its start.
struct hookedMethod {
  const char* cls;
  const char* name;
  const char* descriptor;
  std::uint8_t arguments;  // how many of its own, from the first on, go to what it calls
  const char* calls;
  const char* callsDescriptor;
};

constexpr const char* kLockSupport = "java/util/concurrent/locks/LockSupport";
constexpr const char* kStampedLock = "java/util/concurrent/locks/StampedLock";
constexpr const char* kThreadAndBlocker = "(Ljava/lang/Thread;Ljava/lang/Object;)V";
constexpr const char* kBlocker = "(Ljava/lang/Object;)V";
constexpr const char* kBegins = "acquisitionBegins";

// Those of a class follow one another. The first one is what all parks with a blocker go through,
// except for those of conditions since JDK 14.
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
// Which methods have their call, as the last load of their class left it.
std::array<std::atomic<bool>, kHooked.size()> isHooked{};
// Whether the class of the hook was defined: it never goes.
std::atomic<bool> isDefined{false};

// Notes which methods of the class have their call; none when the list is empty.
void setHooked(std::string_view cls, const std::vector<bool>& isInserted) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < kHooked.size(); ++i) {
    if (kHooked[i].cls == cls) {
      isHooked[i] = next < isInserted.size() && isInserted[next];
      ++next;
    }
  }
}

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

// --- Installing.

std::string answered(jvmtiEnv* jvmti, const char* function, jvmtiError error) {
  return std::string(function) + " answered " + support::errorName(jvmti, error);
}

bool bindNatives(JNIEnv* jni, jclass cls) {
  // The VM copies the texts; it only has no const in their types.
  const auto native = [](const char* name, const char* descriptor, void* function) {
    return JNINativeMethod{const_cast<char*>(name), const_cast<char*>(descriptor), function};
  };
  const std::array natives{
      native("acquisitionBegins", "()V", reinterpret_cast<void*>(&acquisitionBegins)),
      native("blockerSet", "(Ljava/lang/Thread;Ljava/lang/Object;)V",
             reinterpret_cast<void*>(&blockerSet))};
  return jni->RegisterNatives(cls, natives.data(), static_cast<jint>(natives.size())) == JNI_OK;
}

// Makes the class that the JDK's classes call, once in the process. Empty, or why it cannot be
// done.
std::string defineHook(JNIEnv* jni, support::pendingExceptionGuard& exceptions) {
  const bool isNew = !isDefined;
  const support::localRef<jclass> cls(
      jni,
      isNew ? jni->DefineClass(kHookClass, nullptr, reinterpret_cast<const jbyte*>(kParkHookBytes),
                               static_cast<jsize>(kParkHookSize))
            : jni->FindClass(kHookClass));
  exceptions.clear();
  if (!cls) {
    return "the class of the hook cannot be defined";
  }
  isDefined = true;
  const bool isBound = bindNatives(jni, cls.get());
  exceptions.clear();
  return isBound ? std::string() : "the natives of the hook cannot be bound";
}

struct foundClass {
  const char* name;
  support::localRef<jclass> cls;
};

// The classes of kHooked, without those that this JDK does not have. FindClass initializes them,
// which has no effect outside of them.
std::vector<foundClass> findClasses(JNIEnv* jni, support::pendingExceptionGuard& exceptions) {
  std::vector<foundClass> found;
  found.reserve(kHooked.size());
  std::string_view last;
  for (const hookedMethod& each : kHooked) {
    if (each.cls == last) {
      continue;
    }
    last = each.cls;
    support::localRef<jclass> cls(jni, jni->FindClass(each.cls));
    exceptions.clear();
    if (cls) {
      found.push_back({each.cls, std::move(cls)});
    }
  }
  return found;
}

// Has the VM ask for the bytes of the classes again: of all at once, for that takes one safepoint,
// or of each alone when some cannot be changed. Empty, or what the VM answered.
std::string retransform(jvmtiEnv* jvmti, const std::vector<foundClass>& classes) {
  std::vector<jclass> all;
  all.reserve(classes.size());
  for (const foundClass& each : classes) {
    all.push_back(each.cls.get());
  }
  jvmtiError error = jvmti->RetransformClasses(static_cast<jint>(all.size()), all.data());
  if (error == JVMTI_ERROR_NONE) {
    return {};
  }
  std::string answer;
  for (const foundClass& each : classes) {
    const jclass cls = each.cls.get();
    error = jvmti->RetransformClasses(1, &cls);
    if (error != JVMTI_ERROR_NONE) {
      setHooked(each.name, {});
      answer = answered(jvmti, "RetransformClasses", error);
    }
  }
  return answer;
}

// Names what has no call, after what is known of the reason.
std::string missingFor(std::string reason) {
  std::string names;
  for (std::size_t i = 0; i < kHooked.size(); ++i) {
    if (!isHooked[i]) {
      const std::string_view cls = kHooked[i].cls;
      names += names.empty() ? "not hooked: " : ", ";
      names += cls.substr(kPackage.size());
      names += '.';
      names += kHooked[i].name;
    }
  }
  if (!reason.empty() && !names.empty()) {
    reason += "; ";
  }
  return reason + names;
}

// --- Changing the classes.

std::vector<support::callInsertion> insertionsFor(std::string_view cls) {
  std::vector<support::callInsertion> insertions;
  for (const hookedMethod& each : kHooked) {
    if (each.cls == cls) {
      std::vector<std::uint8_t> arguments(each.arguments);
      std::iota(arguments.begin(), arguments.end(), std::uint8_t{0});
      insertions.push_back({each.name, each.descriptor, std::move(arguments), kHookClass,
                            each.calls, each.callsDescriptor});
    }
  }
  return insertions;
}

}  // namespace

parkHookResult parkHook::install(jvmtiEnv* jvmti, JNIEnv* jni, const parkCallbacks& callbacks) {
  support::pendingExceptionGuard exceptions(jni);
  for (auto& each : isHooked) {
    each = false;
  }
  std::string problem = defineHook(jni, exceptions);
  if (!problem.empty()) {
    return {parkHookLevel::none, std::move(problem)};
  }
  const jvmtiError error =
      jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, nullptr);
  if (error != JVMTI_ERROR_NONE) {
    return {parkHookLevel::none, answered(jvmti, "SetEventNotificationMode", error)};
  }
  deliverTo(&callbacks);
  std::string missing = missingFor(retransform(jvmti, findClasses(jni, exceptions)));
  if (!isHooked[0]) {
    remove(jvmti, jni);
    return {parkHookLevel::none, std::move(missing)};
  }
  return {missing.empty() ? parkHookLevel::exact : parkHookLevel::parks, std::move(missing)};
}

std::string parkHook::remove(jvmtiEnv* jvmti, JNIEnv* jni) {
  deliverTo(nullptr);
  support::pendingExceptionGuard exceptions(jni);
  const jvmtiError error =
      jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, nullptr);
  if (error != JVMTI_ERROR_NONE) {
    return answered(jvmti, "SetEventNotificationMode", error);
  }
  return retransform(jvmti, findClasses(jni, exceptions));
}

void parkHook::deliverTo(const parkCallbacks* callbacks) {
  theCallbacks.store(callbacks, std::memory_order_release);
}

void JNICALL parkHook::ClassFileLoadHook(jvmtiEnv* jvmti, JNIEnv* /*jni*/, jclass /*redefined*/,
                                         jobject loader, const char* name,
                                         jobject /*protectionDomain*/, jint size,
                                         const unsigned char* bytes, jint* newSize,
                                         unsigned char** newBytes) {
  if (name == nullptr || loader != nullptr ||
      std::strncmp(name, kPackage.data(), kPackage.size()) != 0) {
    return;
  }
  contained("parkHook::ClassFileLoadHook", "Exception occured in jagent : park hook", [&] {
    const std::vector<support::callInsertion> insertions = insertionsFor(name);
    if (insertions.empty()) {
      return;
    }
    const std::optional<support::changedClass> changed =
        support::insertCalls({bytes, static_cast<std::size_t>(size)}, insertions);
    setHooked(name, {});
    if (!changed) {
      return;
    }
    support::jvmtiPtr<unsigned char> copy(jvmti);
    const auto length = static_cast<jint>(changed->bytes.size());
    copy.fill([&](unsigned char** out) { return jvmti->Allocate(length, out); });
    if (!copy) {
      return;
    }
    std::copy(changed->bytes.begin(), changed->bytes.end(), copy.get());
    setHooked(name, changed->isInserted);
    *newSize = length;
    *newBytes = copy.release();
  });
}

}  // namespace agent
