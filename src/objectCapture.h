// Values of the running program as text of an exception record: strings, objects with their fields,
// the thread locals of a thread.
//
// Used by the exception handler on the throwing thread. What the VM refuses ends the walk over one
// object, whose text so far is used; Java exceptions that reading a value raises are cleared.
#pragma once

#include <jvmti.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "exceptionRecord.h"
#include "support/jniRef.h"

namespace agent {

// Whose objects a starting depth is for; bits of captureObjType.
inline constexpr std::int32_t kCaptureVariables = 1;     // argument and local objects
inline constexpr std::int32_t kCaptureThis = 2;          // the `this` object
inline constexpr std::int32_t kCaptureThreadLocals = 4;  // thread-local objects

class objectCapture {
 public:
  // `maxDepth` is captureObjDepth: objects at that depth and below are not expanded.
  objectCapture(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, std::int32_t maxDepth)
      : jvmti_(jvmti), jni_(jni), thread_(thread), maxDepth_(maxDepth) {}

  // The bytes after which no further field is written, and no further frame of a record: objects of
  // hostile size, or many of them, must not take the memory of the process.
  static constexpr std::size_t kLongestText = std::size_t{64} << 20U;

  // One entry for each declared field of `cls`, the class of `object`; the length alone for an
  // array. `depth` is the current nesting level, `mode` the caller's bit of captureObjType.
  std::string GetObjectFieldsValue(jobject object, jclass cls, std::string_view name,
                                   std::int32_t depth, std::int32_t mode);
  // The same for an object whose class is to be looked up.
  std::string fieldsOf(jobject object, std::string_view name, std::int32_t depth,
                       std::int32_t mode);

  // The text of a string, cut to its first 256 characters. None for null.
  std::optional<std::string> shortText(jstring string);
  // What the object's toString gives, whole; none when it gives nothing or throws.
  std::optional<std::string> textOfBuilder(jobject builder);
  // The same, cut to its first 256 characters.
  std::optional<std::string> shortTextOfBuilder(jobject builder);

  // The section of the thread's thread locals, from the level `depth` on; empty when there are none
  // or they cannot be read.
  std::string getThreadLocalVars(std::int32_t depth);

 private:
  struct field;

  bool appendField(std::string& out, field each, std::int32_t depth, std::int32_t mode);
  bool appendNested(std::string& out, const field& each, jobject value, std::int32_t depth,
                    std::int32_t mode);
  void sayNoFieldId(const field& each, record::typeCode code);
  void appendThreadLocals(std::string& out, std::int32_t depth);
  bool isInitialized(jclass cls);
  bool isArray(jclass cls);
  std::string lengthOf(jobject array);
  // The object's toString; none when it throws.
  support::localRef<jstring> callToString(jobject object);
  // Clears an exception that a call has raised; whether there was one.
  bool clearException();

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  jthread thread_;
  std::int32_t maxDepth_;
};

}  // namespace agent
