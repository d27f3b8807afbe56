// Names of JVMTI errors.
#pragma once

#include <jvmti.h>

#include <string>

namespace support {

// The VM's name of `error` ("JVMTI_ERROR_WRONG_PHASE"), or its number when the VM gives none.
std::string errorName(jvmtiEnv* jvmti, jvmtiError error);

}  // namespace support
