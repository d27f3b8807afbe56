#include "instruments/classHook.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <utility>

#include "support/jvmtiPtr.h"
#include "support/jvmtiStatus.h"

namespace instruments {

namespace {

std::string answered(jvmtiEnv* jvmti, const char* function, jvmtiError error) {
  return std::string(function) + " answered " + support::errorName(jvmti, error);
}

// As in "Throwable.<init>(Ljava/lang/String;)V"; without the types where the name will do.
void appendMethod(std::string& text, const hookedMethod& method) {
  const std::string_view cls = method.cls;
  text += cls.substr(cls.rfind('/') + 1);
  text += '.';
  text += method.name;
  if (method.place == support::callPlace::afterObjectConstructor) {
    text += method.descriptor;
  }
}

}  // namespace

std::string openForHooks(ownEnvironment& environment, JNIEnv* jni,
                         jvmtiEventClassFileLoadHook handler) {
  JavaVM* vm = nullptr;
  if (jni->GetJavaVM(&vm) != JNI_OK) {
    return "the VM does not give itself";
  }
  jvmtiCapabilities wanted{};
  wanted.can_retransform_classes = 1;
  jvmtiEventCallbacks callbacks{};
  callbacks.ClassFileLoadHook = handler;
  std::string problem = environment.open(vm, wanted, callbacks);
  if (problem.empty() && environment.capabilities().can_retransform_classes == 0) {
    problem = "the VM does not let classes be retransformed";
  }
  return problem;
}

classHook::classHook(const char* className, std::span<const std::uint8_t> classFile,
                     std::vector<hookNative> natives, std::span<const hookedMethod> methods)
    : className_(className),
      classFile_(classFile),
      natives_(std::move(natives)),
      methods_(methods),
      isHooked_(methods.size()) {}

// --- Installing.

std::string classHook::install(jvmtiEnv* jvmti, JNIEnv* jni) {
  support::pendingExceptionGuard exceptions(jni);
  for (std::atomic<bool>& each : isHooked_) {
    each = false;
  }
  std::string problem = define(jni, exceptions);
  if (!problem.empty()) {
    return problem;
  }
  const jvmtiError error =
      jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, nullptr);
  if (error != JVMTI_ERROR_NONE) {
    return answered(jvmti, "SetEventNotificationMode", error);
  }
  std::string missing = missingFor(retransform(jvmti, findClasses(jni, exceptions)));
  if (!isInstalled()) {
    remove(jvmti, jni);
  }
  return missing;
}

std::string classHook::remove(jvmtiEnv* jvmti, JNIEnv* jni) {
  support::pendingExceptionGuard exceptions(jni);
  const jvmtiError error =
      jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, nullptr);
  if (error != JVMTI_ERROR_NONE) {
    return answered(jvmti, "SetEventNotificationMode", error);
  }
  std::string problem = retransform(jvmti, findClasses(jni, exceptions));
  for (std::atomic<bool>& each : isHooked_) {
    each = false;
  }
  return problem;
}

// Makes the class that the JDK's classes call, once in the process. Empty, or why it cannot be
// done.
std::string classHook::define(JNIEnv* jni, support::pendingExceptionGuard& exceptions) {
  const support::localRef<jclass> cls(
      jni, isDefined_ ? jni->FindClass(className_)
                      : jni->DefineClass(className_, nullptr,
                                         reinterpret_cast<const jbyte*>(classFile_.data()),
                                         static_cast<jsize>(classFile_.size())));
  exceptions.clear();
  if (!cls) {
    return "the class of the hook cannot be defined";
  }
  isDefined_ = true;
  const bool isBound = bindNatives(jni, cls.get());
  exceptions.clear();
  return isBound ? std::string() : "the natives of the hook cannot be bound";
}

bool classHook::bindNatives(JNIEnv* jni, jclass cls) const {
  // The VM copies the texts; it only has no const in their types.
  std::vector<JNINativeMethod> natives;
  natives.reserve(natives_.size());
  for (const hookNative& each : natives_) {
    natives.push_back(
        {const_cast<char*>(each.name), const_cast<char*>(each.descriptor), each.function});
  }
  return jni->RegisterNatives(cls, natives.data(), static_cast<jint>(natives.size())) == JNI_OK;
}

// The classes of the methods, without those that this JDK does not have. FindClass initializes
// them, which has no effect outside of them.
std::vector<classHook::foundClass> classHook::findClasses(
    JNIEnv* jni, support::pendingExceptionGuard& exceptions) const {
  std::vector<foundClass> found;
  found.reserve(methods_.size());
  std::string_view last;
  for (const hookedMethod& each : methods_) {
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
std::string classHook::retransform(jvmtiEnv* jvmti, const std::vector<foundClass>& classes) {
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
std::string classHook::missingFor(std::string reason) const {
  std::string names;
  for (std::size_t i = 0; i < methods_.size(); ++i) {
    if (!isHooked_[i]) {
      names += names.empty() ? "not hooked: " : ", ";
      appendMethod(names, methods_[i]);
    }
  }
  if (!reason.empty() && !names.empty()) {
    reason += "; ";
  }
  return reason + names;
}

// --- Changing the classes.

// Notes which methods of the class have their call; none when the list is empty.
void classHook::setHooked(std::string_view cls, const std::vector<bool>& isInserted) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < methods_.size(); ++i) {
    if (methods_[i].cls == cls) {
      isHooked_[i] = next < isInserted.size() && isInserted[next];
      ++next;
    }
  }
}

std::vector<support::callInsertion> classHook::insertionsFor(std::string_view cls) const {
  std::vector<support::callInsertion> insertions;
  for (const hookedMethod& each : methods_) {
    if (each.cls == cls) {
      std::vector<std::uint8_t> arguments(each.arguments);
      std::iota(arguments.begin(), arguments.end(), std::uint8_t{0});
      insertions.push_back({each.name, each.descriptor, std::move(arguments), className_,
                            each.calls, each.callsDescriptor, each.place});
    }
  }
  return insertions;
}

void classHook::classFileLoaded(jvmtiEnv* jvmti, jobject loader, const char* name, jint size,
                                const unsigned char* bytes, jint* newSize,
                                unsigned char** newBytes) {
  if (name == nullptr || loader != nullptr) {
    return;
  }
  const std::string_view cls = name;
  if (std::none_of(methods_.begin(), methods_.end(),
                   [&](const hookedMethod& each) { return each.cls == cls; })) {
    return;
  }
  const std::optional<support::changedClass> changed =
      support::insertCalls({bytes, static_cast<std::size_t>(size)}, insertionsFor(cls));
  setHooked(cls, {});
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
  setHooked(cls, changed->isInserted);
  *newSize = length;
  *newBytes = copy.release();
}

}  // namespace instruments
