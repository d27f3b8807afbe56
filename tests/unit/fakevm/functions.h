// The functions of the three tables by number: their names and when the VM allows a call.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "functionLists.h"

namespace fake {

using functionId = std::uint16_t;

inline constexpr std::size_t kJvmtiSlots = sizeof(jvmtiInterface_1) / sizeof(void*);
inline constexpr std::size_t kJniSlots = sizeof(JNINativeInterface_) / sizeof(void*);
inline constexpr std::size_t kInvocationSlots = sizeof(JNIInvokeInterface_) / sizeof(void*);
inline constexpr std::size_t kFirstJniId = kJvmtiSlots;
inline constexpr std::size_t kFirstInvocationId = kFirstJniId + kJniSlots;
inline constexpr std::size_t kFunctions = kFirstInvocationId + kInvocationSlots;

// The numbers of functions, by name.
#define FAKE_JVMTI(name) \
  static_cast<::fake::functionId>(offsetof(jvmtiInterface_1, name) / sizeof(void*))
#define FAKE_JNI(name)                                  \
  static_cast<::fake::functionId>(::fake::kFirstJniId + \
                                  offsetof(JNINativeInterface_, name) / sizeof(void*))
#define FAKE_INVOCATION(name)                                  \
  static_cast<::fake::functionId>(::fake::kFirstInvocationId + \
                                  offsetof(JNIInvokeInterface_, name) / sizeof(void*))

namespace phaseBit {
inline constexpr std::uint8_t kOnLoad = 1, kPrimordial = 2, kStart = 4, kLive = 8, kDead = 16;
inline constexpr std::uint8_t kAny = 31;
}  // namespace phaseBit

struct functionTraits {
  const char* name = "a reserved slot";
  std::uint8_t phases = phaseBit::kAny;  // the phases in which a JVMTI function may be called
  bool anyThread = false;                // also on threads that are not attached
  bool inRestricted = false;             // also in collection and heap callbacks
  bool whilePending = false;             // JNI: also with a pending exception
};

extern const std::array<functionTraits, kFunctions> kFunctionTraits;

inline const char* nameOf(functionId id) {
  return kFunctionTraits[id].name;
}

// The forms with "V" and "A" of a Call function go under the number of the plain one.
std::optional<functionId> functionNamed(std::string_view name);

}  // namespace fake
