#include "functions.h"

namespace fake {

namespace {

constexpr std::array<functionTraits, kFunctions> makeTraits() {
  std::array<functionTraits, kFunctions> traits{};
#define FAKE_NAME(function)                      \
  traits[FAKE_JVMTI(function)].name = #function; \
  traits[FAKE_JVMTI(function)].phases = phaseBit::kLive;
  FAKE_JVMTI_FUNCTIONS(FAKE_NAME)
#undef FAKE_NAME
#define FAKE_NAME(function) traits[FAKE_JNI(function)].name = #function;
  FAKE_JNI_FUNCTIONS(FAKE_NAME)
#undef FAKE_NAME
#define FAKE_NAME(function)                           \
  traits[FAKE_INVOCATION(function)].name = #function; \
  traits[FAKE_INVOCATION(function)].anyThread = true;
  FAKE_INVOCATION_FUNCTIONS(FAKE_NAME)
#undef FAKE_NAME

  for (const functionId id :
       {FAKE_JVMTI(Allocate), FAKE_JVMTI(Deallocate), FAKE_JVMTI(GetTime), FAKE_JVMTI(GetErrorName),
        FAKE_JVMTI(GetPhase), FAKE_JVMTI(GetCapabilities), FAKE_JVMTI(DisposeEnvironment)}) {
    traits[id].phases = phaseBit::kAny;
    traits[id].anyThread = true;
  }
  for (const functionId id : {FAKE_JVMTI(AddCapabilities), FAKE_JVMTI(RelinquishCapabilities),
                              FAKE_JVMTI(GetPotentialCapabilities), FAKE_JVMTI(SetEventCallbacks),
                              FAKE_JVMTI(SetEventNotificationMode)}) {
    traits[id].phases = phaseBit::kOnLoad | phaseBit::kLive;
  }
  for (const functionId id : {FAKE_JVMTI(SetThreadLocalStorage),
                              FAKE_JVMTI(GetThreadLocalStorage),
                              FAKE_JVMTI(GetObjectHashCode),
                              FAKE_JVMTI(GetObjectSize),
                              FAKE_JVMTI(GetTag),
                              FAKE_JVMTI(SetTag),
                              FAKE_JVMTI(GetMethodName),
                              FAKE_JVMTI(GetMethodDeclaringClass),
                              FAKE_JVMTI(GetMethodModifiers),
                              FAKE_JVMTI(GetClassStatus),
                              FAKE_JVMTI(GetClassSignature),
                              FAKE_JVMTI(GetClassLoader),
                              FAKE_JVMTI(GetSourceFileName),
                              FAKE_JVMTI(GetLineNumberTable),
                              FAKE_JVMTI(GetArgumentsSize),
                              FAKE_JVMTI(GetMaxLocals),
                              FAKE_JVMTI(GetClassFields),
                              FAKE_JVMTI(GetClassMethods),
                              FAKE_JVMTI(GetCurrentThread),
                              FAKE_JVMTI(GetFieldName),
                              FAKE_JVMTI(GetFieldModifiers)}) {
    traits[id].phases = phaseBit::kStart | phaseBit::kLive;
  }
  for (const functionId id : {FAKE_JVMTI(Allocate), FAKE_JVMTI(Deallocate)}) {
    traits[id].inRestricted = true;
  }
  for (const functionId id :
       {FAKE_JNI(ExceptionOccurred), FAKE_JNI(ExceptionDescribe), FAKE_JNI(ExceptionClear),
        FAKE_JNI(ExceptionCheck), FAKE_JNI(ReleaseStringUTFChars), FAKE_JNI(DeleteLocalRef),
        FAKE_JNI(DeleteGlobalRef), FAKE_JNI(DeleteWeakGlobalRef), FAKE_JNI(PushLocalFrame),
        FAKE_JNI(PopLocalFrame)}) {
    traits[id].whilePending = true;
  }
  return traits;
}

}  // namespace

constinit const std::array<functionTraits, kFunctions> kFunctionTraits = makeTraits();

std::optional<functionId> functionNamed(std::string_view name) {
  if (name.starts_with("Call") && (name.ends_with("MethodV") || name.ends_with("MethodA"))) {
    name.remove_suffix(1);
  }
  for (std::size_t id = 0; id < kFunctions; ++id) {
    if (kFunctionTraits[id].name == name) {
      return static_cast<functionId>(id);
    }
  }
  return std::nullopt;
}

}  // namespace fake
