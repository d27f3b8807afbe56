#include "exceptions/throwEvent.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "support/jvmtiPtr.h"
#include "support/text.h"

namespace agent {

namespace {

// Whose exceptions are never recorded, by the class that throws them. Deliberate: beginnings of
// names, so that "java.lang.class" is also that of ClassLoader.
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

constinit std::atomic<std::uint64_t> lastClass{0};

}  // namespace

knownClass::knownClass(std::string_view classSignature)
    : id(++lastClass), signature(classSignature) {
  support::appendDottedClass(name, signature);
  lowerCaseName = support::lowerCase(name);
  ignoredAsThrower = startsWithOneOf(name, kIgnoredThrowers);
  framesWithoutValues = startsWithOneOf(name, kFramesWithoutValues);
}

const constructorTable* knownClass::constructors(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls) const {
  const constructorTable* known = constructors_.load(std::memory_order_acquire);
  if (known == nullptr) {
    std::unique_ptr<const constructorTable> made = constructorTable::of(jvmti, jni, cls);
    if (made && constructors_.compare_exchange_strong(known, made.get())) {
      known = made.release();
    }
  }
  return known;
}

knownClasses::entry knownClasses::read(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls, jint key,
                                       jvmtiError& error) {
  support::jvmtiText signature(jvmti);
  error = signature.fill([&](char** out) { return jvmti->GetClassSignature(cls, out, nullptr); });
  if (!signature) {
    return nullptr;
  }
  return classes_.keep(jni, key, cls, signature.view());
}

}  // namespace agent
