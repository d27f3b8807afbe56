// The settings of exception capture.
#pragma once

#include <jvmti.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/profiler.h"

namespace agent {

// What to capture, and whom to hand it to. Holds a global reference on the class of the callback.
struct ExceptionCaptureSettings : sessionSettings {
  ~ExceptionCaptureSettings() override;

  // Looks the callback up; what cannot be found stays null. Leaves no Java exception pending.
  void findCallback(JNIEnv* jni);

  bool enabled = false;
  bool captureClassVariables = false;  // fields of `this`
  bool captureMethodArguments = false;
  bool captureLocalVariables = false;
  bool captureThreadLocals = false;
  std::int32_t captureRate = 0;      // records for each exception class in 60 seconds; below 1: any
  std::int32_t stackTraceDepth = 0;  // frames to walk
  std::vector<std::string> blackList;  // lower-case names of exception classes

  jclass callbackClass = nullptr;
  jmethodID getObjectValueMethod = nullptr;
  jmethodID onExceptionOccuredMethod = nullptr;
  // Called in its place where a class has it: it takes the places and the facts of a record, too.
  jmethodID onExceptionRecordMethod = nullptr;

  // The lines of the log for settings that were taken.
  std::string describe() const;

 private:
  JavaVM* vm_ = nullptr;
};

// The entries of a black list as Java gives it: separated by commas and enclosed in one character
// on each side; in lower case. Throws std::out_of_range "invalid string position" for an empty
// text.
std::vector<std::string> parseBlackList(std::string_view text);

}  // namespace agent
