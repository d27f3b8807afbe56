#include "agent/companionStart.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "agent/boundary.h"
#include "agent/shutdownHook.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "instruments/costAccount.h"
#include "support/jniRef.h"
#include "support/regularFile.h"

namespace agent {

namespace {

constexpr const char* kThreadName = "javanativeagent start";
constexpr const char* kFunction = "companionStart::start";
constexpr const char* kJar = "javanativeagent.jar";
constexpr const char* kCompanion = "com.korvane.twutils.nativeagent.companion.Companion";

// By then main has begun, and has chosen its managers; a VM that has ended was a short one.
constexpr std::int64_t kLate = 2'000'000'000;  // nanoseconds
constexpr std::chrono::seconds kPatience{10};

// In the folder of this library; empty when that is not known.
std::string jarBesideLibrary() {
  static const char here = 0;
  Dl_info library{};
  if (::dladdr(&here, &library) == 0 || library.dli_fname == nullptr) {
    return "";
  }
  const std::string path = library.dli_fname;
  return path.substr(0, path.rfind('/') + 1) + kJar;
}

support::localRef<> systemLoader(JNIEnv* jni, jclass loaders) {
  jmethodID const get =
      jni->GetStaticMethodID(loaders, "getSystemClassLoader", "()Ljava/lang/ClassLoader;");
  return {jni, get == nullptr ? nullptr : jni->CallStaticObjectMethod(loaders, get)};
}

// Adds the jar to what the loader finds classes in; false when it is not made for that. Any Java
// exception is left.
bool append(JNIEnv* jni, jobject loader, const std::string& jar) {
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(loader));
  jmethodID const add =
      jni->GetMethodID(cls.get(), "appendToClassPathForInstrumentation", "(Ljava/lang/String;)V");
  if (add == nullptr) {
    return false;
  }
  const support::localRef<jstring> path(jni, jni->NewStringUTF(jar.c_str()));
  if (path) {
    jni->CallVoidMethod(loader, add, path.get());
  }
  return jni->ExceptionCheck() == JNI_FALSE;
}

// The loader of the class path: the system's class loader, or one that a loader of the program's
// has above it. Null when there is none.
support::localRef<> appendToClassPath(JNIEnv* jni, support::pendingExceptionGuard& exceptions,
                                      const std::string& jar) {
  const support::localRef<jclass> loaders(jni, jni->FindClass("java/lang/ClassLoader"));
  jmethodID const parentOf =
      loaders ? jni->GetMethodID(loaders.get(), "getParent", "()Ljava/lang/ClassLoader;") : nullptr;
  if (parentOf == nullptr) {
    exceptions.clear();
    return {};
  }
  support::localRef<> loader = systemLoader(jni, loaders.get());
  while (!exceptions.clear() && loader && !append(jni, loader.get(), jar)) {
    exceptions.clear();
    loader = support::localRef<>(jni, jni->CallObjectMethod(loader.get(), parentOf));
  }
  exceptions.clear();
  return loader;
}

support::localRef<jclass> loadCompanion(JNIEnv* jni, jobject loader) {
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(loader));
  jmethodID const load =
      jni->GetMethodID(cls.get(), "loadClass", "(Ljava/lang/String;)Ljava/lang/Class;");
  const support::localRef<jstring> name(jni, load ? jni->NewStringUTF(kCompanion) : nullptr);
  return {jni,
          name ? static_cast<jclass>(jni->CallObjectMethod(loader, load, name.get())) : nullptr};
}

struct somethingToReport {
  bool contention;
  bool allocations;
};

somethingToReport inProfiles() {
  return {contentionProfile::ofProcess().hasContention(),
          allocationProfile::ofProcess().isWorthReporting()};
}

// Empty, or why the companion has not been called.
std::string callCompanion(JNIEnv* jni, const std::string& settings, bool isLate, bool isEnding,
                          somethingToReport there) {
  support::pendingExceptionGuard exceptions(jni);
  const std::string jar = jarBesideLibrary();
  if (::access(jar.c_str(), R_OK) != 0) {
    return "'" + jar + "' cannot be read";
  }
  const support::localRef<> loader = appendToClassPath(jni, exceptions, jar);
  if (!loader) {
    return "the JVM's class path cannot be added to";
  }
  const support::localRef<jclass> companion = loadCompanion(jni, loader.get());
  jmethodID const start =
      exceptions.clear() || !companion
          ? nullptr
          : jni->GetStaticMethodID(companion.get(), "start", "(Ljava/lang/String;ZZZZ)V");
  const support::localRef<jstring> file(jni, start ? jni->NewStringUTF(settings.c_str()) : nullptr);
  if (exceptions.clear() || !file) {
    return "its class cannot be loaded from '" + jar + "'";
  }
  const auto javaOf = [](bool value) { return value ? jboolean{JNI_TRUE} : jboolean{JNI_FALSE}; };
  jni->CallStaticVoidMethod(companion.get(), start, file.get(), javaOf(isLate), javaOf(isEnding),
                            javaOf(there.contention), javaOf(there.allocations));
  return exceptions.clear() ? "it has failed" : "";
}

}  // namespace

companionStart& companionStart::ofProcess() {
  static companionStart& one = *new companionStart;
  return one;
}

companionStart::companionStart()
    : thread_(kThreadName, [this](JNIEnv* jni) { return takeStep(jni); }) {}

std::string companionStart::startWithVm(JavaVM* vm, const std::string& settings, bool isLate) {
  settings_ = settings;
  isLate_ = isLate;
  // As the VM does from its first class on: tools see by it which VM has a companion.
  jar_ = ::open(jarBesideLibrary().c_str(), O_RDONLY | O_CLOEXEC);
  jvmtiEventCallbacks callbacks{};
  callbacks.VMInit = VMInit;
  callbacks.VMDeath = VMDeath;
  std::string problem = environment_.open(vm, {}, callbacks);
  if (problem.empty() && !environment_.enable({JVMTI_EVENT_VM_INIT, JVMTI_EVENT_VM_DEATH})) {
    problem = "the VM refuses its events VMInit and VMDeath";
  }
  return problem;
}

void companionStart::startIdle(const std::string& settings) {
  settings_ = settings;
  isLate_ = true;
  isIdle_ = true;
  jar_ = ::open(jarBesideLibrary().c_str(), O_RDONLY | O_CLOEXEC);
  state_.store(state::due);
  noteStart();
}

void JNICALL companionStart::VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread /*thread*/) {
  contained("companionStart::VMInit", "Exception occured in companionStart : VMInit", [&] {
    jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_VM_INIT, nullptr);
    ofProcess().vmStarted(jni);
  });
}

void companionStart::vmStarted(JNIEnv* jni) {
  state_.store(state::due);
  if (!isLate_) {
    start(jni, false);
    return;
  }
  noteStart();
  const bool isWatched = shutdownHook::ofProcess().callBefore(jni, hooksBegin).empty();
  // Without a word from the hooks it has to be there when they run.
  due_ = instruments::steadyNanos() + (isWatched ? kLate : 0);
  if (!thread_.start(environment_, jni)) {
    start(jni, false);
  }
}

std::optional<std::int64_t> companionStart::takeStep(JNIEnv* jni) {
  allocationRecorder::leaveOutThisThread(true);
  if (!isAsked_.load() && instruments::steadyNanos() < due_) {
    return due_;
  }
  start(jni, isEnding_.load());
  return std::nullopt;
}

void companionStart::start(JNIEnv* jni, bool isEnding) {
  state due = state::due;
  if (!state_.compare_exchange_strong(due, state::starting)) {
    return;
  }
  const auto tell = [](const char* problem) {
    twAprLib::print(stderr, "javanativeagent: the companion cannot be started: %s\n", problem);
    TW_LOG(kLogError, kSeverityError, kFunction, "The companion cannot be started: %s", problem);
  };
  const bool isCalled =
      contained(kFunction, "Exception occured in companionStart : start", false, [&] {
        const std::string problem = callCompanion(jni, settings_, isLate_, isEnding, inProfiles());
        if (!problem.empty()) {
          tell(problem.c_str());
        }
        return true;
      });
  if (!isCalled) {
    tell("an error in the agent");  // most likely there is no memory
  }
  if (jar_ >= 0) {
    ::close(jar_);
  }
  state_.store(state::started);
}

bool companionStart::startNow(JNIEnv* jni) {
  if (state_.load() == state::none) {
    return false;
  }
  if (isIdle_) {
    start(jni, false);
  }
  isAsked_.store(true);
  thread_.wake();
  return instruments::comesSoon([&] { return state_.load() == state::started; }, kPatience);
}

// The companion has hooks of its own, and writes what is alive before those of the program run.
void companionStart::hooksBegin(JNIEnv* jni) {
  companionStart& self = ofProcess();
  if (self.state_.load() == state::started) {
    return;
  }
  const somethingToReport there = inProfiles();
  if (there.contention || there.allocations) {
    self.isEnding_.store(true);
    self.startNow(jni);
  }
}

void JNICALL companionStart::VMDeath(jvmtiEnv* /*jvmti*/, JNIEnv* /*jni*/) {
  contained("companionStart::VMDeath", "Exception occured in companionStart : VMDeath",
            [&] { ofProcess().vmEnds(); });
}

void companionStart::vmEnds() {
  state due = state::due;
  if (state_.compare_exchange_strong(due, state::none)) {
    thread_.stop();
    thread_.hasEnded();  // the VM would wait for a thread that is in native code
  }
}

// The companion adds a line of its own, with the folder that it writes.
void companionStart::noteStart() const {
  constexpr std::string_view kProperties = ".properties";
  constexpr mode_t kOwnerOnly = 0600;
  std::string list = settings_;
  if (list.ends_with(kProperties)) {
    list.resize(list.size() - kProperties.size());
  }
  list += ".jvms";
  const int file =
      ::open(list.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, kOwnerOnly);
  if (file < 0) {
    return;
  }
  const std::string line = std::to_string(::getpid()) + " -\n";
  // One write, for many VMs append to the list. A line that is lost is one VM less in a count.
  [[maybe_unused]] const ssize_t written = ::write(file, line.data(), line.size());
  ::close(file);
}

}  // namespace agent
