#include "objectCapture.h"

#include <array>
#include <atomic>

#include "boundary.h"
#include "exceptionRecord.h"
#include "exceptionprofiler.h"
#include "profilerRegistry.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"
#include "support/text.h"
#include "twAprLib.h"

namespace agent {

namespace {

constexpr const char* kFieldsFunction = "exceptionProfiler::GetObjectFieldsValue";
constexpr const char* kThreadLocalsFunction = "exceptionProfiler::getThreadLocalVars";

constexpr jint kStatic = 0x0008;         // ACC_STATIC
constexpr jsize kShortCharacters = 256;  // of a text that is cut

using support::localRef;

// Whether modified UTF-8 ends with a surrogate whose second byte lies in the range.
bool endsWithSurrogate(const std::string& text, unsigned char first, unsigned char last) {
  constexpr std::size_t kBytes = 3;
  if (text.size() < kBytes) return false;
  const auto lead = static_cast<unsigned char>(text[text.size() - kBytes]);
  const auto second = static_cast<unsigned char>(text[text.size() - kBytes + 1]);
  return lead == 0xED && second >= first && second <= last;
}

void dropLastCharacter(std::string& text) {
  const auto isContinuation = [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
  };
  while (!text.empty() && isContinuation(text.back())) text.pop_back();
  if (!text.empty()) text.pop_back();
}

// Drops the last character of modified UTF-8, and both halves of a pair.
void dropLastWhole(std::string& text) {
  const bool isSecondHalf = endsWithSurrogate(text, 0xB0, 0xBF);
  dropLastCharacter(text);
  if (isSecondHalf && endsWithSurrogate(text, 0xA0, 0xAF)) dropLastCharacter(text);
}

}  // namespace

// A declared field of an object's class, and how to read it.
struct objectCapture::field {
  JNIEnv* jni;
  jobject object;
  jclass cls;
  const char* name;
  const char* signature;
  bool isStatic;
  bool isInitialized;  // the class
  jfieldID id;

  // Calls the JNI function for static fields or the one for instance fields.
  template <typename Value>
  Value get(Value (JNIEnv::*getStatic)(jclass, jfieldID),
            Value (JNIEnv::*getInstance)(jobject, jfieldID)) const {
    return isStatic ? (jni->*getStatic)(cls, id) : (jni->*getInstance)(object, id);
  }
};

std::string objectCapture::GetObjectFieldsValue(jobject object, jclass cls,
                                                std::string_view /*name*/, std::int32_t depth,
                                                std::int32_t mode) {
  std::string text;
  jint count = 0;
  support::jvmtiPtr<jfieldID> fields(jvmti_);
  const jvmtiError error =
      fields.fill([&](jfieldID** out) { return jvmti_->GetClassFields(cls, &count, out); });
  if (exceptionProfiler::check(jni_, jvmti_, error)) return text;
  const bool hasInitialized = isInitialized(cls);
  for (jint i = 0; i < count && text.size() <= kLongestText; ++i) {
    support::jvmtiText name(jvmti_);
    support::jvmtiText signature(jvmti_);
    char* signatureWritten = nullptr;
    const jvmtiError nameError = name.fill([&](char** out) {
      return jvmti_->GetFieldName(cls, fields[i], out, &signatureWritten, nullptr);
    });
    if (exceptionProfiler::check(jni_, jvmti_, nameError)) return text;
    signature.adopt(signatureWritten);
    jint modifiers = 0;
    const jvmtiError modifiersError = jvmti_->GetFieldModifiers(cls, fields[i], &modifiers);
    if (exceptionProfiler::check(jni_, jvmti_, modifiersError)) return text;
    if (!name || !signature) continue;
    const field each{jni_,           object,          cls,
                     name.get(),     signature.get(), (modifiers & kStatic) != 0,
                     hasInitialized, fields[i]};
    if (!appendField(text, each, depth, mode)) return text;
  }
  return text;
}

std::string objectCapture::fieldsOf(jobject object, std::string_view name, std::int32_t depth,
                                    std::int32_t mode) {
  const localRef<jclass> cls(jni_, jni_->GetObjectClass(object));
  if (!cls) return {};
  return isArray(cls.get()) ? lengthOf(object)
                            : GetObjectFieldsValue(object, cls.get(), name, depth, mode);
}

// Writes one field; false when the VM refuses, which ends the walk.
bool objectCapture::appendField(std::string& out, field each, std::int32_t depth,
                                std::int32_t mode) {
  using record::typeCode;
  const typeCode code = record::codeOf(each.signature);
  // What is not expanded is not read either.
  if (code == typeCode::object && depth >= maxDepth_) {
    record::appendNullField(out, each.name);
    return true;
  }
  // Asking for a field by name initialises the class, and would wait here while another thread runs
  // its initialiser. Until it is initialised, the ID that JVMTI gave serves.
  if (each.isInitialized) {
    each.id = each.isStatic ? jni_->GetStaticFieldID(each.cls, each.name, each.signature)
                            : jni_->GetFieldID(each.cls, each.name, each.signature);
  }
  if (each.id == nullptr) {
    jni_->ExceptionClear();
    sayNoFieldId(each, code);
    record::appendNullField(out, each.name);
    return true;
  }
  const auto number = [&](std::int64_t value) {
    record::appendNumber(out, each.name, code, value);
  };
  switch (code) {
    case typeCode::boolean:
      number(each.get(&JNIEnv::GetStaticBooleanField, &JNIEnv::GetBooleanField));
      return true;
    case typeCode::character:
      number(each.get(&JNIEnv::GetStaticCharField, &JNIEnv::GetCharField));
      return true;
    case typeCode::byte:
      number(each.get(&JNIEnv::GetStaticByteField, &JNIEnv::GetByteField));
      return true;
    case typeCode::shortInt:
      number(each.get(&JNIEnv::GetStaticShortField, &JNIEnv::GetShortField));
      return true;
    case typeCode::integer:
      number(each.get(&JNIEnv::GetStaticIntField, &JNIEnv::GetIntField));
      return true;
    case typeCode::longInt:
      number(each.get(&JNIEnv::GetStaticLongField, &JNIEnv::GetLongField));
      return true;
    case typeCode::doubleFloat:
      record::appendFloat(out, each.name, code,
                          each.get(&JNIEnv::GetStaticDoubleField, &JNIEnv::GetDoubleField));
      return true;
    case typeCode::singleFloat:
      record::appendFloat(
          out, each.name, code,
          static_cast<double>(each.get(&JNIEnv::GetStaticFloatField, &JNIEnv::GetFloatField)));
      return true;
    case typeCode::string:
    case typeCode::stringBuilder:
    case typeCode::object:
      break;
  }

  const localRef<> value(jni_, each.get(&JNIEnv::GetStaticObjectField, &JNIEnv::GetObjectField));
  std::optional<std::string> text;
  if (value && code == typeCode::string)
    text = support::tryTextOf(jni_, static_cast<jstring>(value.get()));
  if (value && code == typeCode::stringBuilder) text = textOfBuilder(value.get());
  if (text) {
    record::appendEntry(out, each.name, code, *text);
    return true;
  }
  if (!value || code != typeCode::object) {
    record::appendNullField(out, each.name);
    return true;
  }
  return appendNested(out, each, value.get(), depth, mode);
}

// Writes an object-valued field with the fields of its object.
bool objectCapture::appendNested(std::string& out, const field& each, jobject value,
                                 std::int32_t depth, std::int32_t mode) {
  const localRef<jclass> cls(jni_, jni_->GetObjectClass(value));
  support::jvmtiText signature(jvmti_);
  const jvmtiError error = signature.fill(
      [&](char** out2) { return jvmti_->GetClassSignature(cls.get(), out2, nullptr); });
  if (exceptionProfiler::check(jni_, jvmti_, error)) return false;
  if (signature.view().starts_with('[')) {
    record::appendObject(out, each.name, lengthOf(value));
    return true;
  }
  // Signatures begin with "L", so that every class is expanded.
  if (support::startsWithIgnoringCase(signature.view(), "java.lang.Object")) return true;
  record::appendObject(out, each.name,
                       GetObjectFieldsValue(value, cls.get(), each.name, depth + 1, mode));
  return true;
}

void objectCapture::sayNoFieldId(const field& each, record::typeCode code) {
  if (twAprLib::level() < kLogError || code < record::typeCode::string) return;
  if (code == record::typeCode::singleFloat) return;
  support::threadName name(jvmti_, jni_);
  name.read(thread_);
  TW_LOG(kLogError, kSeverityDebug, kFieldsFunction, "return fid name : %s ,thread  : %s",
         each.name, name.c_str());
}

bool objectCapture::isInitialized(jclass cls) {
  jint status = 0;
  return jvmti_->GetClassStatus(cls, &status) == JVMTI_ERROR_NONE &&
         (status & JVMTI_CLASS_STATUS_INITIALIZED) != 0;
}

bool objectCapture::isArray(jclass cls) {
  support::jvmtiText signature(jvmti_);
  const jvmtiError error =
      signature.fill([&](char** out) { return jvmti_->GetClassSignature(cls, out, nullptr); });
  return !exceptionProfiler::check(jni_, jvmti_, error) && signature.view().starts_with('[');
}

std::string objectCapture::lengthOf(jobject array) {
  std::string text;
  record::appendNumber(text, "length", record::typeCode::integer,
                       jni_->GetArrayLength(static_cast<jarray>(array)));
  return text;
}

std::optional<std::string> objectCapture::shortText(jstring string) {
  if (string == nullptr) return std::nullopt;
  const jsize length = jni_->GetStringLength(string);
  const jsize taken = std::min(length, kShortCharacters + 1);
  constexpr std::size_t kBytesOfCharacter = 3;
  std::array<char, (kShortCharacters + 1) * kBytesOfCharacter + 1> bytes{};
  jni_->GetStringUTFRegion(string, 0, taken, bytes.data());
  if (clearException()) return std::nullopt;
  std::string text(bytes.data());
  if (taken > kShortCharacters) dropLastWhole(text);
  return text;
}

localRef<jstring> objectCapture::callToString(jobject object) {
  const localRef<jclass> cls(jni_, jni_->GetObjectClass(object));
  if (!cls) return {};
  const jmethodID toString = jni_->GetMethodID(cls.get(), "toString", "()Ljava/lang/String;");
  if (toString == nullptr) {
    clearException();
    return {};
  }
  localRef<jstring> string(jni_, static_cast<jstring>(jni_->CallObjectMethod(object, toString)));
  if (clearException()) return {};
  return string;
}

std::optional<std::string> objectCapture::textOfBuilder(jobject builder) {
  return support::tryTextOf(jni_, callToString(builder).get());
}

std::optional<std::string> objectCapture::shortTextOfBuilder(jobject builder) {
  return shortText(callToString(builder).get());
}

std::string objectCapture::getThreadLocalVars(std::int32_t depth) {
  std::string text;
  contained(kThreadLocalsFunction, "Exception occured in  exceptionprofiler : getThreadLocalVars",
            [&] { appendThreadLocals(text, depth); });
  record::dropLastSeparator(text);
  return text;
}

void objectCapture::appendThreadLocals(std::string& out, std::int32_t depth) {
  const auto error = [](const char* message) {
    TW_LOG(kLogError, kSeverityError, kThreadLocalsFunction, "%s", message);
  };
  if (!getExceptionProfiler()) return error("Unable to get Exception profiler");
  if (thread_ == nullptr) return error("Unable to get Exception thread");
  localRef<jclass> threadClass(jni_, jni_->GetObjectClass(thread_));
  if (!threadClass) return error("Unable to get Exception thread class");
  // Asking a class for a field initialises it, and would wait here for a running initialiser of the
  // thread's class. Until that is done, the class that declares the field is asked.
  if (!isInitialized(threadClass.get())) {
    threadClass = localRef<jclass>(jni_, jni_->FindClass("java/lang/Thread"));
    clearException();
    if (!threadClass) return error("Unable to get field id for thread class");
  }
  const jfieldID mapField =
      jni_->GetFieldID(threadClass.get(), "threadLocals", "Ljava/lang/ThreadLocal$ThreadLocalMap;");
  if (mapField == nullptr) {
    clearException();
    return error("Unable to get field id for thread class");
  }
  const localRef<> map(jni_, jni_->GetObjectField(thread_, mapField));
  if (!map) return error("Unable to get threadmap object");

  const localRef<jclass> mapClass(jni_, jni_->GetObjectClass(map.get()));
  if (!mapClass) return error("Unable to get threadmap class");
  const jfieldID tableField =
      jni_->GetFieldID(mapClass.get(), "table", "[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;");
  if (tableField == nullptr) {
    clearException();
    return error("Unable to get field id");
  }
  const localRef<jobjectArray> table(
      jni_, static_cast<jobjectArray>(jni_->GetObjectField(map.get(), tableField)));
  if (!table) return error("Unable to get entry array");

  const jsize length = jni_->GetArrayLength(table.get());
  for (jsize i = 0; i < length && out.size() <= kLongestText; ++i) {
    const localRef<> entry(jni_, jni_->GetObjectArrayElement(table.get(), i));
    if (clearException() || !entry) continue;
    const std::string name = "ThreadLocals" + std::to_string(i);
    record::appendObject(out, name, fieldsOf(entry.get(), name, depth, kCaptureThreadLocals));
  }
}

bool objectCapture::clearException() {
  if (jni_->ExceptionCheck() == JNI_FALSE) return false;
  jni_->ExceptionClear();
  return true;
}

}  // namespace agent
