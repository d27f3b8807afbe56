#include "agent/setUp.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "agent/profilerRegistry.h"
#include "agent/vmEnd.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "exceptions/exceptionprofiler.h"
#include "exceptions/madeHook.h"
#include "instruments/ownThread.h"
#include "support/attachGate.h"
#include "support/jvmtiStatus.h"

namespace agent {

namespace {

constexpr jint kToolInterfaceVersion = 0x30010000;  // JVMTI 1.0, which every VM since gives

std::atomic<bool> isWaitingToWake{false};

void leaveBeforeVmEnds() {
  const instruments::handlerGate::pass inside(nativesGate());  // detach() leaves the environment
  contentionProfile::ofProcess().leaveBeforeVmEnds();
  allocationProfile::ofProcess().leaveBeforeVmEnds();
  leaveHandlers();
}

// Waits for those who have asked for the environment.
bool nativesHaveLeft() {
  instruments::handlerGate::departure departure;
  return instruments::comesSoon([&] { return departure.isOver(nativesGate()); });
}

std::string giveUp(jvmtiEnv* jvmti, bool isUsed) {
  jvmtiError error = JVMTI_ERROR_NONE;
  if (!isUsed) {
    error = jvmti->DisposeEnvironment();
    return error == JVMTI_ERROR_NONE ? std::string() : support::errorName(jvmti, error);
  }
  jvmtiCapabilities given{};
  error = jvmti->GetCapabilities(&given);
  if (error == JVMTI_ERROR_NONE) {
    error = jvmti->RelinquishCapabilities(&given);
  }
  return error == JVMTI_ERROR_NONE
             ? "a call is still under way, and tags of objects stay"
             : "a call is still under way, and the VM does not take capabilities back: " +
                   support::errorName(jvmti, error);
}

}  // namespace

support::mutex& setUpMutex() {
  static support::mutex& one = *new support::mutex;
  return one;
}

jvmtiEnv* beginSetUp(JavaVM* vm, bool isRunning) {
  void* environment = nullptr;
  vm->GetEnv(&environment, kToolInterfaceVersion);
  if (environment == nullptr) {
    return nullptr;
  }
  auto* const jvmti = static_cast<jvmtiEnv*>(environment);
  getRegistry()->setEnvironment(jvmti);
  if (isRunning) {
    watchForVmEndAgain(vm, leaveBeforeVmEnds);
  } else {
    watchForVmEnd(vm, leaveBeforeVmEnds);
  }
  support::attachGate::ofProcess().install(vm, jvmti, isRunning);
  return jvmti;
}

bool isIdle() {
  return isWaitingToWake.load();
}

void setIdle(bool isIdle) {
  isWaitingToWake.store(isIdle);
}

bool isSetUp() {
  const std::shared_ptr<profilerRegistry> registry = findRegistry();
  return isIdle() || (registry && registry->environment() != nullptr);
}

const twAprContext* aprContext(std::FILE* out, bool isAnew) {
  static auto& made =
      *new std::vector<std::unique_ptr<twAprContext>>;  // used until the process ends
  if (isAnew || made.empty()) {
    auto context = std::make_unique<twAprContext>();
    if (!twAprLib::createContext(*context, out)) {
      return nullptr;
    }
    made.push_back(std::move(context));
  }
  return made.back().get();
}

void logSetUp(const char* function, const startUpSettings& settings,
              const std::string& noContention, const std::string& noAllocations) {
  if (!noContention.empty()) {
    TW_LOG(kLogError, kSeverityError, function, "The contention profile does not run: %s",
           noContention.c_str());
  }
  if (!noAllocations.empty()) {
    TW_LOG(kLogError, kSeverityError, function, "The allocation profile does not run: %s",
           noAllocations.c_str());
  }
  for (const std::string& each : settings.ignored) {
    TW_LOG(kLogWarn, kSeverityWarn, function, "Ignoring option '%s': its default holds",
           each.c_str());
  }
}

void unload() {
  const std::shared_ptr<profilerRegistry> registry = findRegistry();
  if (!registry) {
    return;
  }
  for (const std::int32_t kind : profilerKind::all()) {
    registry->removeProfiler(kind);
  }
  registry->setEnvironment(nullptr);
  freeRegistry();
}

bool leaveHandlers() {
  constexpr std::chrono::milliseconds kPause{1};
  const std::shared_ptr<profilerRegistry> registry = findRegistry();
  jvmtiEnv* const jvmti = registry ? registry->environment() : nullptr;
  if (jvmti == nullptr) {
    return true;
  }
  for (const jvmtiEvent event :
       {JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED, JVMTI_EVENT_MONITOR_CONTENDED_ENTER,
        JVMTI_EVENT_MONITOR_CONTENDED_ENTERED, JVMTI_EVENT_EXCEPTION,
        JVMTI_EVENT_GARBAGE_COLLECTION_FINISH}) {
    jvmti->SetEventNotificationMode(JVMTI_DISABLE, event, nullptr);
  }
  madeHook::switchOff();
  std::array<std::weak_ptr<profiler>, profilerKind::kMost> leaving;
  std::transform(profilerKind::all().begin(), profilerKind::all().end(), leaving.begin(),
                 [&](std::int32_t kind) { return registry->find(kind); });
  unload();
  if (exceptionProfiler::isInHandler()) {
    return false;
  }
  const bool areOut = instruments::comesSoon([&] {
    return std::all_of(leaving.begin(), leaving.end(),
                       [](const auto& each) { return each.expired(); });
  });
  std::this_thread::sleep_for(kPause);  // from the end of a handler to the VM's own code
  return areOut;
}

std::string leaveSessions(JavaVM* vm) {
  const std::shared_ptr<profilerRegistry> registry = findRegistry();
  jvmtiEnv* const jvmti = registry ? registry->environment() : nullptr;
  const bool areHandlersOut = leaveHandlers();
  unload();  // of an idle agent
  const bool areNativesOut = nativesHaveLeft();
  std::string problem;
  if (jvmti != nullptr) {
    problem = giveUp(jvmti, !areHandlersOut || !areNativesOut);
  }
  stopWatchingForVmEnd();
  support::attachGate::ofProcess().remove(vm);
  return problem;
}

instruments::handlerGate& nativesGate() {
  static instruments::handlerGate& gate = *new instruments::handlerGate;
  return gate;
}

}  // namespace agent
