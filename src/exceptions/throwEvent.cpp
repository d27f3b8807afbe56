#include "exceptions/throwEvent.h"

#include <algorithm>
#include <array>

#include "agent/twAprLib.h"
#include "support/jvmtiPtr.h"
#include "support/text.h"

namespace agent {

namespace {

// Whose exceptions are never recorded, by the class that throws them.
constexpr std::array<std::string_view, 5> kIgnoredThrowers = {
    "com.korvane.tw", "com.korvane.koragent", "com.korvane.commons", "sun.", "java.lang.class"};
// Whose frames are written without arguments and locals.
constexpr std::array<std::string_view, 4> kFramesWithoutValues = {
    "com.korvane.tw", "sun.", "com.korvane.commons", "com.sun."};

template <typename Prefixes>
bool startsWithOneOf(std::string_view name, const Prefixes& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&](std::string_view prefix) {
    return support::startsWithIgnoringCase(name, prefix);
  });
}

}  // namespace

void logRefusal(const char* message, support::sourcePlace where) {
  if (twAprLib::level() >= kLogDebug) {
    twAprLib::write(nullptr, 0, kLogModule, kSeverityError, where.file, where.line,
                    kExceptionCallback, "%s", message);
  }
}

knownClass::knownClass(std::string_view classSignature) : signature(classSignature) {
  support::appendDottedClass(name, signature);
  lowerCaseName = support::lowerCase(name);
  ignoredAsThrower = startsWithOneOf(name, kIgnoredThrowers);
  framesWithoutValues = startsWithOneOf(name, kFramesWithoutValues);
}

knownClasses::entry knownClasses::of(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls, jvmtiError& error) {
  error = JVMTI_ERROR_NONE;
  const jint key = classes_.keyOf(jvmti, cls);
  if (entry kept = classes_.find(jni, key, cls)) {
    return kept;
  }
  support::jvmtiText signature(jvmti);
  error = signature.fill([&](char** out) { return jvmti->GetClassSignature(cls, out, nullptr); });
  if (!signature) {
    return nullptr;
  }
  return classes_.keep(jni, key, cls, signature.view());
}

}  // namespace agent
