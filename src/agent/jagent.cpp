// Where the VM loads and unloads the agent. Loading into a VM that runs is in attach.cpp.

#include <jvmti.h>

#include <ctime>
#include <memory>
#include <new>

#include "agent/attachCopies.h"
#include "agent/boundary.h"
#include "agent/companionStart.h"
#include "agent/idle.h"
#include "agent/oldLogs.h"
#include "agent/options.h"
#include "agent/profilerRegistry.h"
#include "agent/setUp.h"
#include "agent/twAprLib.h"
#include "agent/twAprUtility.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "exceptions/captureMode.h"
#include "instruments/ownEnvironment.h"
#include "support/attachGate.h"
#include "support/jvmtiStatus.h"

namespace agent {

namespace {

constexpr const char* kOnLoad = "Agent_OnLoad";

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

// Opens the log. False when that fails.
bool openLog(const startUpSettings& settings) {
  // Deliberate: a backslash, on every system.
  cleanUpOldLogs(settings.home + "\\logs", twAprLib::timeStamp(std::time(nullptr)).data());

  const twAprContext* const context = aprContext(twAprLib::isQuiet() ? stderr : stdout, true);
  if (context == nullptr) {
    TW_LOG(kLogError, kSeverityError, kOnLoad, "Could not initialize apr library");
    return false;
  }
  if (!twAprLib::tw_apr_log_initialize(*context, settings.home)) {
    twAprLib::print("Failed to initialize apr log \n");
    return false;
  }
  if (!settings.companion.empty()) {
    twAprUtility::removeMadeFolders();  // as the companion does when the VM starts it
  }
  twAprLib::setLevel(settings.logLevel);
  TW_LOG(kLogTrace, kSeverityTrace, "twAprLib::tw_apr_log_initialize", "Apr library initialized.");
  return true;
}

// Since JDK 21 any JVMTI environment makes each virtual thread tell where it is mounted, for as
// long as the VM lives. So an idle agent has none.
jint loadIdle(const char* options) {
  startUpSettings settings;
  // A VM that runs has no event of exceptions to give.
  readOptions(*getRegistry(), options, false, settings);
  redaction::configure(settings.redaction);
  beIdle(options);
  if (!openLog(settings)) {
    return 1;
  }
  const auto notWhen = [](bool isAskedFor) {
    return std::string(isAskedFor ? "the agent is idle" : "");
  };
  logSetUp(kOnLoad, settings, notWhen(settings.contention), notWhen(settings.allocations));
  if (!settings.companion.empty()) {
    companionStart::ofProcess().startIdle(settings.companion);
  }
  return 0;
}

jint load(JavaVM* vm, const char* options) {
  twAprLib::setQuiet(asksForQuiet(options == nullptr ? "" : options));
  if (!twAprLib::isQuiet()) {
    twAprLib::print("Starting Java Native Agent \n");
  }
  useThisCopy();
  if (asksForIdle(options == nullptr ? "" : options)) {
    return loadIdle(options);
  }
  jvmtiEnv* const jvmti = beginSetUp(vm, false);
  if (jvmti == nullptr) {
    return 0;  // Deliberate: the VM goes on without the agent.
  }
  const std::shared_ptr<profilerRegistry> registry = getRegistry();

  const startUpSettings settings = readOptions(*registry, options == nullptr ? "" : options);

  redaction::configure(settings.redaction);  // lists with a problem are not among them

  const std::string noContention = settings.contention ? contentionProfile::ofProcess().startWithVm(
                                                             vm, settings.contentionProfile)
                                                       : std::string();

  const std::string noAllocations =
      settings.allocations
          ? allocationProfile::ofProcess().startWithVm(vm, settings.allocationProfile)
          : std::string();

  // Its handler of VMInit comes after those that begin the profiles.
  const std::string noCompanion =
      settings.companion.empty()
          ? std::string()
          : companionStart::ofProcess().startWithVm(vm, settings.companion, settings.companionLate);

  jvmtiError capabilities = JVMTI_ERROR_NONE;
  if (!registry->empty()) {
    capabilities = jvmti->AddCapabilities(&registry->capabilities);
    if (capabilities != JVMTI_ERROR_NONE && exceptionsAreCapturedWhereMade()) {
      capabilities = addThoseThatThereAre(jvmti, registry->capabilities);
    }
  }
  if (!openLog(settings)) {
    return 1;
  }
  if (capabilities != JVMTI_ERROR_NONE) {
    TW_LOG(kLogError, kSeverityError, kOnLoad, "The VM refused the capabilities asked for: %s",
           support::errorName(jvmti, capabilities).c_str());
  }
  logSetUp(kOnLoad, settings, noContention, noAllocations);
  if (!noCompanion.empty()) {
    TW_LOG(kLogError, kSeverityError, kOnLoad, "The companion does not start: %s",
           noCompanion.c_str());
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

// Once for each time that the library was loaded and its commands were answered.
JNIEXPORT void JNICALL Agent_OnUnload(JavaVM* vm) {
  support::attachGate::ofProcess().remove(vm);
  contained("Agent_OnUnload", "Exception occured in jagent : Agent_OnUnload", [] {
    companionStart::ofProcess().vmEnds();
    unload();
  });
}
