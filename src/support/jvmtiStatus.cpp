#include "support/jvmtiStatus.h"

#include "support/jvmtiPtr.h"

namespace support {

std::string errorName(jvmtiEnv* jvmti, jvmtiError error) {
  jvmtiText name(jvmti);
  name.fill([&](char** out) { return jvmti->GetErrorName(error, out); });
  return name ? std::string(name.view()) : std::to_string(static_cast<int>(error));
}

}  // namespace support
