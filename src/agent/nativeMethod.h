// What native methods of the companion's classes are made with: their symbols, and an edge that
// nothing is thrown through.
#pragma once

#include <com_korvane_twutils_nativeagent_TWNativeAgentProfiling.h>
#include <jni.h>

#include <cstdint>
#include <string>
#include <utility>

#include "agent/boundary.h"
#include "agent/setUp.h"
#include "support/sourcePlace.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method
#define TW_NATIVE_NAME(method) \
  "Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_" #method

namespace agent {

// A native method ends with a result and without a Java exception, whatever happens in it.
template <typename Body>
jint native(const char* function, Body&& body,
            support::sourcePlace where = support::sourcePlace::current()) {
  const instruments::handlerGate::pass inside(nativesGate());
  return contained(function, "Exception occured in jagent : native method", jint{0},
                   std::forward<Body>(body), where);
}

// A text for Java; null for an empty one. Without memory for it, a Java exception is pending.
inline jstring textFor(JNIEnv* jni, const std::string& text) {
  return text.empty() ? nullptr : jni->NewStringUTF(text.c_str());
}

// A native method whose result is the text that `body` gives: null for Java when that is empty, and
// a text that points to the log when the body throws.
template <typename Body>
jstring nativeText(const char* function, JNIEnv* jni, Body&& body,
                   support::sourcePlace where = support::sourcePlace::current()) {
  std::string text;
  const jint isDone = native(
      function,
      [&] {
        text = std::forward<Body>(body)();
        return 1;
      },
      where);
  return isDone == 1 ? textFor(jni, text) : jni->NewStringUTF("an error in the agent, see its log");
}

// Why a number is refused, or an empty text.
inline std::string outOfRange(const char* what, std::int64_t value, std::int64_t first,
                              std::int64_t last) {
  return value >= first && value <= last
             ? std::string()
             : std::string(what) + " " + std::to_string(value) + ": expected a number from " +
                   std::to_string(first) + " to " + std::to_string(last);
}

}  // namespace agent
