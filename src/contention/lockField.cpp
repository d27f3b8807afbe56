#include "contention/lockField.h"

#include <array>
#include <string_view>

#include "support/heldClasses.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr jint kStatic = 0x0008;  // of field modifiers
constexpr jint kFrames = 24;      // those of java.util.concurrent come first

// The synchronizer within a lock of java.util.concurrent; none in other objects.
support::localRef<> synchronizerIn(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) {
  constexpr std::string_view kPackage = "Ljava/util/concurrent/";
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(object));
  const support::classSignature signature(jvmti, cls.get());
  if (signature.view().substr(0, kPackage.size()) != kPackage) {
    return {};
  }
  std::string type(signature.view());
  type.insert(type.size() - 1, "$Sync");
  jfieldID const field = jni->GetFieldID(cls.get(), "sync", type.c_str());
  if (field == nullptr) {
    jni->ExceptionClear();
    return {};
  }
  return {jni, jni->GetObjectField(object, field)};
}

// Whether a static field of `cls` holds the lock.
bool holds(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls, jfieldID field, jobject lock) {
  jint modifiers = 0;
  support::jvmtiText type(jvmti);
  if (jvmti->GetFieldModifiers(cls, field, &modifiers) != JVMTI_ERROR_NONE ||
      (modifiers & kStatic) == 0 || type.fill([&](char** out) {
        return jvmti->GetFieldName(cls, field, nullptr, out, nullptr);
      }) != JVMTI_ERROR_NONE) {
    return false;
  }
  if (type.view().empty() || (type.view().front() != 'L' && type.view().front() != '[')) {
    return false;
  }
  const support::localRef<> value(jni, jni->GetStaticObjectField(cls, field));
  if (!value) {
    return false;
  }
  if (jni->IsSameObject(value.get(), lock) != JNI_FALSE) {
    return true;
  }
  const support::localRef<> inner = synchronizerIn(jvmti, jni, value.get());
  return inner && jni->IsSameObject(inner.get(), lock) != JNI_FALSE;
}

std::string fieldIn(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls, jobject lock) {
  jint count = 0;
  support::jvmtiPtr<jfieldID> fields(jvmti);
  fields.fill([&](jfieldID** out) { return jvmti->GetClassFields(cls, &count, out); });
  for (jint i = 0; fields && i < count; ++i) {
    if (!holds(jvmti, jni, cls, fields[i], lock)) {
      continue;
    }
    support::jvmtiText name(jvmti);
    name.fill(
        [&](char** out) { return jvmti->GetFieldName(cls, fields[i], out, nullptr, nullptr); });
    const support::classSignature signature(jvmti, cls);
    if (name && signature) {
      return support::classNameOf(signature.view()) + '.' + std::string(name.view());
    }
  }
  return {};
}

}  // namespace

std::string staticFieldOf(jvmtiEnv* jvmti, JNIEnv* jni, jobject lock, jthread thread) {
  std::array<jvmtiFrameInfo, kFrames> frames;
  jint count = 0;
  if (jvmti->GetStackTrace(thread, 0, kFrames, frames.data(), &count) != JVMTI_ERROR_NONE) {
    return {};
  }
  jclass previous = nullptr;
  support::localRef<jclass> cls;
  for (jint i = 0; i < count; ++i) {
    jclass declaring = nullptr;
    if (jvmti->GetMethodDeclaringClass(frames[static_cast<std::size_t>(i)].method, &declaring) !=
        JVMTI_ERROR_NONE) {
      continue;
    }
    support::localRef<jclass> next(jni, declaring);
    if (previous != nullptr && jni->IsSameObject(previous, declaring) != JNI_FALSE) {
      continue;
    }
    cls = std::move(next);
    previous = cls.get();
    std::string name = fieldIn(jvmti, jni, cls.get(), lock);
    if (!name.empty()) {
      return name;
    }
  }
  return {};
}

}  // namespace agent
