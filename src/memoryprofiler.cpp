#include "memoryprofiler.h"

#include <limits>

#include "boundary.h"
#include "mutexlockprofiler.h"
#include "profilerRegistry.h"

namespace agent {

namespace {

constexpr const char* kSetProfileData = "memoryProfiler::setProfileData";
constexpr const char* kSetProfilerEventMode = "memoryProfiler::setProfilerEventMode";
constexpr const char* kGcFinish = "memoryProfiler::gc_finish";

std::string describe(const MemorySessionConfig& config) {
  return "*************Enabling Memory Leak Profiler features:Memory Leak Enable:" +
         std::to_string(config.memoryLeakEnable) + "|Duration :" + std::to_string(config.duration) +
         "|Session ID :" + std::to_string(config.sessionId) +
         "|SessionName :" + config.sessionName +
         "|Number of top N Class :" + std::to_string(config.topNClassCount);
}

}  // namespace

void memoryProfiler::setEventCallbacks() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) return;
  registry->callbacks.VMInit = mutexLockProfiler::VMInit;
  registry->callbacks.GarbageCollectionFinish = gc_finish;
}

void memoryProfiler::addCapabilities() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) return;
  registry->capabilities.can_tag_objects = 1;
  registry->capabilities.can_generate_garbage_collection_events = 1;
}

std::int32_t memoryProfiler::setProfileData(std::unique_ptr<sessionSettings> settings) {
  constexpr const char* kException = "Exception occured in  memoryprofiler : setProfileData";
  return contained(kSetProfileData, kException, 0, [&] {
    auto* const given = dynamic_cast<MemorySessionConfig*>(settings.get());
    if (given == nullptr) return 0;
    {
      const support::lockGuard guard(settingsMutex_);
      settings_.reserve(settings_.size() + 1);
      settings_.emplace_back(given);
      settings.release();
      config_.store(given);
    }
    TW_LOG(kLogTrace, kSeverityTrace, kSetProfileData, "%s", describe(*given).c_str());
    return 1;
  });
}

void memoryProfiler::setProfilerEventMode(bool enable) {
  jvmtiEnv* const jvmti = getRegistry()->environment();
  if (jvmti == nullptr) return;
  if (enable) setState(kMemoryRunning);
  const jvmtiError error = jvmti->SetEventNotificationMode(
      enable ? JVMTI_ENABLE : JVMTI_DISABLE, JVMTI_EVENT_GARBAGE_COLLECTION_FINISH, nullptr);
  TW_LOG(kLogTrace, kSeverityTrace, kSetProfilerEventMode, "*jvmti status: %d",
         static_cast<int>(error));
}

void JNICALL memoryProfiler::gc_finish(jvmtiEnv* /*jvmti*/) {
  contained(kGcFinish, "Exception occured in  memoryprofiler : gc_finish", [] {
    const std::shared_ptr<memoryProfiler> self = getMemoryProfiler();
    if (!self || self->config_.load() == nullptr || self->state() == kMemoryStopped) return;
    const std::uint32_t counted = self->gcCounter_.fetch_add(1) + 1;
    TW_LOG(kLogDebug, kSeverityTrace, kGcFinish,
           "*GC Finish CallBack is Called, :GC_Counter/GC_Cycle Value is: %u", counted);
  });
}

void memoryProfiler::setObjectTag(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) const {
  const std::uint32_t generation = gcCounter();
  if (generation != 0) {
    jlong old = 0;
    // A tag of 32 bits is a generation. What lies beyond is taken for a global reference.
    constexpr jlong kLargestGeneration = std::numeric_limits<std::uint32_t>::max();
    if (jvmti->GetTag(object, &old) == JVMTI_ERROR_NONE && (old > kLargestGeneration || old < 0)) {
      jni->DeleteGlobalRef(reinterpret_cast<jobject>(static_cast<std::intptr_t>(old)));
    }
  }
  jvmti->SetTag(object, static_cast<std::int32_t>(generation));
}

}  // namespace agent
