#include "support/jvmtiStatus.h"

#include "support/jvmtiPtr.h"

namespace support {

std::string errorName(jvmtiEnv* jvmti, jvmtiError error) {
  jvmtiText name(jvmti);
  name.fill([&](char** out) { return jvmti->GetErrorName(error, out); });
  return name ? std::string(name.view()) : std::to_string(static_cast<int>(error));
}

jint featureVersion(jvmtiEnv* jvmti) {
  jint version = 0;
  if (jvmti->GetVersionNumber(&version) != JVMTI_ERROR_NONE) {
    return 0;
  }
  return (version & JVMTI_VERSION_MASK_MAJOR) >> JVMTI_VERSION_SHIFT_MAJOR;
}

}  // namespace support
