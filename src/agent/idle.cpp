#include "agent/idle.h"

#include <memory>
#include <string>
#include <utility>

#include "agent/boundary.h"
#include "agent/runningSetUp.h"
#include "agent/setUp.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "support/annotations.h"

namespace agent {

namespace {

constexpr const char* kWake = "wakeIdle";

// What the VM was started with.
std::string& idleOptions() REQUIRES(setUpMutex()) {
  static auto& options = *new std::string;
  return options;
}

std::string wake(JavaVM* vm) REQUIRES(setUpMutex()) {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  // Those of the start had no environment to ask for.
  for (const std::int32_t kind : profilerKind::all()) {
    registry->removeProfiler(kind);
  }
  runningSetUp setUp(vm);
  // Java has read by now where exceptions are captured.
  std::string problem = setUp.readOptions(idleOptions(), true);
  if (problem.empty()) {
    problem = setUp.addCapabilities();
  }
  if (problem.empty()) {
    setUp.logMissing(kWake, "an agent that was idle");
    problem = setUp.complete();
  }
  return problem;
}

}  // namespace

void beIdle(std::string options) {
  const support::lockGuard oneCall(setUpMutex());
  idleOptions() = std::move(options);
  setIdle(true);
}

void forgetIdle() {
  setIdle(false);
}

void wakeIdle(JNIEnv* jni) noexcept {
  if (!isIdle()) {
    return;
  }
  contained(kWake, "Exception occured in jagent : wakeIdle", [&] {
    const support::lockGuard oneCall(setUpMutex());
    JavaVM* vm = nullptr;
    if (!isIdle() || vmIsEnding() || jni->GetJavaVM(&vm) != JNI_OK) {
      return;
    }
    const std::string problem = wake(vm);
    if (!problem.empty()) {
      TW_LOG(kLogError, kSeverityError, kWake, "The agent stays idle: %s", problem.c_str());
      return;
    }
    forgetIdle();
  });
}

}  // namespace agent
