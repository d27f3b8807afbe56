// The VM calls that a record of an exception consists of. They are made and their results dropped.
#pragma once

#include <jvmti.h>

#include <array>
#include <cstddef>
#include <string_view>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"

namespace bench {

constexpr jint kMaxFrames = 100;

inline void readClassName(jvmtiEnv* jvmti, jclass cls) {
  support::jvmtiText signature(jvmti);
  signature.fill([&](char** out) { return jvmti->GetClassSignature(cls, out, nullptr); });
}

// Names and lines of a frame's method.
inline void readHeader(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method) {
  jclass written = nullptr;
  if (jvmti->GetMethodDeclaringClass(method, &written) != JVMTI_ERROR_NONE) {
    return;
  }
  const support::localRef<jclass> declaring(jni, written);
  readClassName(jvmti, declaring.get());
  support::jvmtiText name(jvmti);
  name.fill([&](char** out) { return jvmti->GetMethodName(method, out, nullptr, nullptr); });
  support::jvmtiText source(jvmti);
  source.fill([&](char** out) { return jvmti->GetSourceFileName(declaring.get(), out); });
  jint lines = 0;
  support::jvmtiPtr<jvmtiLineNumberEntry> table(jvmti);
  table.fill(
      [&](jvmtiLineNumberEntry** out) { return jvmti->GetLineNumberTable(method, &lines, out); });
}

// The number of slots that a frame's arguments take and of those that all its variables take.
inline void readSlotCounts(jvmtiEnv* jvmti, jmethodID method) {
  jint arguments = 0;
  jvmti->GetArgumentsSize(method, &arguments);
  jint slots = 0;
  jvmti->GetMaxLocals(method, &slots);
}

inline bool isText(const char* signature) {
  const std::string_view type(signature);
  return type == "Ljava/lang/String;" || type == "Ljava/lang/StringBuilder;";
}

// Reads a field through JNI; `readText(jobject)` goes on with the value of one that holds text.
template <typename ReadText>
void readField(JNIEnv* jni, jobject object, jclass cls, jfieldID id, const char* signature,
               bool isStatic, ReadText&& readText) {
  const auto get = [&](auto getStatic, auto getInstance) {
    return isStatic ? (jni->*getStatic)(cls, id) : (jni->*getInstance)(object, id);
  };
  switch (*signature) {
    case 'Z':
      get(&JNIEnv::GetStaticBooleanField, &JNIEnv::GetBooleanField);
      break;
    case 'C':
      get(&JNIEnv::GetStaticCharField, &JNIEnv::GetCharField);
      break;
    case 'B':
      get(&JNIEnv::GetStaticByteField, &JNIEnv::GetByteField);
      break;
    case 'S':
      get(&JNIEnv::GetStaticShortField, &JNIEnv::GetShortField);
      break;
    case 'I':
      get(&JNIEnv::GetStaticIntField, &JNIEnv::GetIntField);
      break;
    case 'J':
      get(&JNIEnv::GetStaticLongField, &JNIEnv::GetLongField);
      break;
    case 'F':
      get(&JNIEnv::GetStaticFloatField, &JNIEnv::GetFloatField);
      break;
    case 'D':
      get(&JNIEnv::GetStaticDoubleField, &JNIEnv::GetDoubleField);
      break;
    default: {
      const support::localRef<> value(jni,
                                      get(&JNIEnv::GetStaticObjectField, &JNIEnv::GetObjectField));
      if (value && isText(signature)) {
        readText(value.get());
      }
    }
  }
}

// Reads all fields that the object's class declares, with `resolve(cls, id, name, signature,
// isStatic)` giving the ID to read each by.
template <typename Resolve, typename ReadText>
void readFields(jvmtiEnv* jvmti, JNIEnv* jni, jobject object, Resolve&& resolve,
                ReadText&& readText) {
  constexpr jint kStatic = 0x0008;  // ACC_STATIC
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(object));
  jint count = 0;
  support::jvmtiPtr<jfieldID> fields(jvmti);
  fields.fill([&](jfieldID** out) { return jvmti->GetClassFields(cls.get(), &count, out); });
  if (!fields) {
    return;
  }
  for (jint i = 0; i < count; ++i) {
    char* signatureWritten = nullptr;
    support::jvmtiText name(jvmti);
    const jvmtiError error = name.fill([&](char** out) {
      return jvmti->GetFieldName(cls.get(), fields[i], out, &signatureWritten, nullptr);
    });
    if (error != JVMTI_ERROR_NONE) {
      return;
    }
    support::jvmtiText signature(jvmti);
    signature.adopt(signatureWritten);
    jint modifiers = 0;
    jvmti->GetFieldModifiers(cls.get(), fields[i], &modifiers);
    const bool isStatic = (modifiers & kStatic) != 0;
    const jfieldID id = resolve(cls.get(), fields[i], name.get(), signature.get(), isStatic);
    readField(jni, object, cls.get(), id, signature.get(), isStatic, readText);
  }
}

// Reads a local variable, which is one global safepoint; `readObject(jobject, isText)` goes on with
// the value of one that holds a reference.
template <typename ReadObject>
void readLocal(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jint depth,
               const jvmtiLocalVariableEntry& variable, ReadObject&& readObject) {
  switch (*variable.signature) {
    case 'Z':
    case 'C':
    case 'B':
    case 'S':
    case 'I': {
      jint value = 0;
      jvmti->GetLocalInt(thread, depth, variable.slot, &value);
      break;
    }
    case 'J': {
      jlong value = 0;
      jvmti->GetLocalLong(thread, depth, variable.slot, &value);
      break;
    }
    case 'F': {
      jfloat value = 0;
      jvmti->GetLocalFloat(thread, depth, variable.slot, &value);
      break;
    }
    case 'D': {
      jdouble value = 0;
      jvmti->GetLocalDouble(thread, depth, variable.slot, &value);
      break;
    }
    default: {
      jobject written = nullptr;
      if (jvmti->GetLocalObject(thread, depth, variable.slot, &written) != JVMTI_ERROR_NONE) {
        return;
      }
      const support::localRef<> value(jni, written);
      if (value) {
        readObject(value.get(), isText(variable.signature));
      }
    }
  }
}

inline bool isThis(const jvmtiLocalVariableEntry& variable) {
  return std::string_view(variable.name) == "this";
}

// Gives `this` of the top frame to `readObject(jobject)`, unless its method has none to read.
template <typename ReadObject>
void readThis(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jmethodID method,
              ReadObject&& readObject) {
  constexpr jint kStaticOrNative = 0x0108;  // ACC_STATIC, ACC_NATIVE
  jint modifiers = 0;
  jvmti->GetMethodModifiers(method, &modifiers);
  jobject written = nullptr;
  if ((modifiers & kStaticOrNative) != 0 ||
      jvmti->GetLocalObject(thread, 0, 0, &written) != JVMTI_ERROR_NONE) {
    return;
  }
  const support::localRef<> self(jni, written);
  if (self) {
    readObject(self.get());
  }
}

// The frames from the top down, each given to `readFrame(frame, depth)`.
template <typename ReadFrame>
void readStack(jvmtiEnv* jvmti, jthread thread, jint most, ReadFrame&& readFrame) {
  std::array<jvmtiFrameInfo, kMaxFrames> frames;
  jint count = 0;
  if (jvmti->GetStackTrace(thread, 0, most, frames.data(), &count) != JVMTI_ERROR_NONE) {
    return;
  }
  for (jint i = 0; i < count; ++i) {
    readFrame(frames[static_cast<std::size_t>(i)], i);
  }
}

}  // namespace bench
