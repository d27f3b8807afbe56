#include "exceptions/jvmtiCheck.h"

#include <string>

#include "agent/twAprLib.h"
#include "support/jvmtiStatus.h"

namespace agent {

namespace {

constexpr const char* kCheck = "exceptionProfiler::check";

}  // namespace

bool checkJvmti(JNIEnv* jni, jvmtiEnv* jvmti, jvmtiError code) {
  if (code == JVMTI_ERROR_NONE) {
    return false;
  }
  const std::string name = support::errorName(jvmti, code);
  jni->ExceptionDescribe();
  jni->ExceptionClear();
  TW_LOG(kLogDebug, kSeverityError, kCheck, "Error name is %s and error code is %d", name.c_str(),
         static_cast<int>(code));
  return true;
}

}  // namespace agent
