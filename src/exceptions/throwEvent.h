// One thrown exception, and what its handler knows of classes.
//
// Used on the throwing thread, within one handler; what is known of classes is shared by all.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agent/twAprLib.h"
#include "exceptions/captureSettings.h"
#include "exceptions/constructorTable.h"
#include "exceptions/jvmtiCheck.h"
#include "exceptions/raisedInHandler.h"
#include "support/classCache.h"
#include "support/sourcePlace.h"

namespace agent {

inline constexpr const char* kExceptionCallback = "exceptionProfiler::ExceptionCallback";

// Logs at Debug why the handler goes no further. Deliberate: with the word "Error".
inline void logRefusal(const char* message,
                       support::sourcePlace where = support::sourcePlace::current()) {
  if (twAprLib::level() >= kLogDebug) {
    twAprLib::write(nullptr, 0, kLogModule, kSeverityError, where.file, where.line,
                    kExceptionCallback, "%s", message);
  }
}

struct knownClass {
  explicit knownClass(std::string_view classSignature);
  ~knownClass() { delete constructors_.load(); }
  knownClass(const knownClass&) = delete;
  knownClass& operator=(const knownClass&) = delete;

  // Those of `cls`, the exception class that this is known of; null when the VM refuses. They are
  // looked up when they are asked for first.
  const constructorTable* constructors(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls) const;

  std::uint64_t id;  // of this class alone, as long as the process lives
  std::string signature;
  std::string name;  // dotted
  std::string lowerCaseName;
  bool ignoredAsThrower = false;     // what its methods throw is never recorded
  bool framesWithoutValues = false;  // frames of its methods have no arguments and locals
  // Up to when its exceptions count as over the rate without a lookup of where they were made, in
  // nanoseconds of the steady clock.
  mutable std::atomic<std::int64_t> overRateUntil{0};

 private:
  mutable std::atomic<const constructorTable*> constructors_{nullptr};  // owned
};

// Any thread.
class knownClasses {
 public:
  using entry = std::shared_ptr<const support::classCache<knownClass>::entry>;

  // What is known of the class; none when the VM does not give its signature, and then `error` has
  // the reason, if the VM gave one.
  entry of(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls, jvmtiError& error) {
    error = JVMTI_ERROR_NONE;
    const jint key = classes_.keyOf(jvmti, cls);
    if (entry kept = classes_.find(jni, key, cls)) {
      return kept;
    }
    return read(jvmti, jni, cls, key, error);
  }

 private:
  entry read(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls, jint key, jvmtiError& error);

  support::classCache<knownClass> classes_;
};

class siteRow;

// What the handler works on.
struct throwEvent {
  jvmtiEnv* jvmti;
  JNIEnv* jni;
  jthread thread;
  jmethodID method;  // the one that throws, and where in it
  jlocation location;
  jobject exception;
  std::shared_ptr<ExceptionCaptureSettings> settings;
  std::optional<bool> isCaught{};           // by Java code, as far as the VM knows
  jint firstFrame = 0;                      // the thrower's, counted from the top of the stack
  bool isMade = false;                      // captured while it is being made
  knownClasses::entry info{};               // of the exception's class, once it is known
  siteRow* site = nullptr;                  // where it is counted, once it is
  raisedInHandler* raised = nullptr;        // once a record is built
  jvmtiError lastError = JVMTI_ERROR_NONE;  // what the VM refused

  bool failed(jvmtiError error) {
    if (error == JVMTI_ERROR_NONE) {
      return false;
    }
    lastError = error;
    return checkJvmti(jni, jvmti, error);
  }
};

}  // namespace agent
