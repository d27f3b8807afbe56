#include "agent/attachCommand.h"

#include "agent/companionStart.h"
#include "agent/setUp.h"
#include "agent/twAprLib.h"
#include "support/jniRef.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kFunction = "runCommand";
constexpr std::string_view kKey = "command=";
constexpr const char* kCommands = "com.korvane.twutils.nativeagent.companion.Commands";
constexpr const char* kRun = "run";
constexpr const char* kRunDescriptor = "(Ljava/lang/String;)I";
constexpr jint kReferences = 16;

// What an exception gives as its text. Clears what that throws.
std::string textOf(JNIEnv* jni, jthrowable thrown) {
  const support::localRef<jclass> object(jni, jni->FindClass("java/lang/Object"));
  jmethodID const toString =
      object ? jni->GetMethodID(object.get(), "toString", "()Ljava/lang/String;") : nullptr;
  const support::localRef<jobject> text(
      jni, toString == nullptr ? nullptr : jni->CallObjectMethod(thrown, toString));
  if (jni->ExceptionCheck() != JNI_FALSE) {
    jni->ExceptionClear();
    return "something without a text";
  }
  return support::textOf(jni, static_cast<jstring>(text.get()));
}

// Clears the pending exception and logs it; without one nothing.
attachAnswer ended(JNIEnv* jni, const char* what, attachAnswer answer) {
  const support::localRef<jthrowable> thrown(jni, jni->ExceptionOccurred());
  jni->ExceptionClear();
  TW_LOG(kLogError, kSeverityError, kFunction, "%s: %s", what,
         thrown ? textOf(jni, thrown.get()).c_str() : "the VM gives no reason");
  return answer;
}

// The companion's class; null with an exception pending, most times, when there is none.
support::localRef<jclass> findCommands(JNIEnv* jni) {
  const support::localRef<jclass> loaders(jni, jni->FindClass("java/lang/ClassLoader"));
  if (!loaders) {
    return {};
  }
  jmethodID const system =
      jni->GetStaticMethodID(loaders.get(), "getSystemClassLoader", "()Ljava/lang/ClassLoader;");
  jmethodID const load =
      system == nullptr
          ? nullptr
          : jni->GetMethodID(loaders.get(), "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;");
  if (load == nullptr) {
    return {};
  }
  const support::localRef<jobject> loader(jni, jni->CallStaticObjectMethod(loaders.get(), system));
  if (jni->ExceptionCheck() != JNI_FALSE || !loader) {
    return {};
  }
  const support::localRef<jstring> name(jni, jni->NewStringUTF(kCommands));
  if (!name) {
    return {};
  }
  jobject const found = jni->CallObjectMethod(loader.get(), load, name.get());
  if (jni->ExceptionCheck() != JNI_FALSE) {
    return {};
  }
  return {jni, static_cast<jclass>(found)};
}

bool isPending(JNIEnv* jni, const char* className) {
  const support::localRef<jthrowable> thrown(jni, jni->ExceptionOccurred());
  if (!thrown) {
    return false;
  }
  jni->ExceptionClear();
  const support::localRef<jclass> cls(jni, jni->FindClass(className));
  const bool isOne = cls && jni->IsInstanceOf(thrown.get(), cls.get()) != JNI_FALSE;
  jni->ExceptionClear();
  jni->Throw(thrown.get());
  return isOne;
}

// Whether the VM's classes and modules are set up: its listener may be there earlier, and a class
// that is loaded then is not found, or found too early. An idle agent has no environment that could
// be asked for the phase.
bool isBooted(JNIEnv* jni) {
  support::pendingExceptionGuard exceptions(jni);
  for (const char* const name : {"jdk/internal/misc/VM", "sun/misc/VM"}) {  // JDK 9, JDK 8
    const support::localRef<jclass> vm(jni, jni->FindClass(name));
    jmethodID const booted = vm ? jni->GetStaticMethodID(vm.get(), "isBooted", "()Z") : nullptr;
    if (booted != nullptr) {
      const bool is = jni->CallStaticBooleanMethod(vm.get(), booted) != JNI_FALSE;
      return exceptions.clear() || is;
    }
    exceptions.clear();
  }
  return true;  // not known
}

}  // namespace

std::optional<std::string> commandIn(std::string_view options) {
  if (!support::startsWithIgnoringCase(options, kKey)) {
    return std::nullopt;
  }
  return std::string(options.substr(kKey.size()));
}

attachAnswer runCommand(JNIEnv* jni, const std::string& path) {
  if (!isSetUp()) {
    return attachAnswer::notSetUp;
  }
  if (!isBooted(jni)) {
    return attachAnswer::noCompanion;
  }
  companionStart::ofProcess().startNow(jni);  // it may be due only in a moment
  support::pendingExceptionGuard exceptions(jni);
  const support::localFrame frame(jni, kReferences);
  const support::localRef<jclass> commands = findCommands(jni);
  if (!commands) {
    return ended(jni, "The companion is not in this JVM", attachAnswer::noCompanion);
  }
  jmethodID const run = jni->GetStaticMethodID(commands.get(), kRun, kRunDescriptor);
  if (run == nullptr) {
    return isPending(jni, "java/lang/NoSuchMethodError")
               ? ended(jni, "The companion takes no commands", attachAnswer::noCompanion)
               : ended(jni, "The companion did not start", attachAnswer::companionFailed);
  }
  const support::localRef<jstring> request(jni, jni->NewStringUTF(path.c_str()));
  if (!request) {
    return ended(jni, "The command was not handed over", attachAnswer::companionFailed);
  }
  const jint result = jni->CallStaticIntMethod(commands.get(), run, request.get());
  if (jni->ExceptionCheck() != JNI_FALSE) {
    return ended(jni, "The companion threw", attachAnswer::companionFailed);
  }
  return result == 0 ? attachAnswer::done : attachAnswer::companionFailed;
}

}  // namespace agent
