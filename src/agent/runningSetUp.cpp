#include "agent/runningSetUp.h"

#include <array>
#include <exception>
#include <new>

#include "agent/boundary.h"
#include "agent/setUp.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "instruments/ownEnvironment.h"
#include "support/jvmtiStatus.h"
#include "support/text.h"

namespace agent {

namespace {

// A capability that a part of the agent lives by, and what there is without it.
struct neededCapability {
  const char* name;
  bool (*isIn)(const jvmtiCapabilities& given);
  const char* without;
};

constexpr std::array kNeeded{
    neededCapability{
        "can_generate_exception_events",
        [](const jvmtiCapabilities& c) { return c.can_generate_exception_events != 0; },
        "exceptions are captured where they are made (exceptionCapture=made); those "
        "that are thrown again, and implicit ones of compiled code, are not seen"},
    neededCapability{"can_access_local_variables",
                     [](const jvmtiCapabilities& c) { return c.can_access_local_variables != 0; },
                     "records of exceptions have no values but thread locals"},
    neededCapability{
        "can_get_owned_monitor_stack_depth_info",
        [](const jvmtiCapabilities& c) { return c.can_get_owned_monitor_stack_depth_info != 0; },
        "the contention profile does not check that an owner still holds the monitor when its "
        "stack is taken"},
    neededCapability{"can_generate_monitor_events",
                     [](const jvmtiCapabilities& c) { return c.can_generate_monitor_events != 0; },
                     "there are no lock sessions and no contention profile"},
    neededCapability{"can_get_monitor_info",
                     [](const jvmtiCapabilities& c) { return c.can_get_monitor_info != 0; },
                     "there are no owners of monitors and no contention profile"},
    neededCapability{"can_tag_objects",
                     [](const jvmtiCapabilities& c) { return c.can_tag_objects != 0; },
                     "there are no memory sessions"},
    neededCapability{
        "can_generate_garbage_collection_events",
        [](const jvmtiCapabilities& c) { return c.can_generate_garbage_collection_events != 0; },
        "there are no generations in memory sessions and no allocation profile"},
    neededCapability{
        "can_generate_sampled_object_alloc_events",
        [](const jvmtiCapabilities& c) { return c.can_generate_sampled_object_alloc_events != 0; },
        "there is no allocation profile: the JDK is older than 11, or another agent has the "
        "samples"},
    neededCapability{"can_retransform_classes",
                     [](const jvmtiCapabilities& c) { return c.can_retransform_classes != 0; },
                     "there are no locks of java.util.concurrent in the contention profile, and no "
                     "exceptions"},
    neededCapability{"can_get_line_numbers",
                     [](const jvmtiCapabilities& c) { return c.can_get_line_numbers != 0; },
                     "stacks have no line numbers"},
    neededCapability{"can_get_source_file_name",
                     [](const jvmtiCapabilities& c) { return c.can_get_source_file_name != 0; },
                     "stacks have no source files"},
};

}  // namespace

runningSetUp::runningSetUp(JavaVM* vm)
    : vm_(vm), registry_(getRegistry()), jvmti_(beginSetUp(vm, true)) {}

runningSetUp::~runningSetUp() {
  if (isComplete_ || jvmti_ == nullptr) {
    return;
  }
  contained("runningSetUp", "Exception occured in jagent : set-up", [&] {
    leaveSessions(vm_);
    // The end of the VM may have taken the registry, and not what was made since.
    for (const std::int32_t kind : profilerKind::all()) {
      registry_->removeProfiler(kind);
    }
  });
}

std::string runningSetUp::readOptions(std::string_view options, bool areMade) {
  if (jvmti_ == nullptr) {
    return "the VM gives no JVMTI environment";
  }
  const jvmtiError error = jvmti_->GetPotentialCapabilities(&potential_);
  if (error != JVMTI_ERROR_NONE) {
    return "the VM does not name its capabilities: " + support::errorName(jvmti_, error);
  }
  try {
    agent::readOptions(*registry_, options,
                       !areMade && potential_.can_generate_exception_events != 0, settings_);
    return {};
  } catch (const std::bad_alloc&) {
    return "there is no memory";
  } catch (const std::exception& problem) {
    return std::string("an option cannot be read: ") + problem.what();
  }
}

std::string runningSetUp::addCapabilities() {
  const jvmtiCapabilities asked = instruments::inBoth(registry_->capabilities, potential_);
  const jvmtiError error = jvmti_->AddCapabilities(&asked);
  return error == JVMTI_ERROR_NONE
             ? std::string()
             : "the VM refuses the capabilities: " + support::errorName(jvmti_, error);
}

std::string runningSetUp::missing() const {
  std::string lines;
  for (const neededCapability& each : kNeeded) {
    if (!each.isIn(potential_)) {
      lines += std::string(lines.empty() ? "" : "\n") + each.name + ": " + each.without;
    }
  }
  return lines;
}

void runningSetUp::logMissing(const char* function, const char* whom) const {
  support::forEachPiece(missing(), '\n', [&](std::string_view line) {
    TW_LOG(kLogWarn, kSeverityWarn, function, "This JVM does not give %s %s", whom,
           std::string(line).c_str());
  });
}

std::string runningSetUp::complete() {
  if (vmIsEnding()) {
    return "the JVM is ending";
  }
  isComplete_ = true;
  return {};
}

}  // namespace agent
