// What the VM says of itself: names of JVMTI errors, and its version.
#pragma once

#include <jvmti.h>

#include <string>

namespace support {

// The VM's name of `error` ("JVMTI_ERROR_WRONG_PHASE"), or its number when the VM gives none.
std::string errorName(jvmtiEnv* jvmti, jvmtiError error);

// The number of the JDK, as in 26: the VM gives it as the major version of its JVMTI. 0 when it
// does not.
jint featureVersion(jvmtiEnv* jvmti);

// Whether java.lang.BaseVirtualThread may be there: to look for it in an older JDK throws
// exceptions that the program's are counted with.
inline bool mayHaveVirtualThreads(jvmtiEnv* jvmti) {
  constexpr jint kFirst = 19;
  return featureVersion(jvmti) >= kFirst;
}

}  // namespace support
