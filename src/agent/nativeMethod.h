// What native methods of the companion's classes are made with: their symbols, and an edge that
// nothing is thrown through.
#pragma once

#include <com_korvane_twutils_nativeagent_TWNativeAgentProfiling.h>
#include <jni.h>

#include <utility>

#include "agent/boundary.h"
#include "support/sourcePlace.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method
#define TW_NATIVE_NAME(method) \
  "Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_" #method

namespace agent {

// A native method ends with a result and without a Java exception, whatever happens in it.
template <typename Body>
jint native(const char* function, Body&& body,
            support::sourcePlace where = support::sourcePlace::current()) {
  return contained(function, "Exception occured in jagent : native method", jint{0},
                   std::forward<Body>(body), where);
}

}  // namespace agent
