// Where the VM loads and unloads the agent.

#include <jvmti.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <memory>
#include <new>
#include <thread>

#include "agent/boundary.h"
#include "agent/oldLogs.h"
#include "agent/options.h"
#include "agent/profilerRegistry.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "exceptions/captureMode.h"
#include "exceptions/exceptionprofiler.h"
#include "exceptions/madeHook.h"
#include "instruments/ownEnvironment.h"
#include "support/attachGate.h"
#include "support/jvmtiStatus.h"

namespace agent {

namespace {

constexpr const char* kOnLoad = "Agent_OnLoad";

constexpr jint kToolInterfaceVersion = 0x30010000;  // JVMTI 1.0, which every VM since gives

// Takes the profilers out; handlers finish with the share that they hold.
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

// No handler begins any more, and those that run are waited for. Bounded: a debugger may have
// suspended one, and a control call of another thread may take its time. A sink that ends the VM is
// within a handler itself, which nobody can wait for.
void leaveBeforeVmEnds() {
  constexpr std::chrono::seconds kPatience{2};
  constexpr std::chrono::milliseconds kPause{1};
  const std::shared_ptr<profilerRegistry> registry = findRegistry();
  jvmtiEnv* const jvmti = registry ? registry->environment() : nullptr;
  if (jvmti == nullptr) {
    return;
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
    return;
  }
  const auto end = std::chrono::steady_clock::now() + kPatience;
  const auto isOut = [](const std::weak_ptr<profiler>& each) { return each.expired(); };
  while (!std::all_of(leaving.begin(), leaving.end(), isOut) &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kPause);
  }
  std::this_thread::sleep_for(kPause);  // from the end of a handler to the VM's own code
}

// Where exceptions are captured where they are made, records without values will do.
jvmtiError addThoseThatThereAre(jvmtiEnv* jvmti, const jvmtiCapabilities& wanted) {
  jvmtiCapabilities potential{};
  const jvmtiError error = jvmti->GetPotentialCapabilities(&potential);
  if (error != JVMTI_ERROR_NONE) {
    return error;
  }
  const jvmtiCapabilities asked = instruments::inBoth(wanted, potential);
  return jvmti->AddCapabilities(&asked);
}

jint load(JavaVM* vm, const char* options) {
  twAprLib::print("Starting Java Native Agent \n");
  void* environment = nullptr;
  vm->GetEnv(&environment, kToolInterfaceVersion);
  if (environment == nullptr) {
    return 0;  // Deliberate: the VM goes on without the agent.
  }
  auto* const jvmti = static_cast<jvmtiEnv*>(environment);
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  registry->setEnvironment(jvmti);
  watchForVmEnd(vm, leaveBeforeVmEnds);
  support::attachGate::ofProcess().install(vm, jvmti);

  const startUpSettings settings = readOptions(*registry, options == nullptr ? "" : options);

  redaction::configure(settings.redaction);  // lists with a problem are not among them

  const std::string noContention = settings.contention ? contentionProfile::ofProcess().startWithVm(
                                                             vm, settings.contentionProfile)
                                                       : std::string();

  const std::string noAllocations =
      settings.allocations
          ? allocationProfile::ofProcess().startWithVm(vm, settings.allocationProfile)
          : std::string();

  jvmtiError capabilities = JVMTI_ERROR_NONE;
  if (!registry->empty()) {
    capabilities = jvmti->AddCapabilities(&registry->capabilities);
    if (capabilities != JVMTI_ERROR_NONE && exceptionsAreCapturedWhereMade()) {
      capabilities = addThoseThatThereAre(jvmti, registry->capabilities);
    }
  }
  // Deliberate: a backslash, on every system.
  cleanUpOldLogs(settings.home + "\\logs", twAprLib::timeStamp(std::time(nullptr)).data());

  static twAprContext& context = *new twAprContext;
  if (!twAprLib::createContext(context)) {
    TW_LOG(kLogError, kSeverityError, kOnLoad, "Could not initialize apr library");
    return 1;
  }
  if (!twAprLib::tw_apr_log_initialize(context, settings.home)) {
    twAprLib::print("Failed to initialize apr log \n");
    return 1;
  }
  twAprLib::setLevel(settings.logLevel);
  TW_LOG(kLogTrace, kSeverityTrace, "twAprLib::tw_apr_log_initialize", "Apr library initialized.");
  if (capabilities != JVMTI_ERROR_NONE) {
    TW_LOG(kLogError, kSeverityError, kOnLoad, "The VM refused the capabilities asked for: %s",
           support::errorName(jvmti, capabilities).c_str());
  }
  if (!noContention.empty()) {
    TW_LOG(kLogError, kSeverityError, kOnLoad, "The contention profile does not run: %s",
           noContention.c_str());
  }
  if (!noAllocations.empty()) {
    TW_LOG(kLogError, kSeverityError, kOnLoad, "The allocation profile does not run: %s",
           noAllocations.c_str());
  }
  for (const std::string& each : settings.ignored) {
    TW_LOG(kLogWarn, kSeverityWarn, kOnLoad, "Ignoring option '%s': its default holds",
           each.c_str());
  }
  return 0;
}

}  // namespace

}  // namespace agent

using namespace agent;

// Deliberate: a malformed option throws out of here; the VM then ends with the exception's text.
JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void* /*reserved*/) {
  try {
    return load(vm, options);
  } catch (const std::bad_alloc&) {
    twAprLib::print(stderr, "javanativeagent: no memory to start with\n");
    return JNI_ERR;
  }
}

JNIEXPORT void JNICALL Agent_OnUnload(JavaVM* vm) {
  support::attachGate::ofProcess().remove(vm);
  contained("Agent_OnUnload", "Exception occured in jagent : Agent_OnUnload", [] { unload(); });
}
