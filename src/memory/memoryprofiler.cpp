#include "memory/memoryprofiler.h"

#include <optional>
#include <utility>

#include "agent/boundary.h"
#include "agent/profilerRegistry.h"
#include "agent/reportOutcome.h"
#include "support/fileWriter.h"
#include "support/jniRef.h"
#include "support/jsonWriter.h"
#include "support/jvmtiStatus.h"
#include "support/sharedSlot.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kSetProfileData = "memoryProfiler::setProfileData";
constexpr const char* kSetProfilerEventMode = "memoryProfiler::setProfilerEventMode";
constexpr const char* kGcFinish = "memoryProfiler::gc_finish";
constexpr const char* kScanJavaHeap = "memoryProfiler::scanJavaHeap";
constexpr const char* kDumpJson = "memoryProfiler::dumpJsonObjectFromMapDS";

// Deliberate: whatever the session is called.
constexpr const char* kReportName = "memoryLeak";
constexpr std::int32_t kNoSessionId = 1;  // Deliberate: of a report without settings.

// The VM compares the tag of each object with one generation after the other. With more of them
// than this, a walk and queries for the generations that have objects cost less.
constexpr std::uint32_t kMostGenerationsAtOnce = 10000;

std::string describe(const MemorySessionConfig& config) {
  return "*************Enabling Memory Leak Profiler features:Memory Leak Enable:" +
         std::to_string(config.memoryLeakEnable) + "|Duration :" + std::to_string(config.duration) +
         "|Session ID :" + std::to_string(config.sessionId) +
         "|SessionName :" + config.sessionName +
         "|Number of top N Class :" + std::to_string(config.topNClassCount);
}

// What is logged of the call that found the tagged objects.
void logTaggedObjects(std::uint64_t count, jvmtiError status) {
  if (count == 0) {
    TW_LOG(kLogWarn, kSeverityWarn, kScanJavaHeap,
           "Agent was not able to find any heap data to report genuinely as no problem "
           "occurred");
  }
  TW_LOG(kLogTrace, kSeverityTrace, kScanJavaHeap, "*jvmti status: %d", static_cast<int>(status));
}

void writeClass(support::jsonWriter& json, const rankedClass& ranked) {
  json.key(ranked.name).beginObject();
  json.key("gcsurvived").beginArray();
  for (const auto& [generation, survived] : ranked.record.gcSurvived) {
    json.beginObject();
    json.member("GCCounter", static_cast<std::int32_t>(generation));
    json.member("count", static_cast<std::int32_t>(survived.count));
    json.member("size", std::to_string(survived.size));
    json.endObject();
  }
  json.endArray();
  json.member("totalCount", static_cast<std::int32_t>(ranked.record.totalCount));
  json.member("totalSize", std::to_string(ranked.record.totalSize));
  json.endObject();
}

// What gc_finish and setObjectTag work on. Never destroyed: they may run while the process ends.
support::sharedSlot<memoryProfiler>& published() {
  static support::sharedSlot<memoryProfiler>& slot = *new support::sharedSlot<memoryProfiler>;
  return slot;
}

const profilerKind kThisKind = profilerKind::of<memoryProfiler>(kMemoryProfiler);

}  // namespace

std::shared_ptr<memoryProfiler> getMemoryProfiler() {
  return published().load();
}

std::string memoryReportOf(std::int32_t sessionId, classQueue chosen) {
  support::jsonWriter json;
  json.beginObject();
  json.member("sessionname", kReportName);
  json.member("sessionid", sessionId);
  json.key("topNMemoryleakClass").beginObject();
  for (; !chosen.empty(); chosen.pop()) {
    writeClass(json, chosen.top());
  }
  json.endObject();
  json.endObject();
  return json.text();
}

void memoryProfiler::publish(const std::shared_ptr<profiler>& self) {
  published().store(std::dynamic_pointer_cast<memoryProfiler>(self));
}

void memoryProfiler::withdraw() {
  jvmti_.store(nullptr);
  published().store(nullptr);
}

void memoryProfiler::setEventCallbacks() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) {
    return;
  }
  registry->callbacks.VMInit = VMInit;
  registry->callbacks.GarbageCollectionFinish = gc_finish;
}

// Deliberate: does nothing.
void JNICALL memoryProfiler::VMInit(jvmtiEnv* /*jvmti*/, JNIEnv* /*jni*/, jthread /*thread*/) {}

void memoryProfiler::addCapabilities() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) {
    return;
  }
  jvmti_.store(registry->environment());
  registry->capabilities.can_tag_objects = 1;
  registry->capabilities.can_generate_garbage_collection_events = 1;
}

std::int32_t memoryProfiler::setProfileData(std::unique_ptr<sessionSettings> settings) {
  constexpr const char* kException = "Exception occured in  memoryprofiler : setProfileData";
  return contained(kSetProfileData, kException, 0, [&] {
    auto* const given = dynamic_cast<MemorySessionConfig*>(settings.get());
    if (given == nullptr) {
      return 0;
    }
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
  if (jvmti == nullptr) {
    return;
  }
  if (enable) {  // Deliberate: it stays so when the event is disabled.
    setState(kMemoryRunning);
  }
  const jvmtiError error = jvmti->SetEventNotificationMode(
      enable ? JVMTI_ENABLE : JVMTI_DISABLE, JVMTI_EVENT_GARBAGE_COLLECTION_FINISH, nullptr);
  TW_LOG(kLogTrace, kSeverityTrace, kSetProfilerEventMode, "*jvmti status: %d",
         static_cast<int>(error));
}

void JNICALL memoryProfiler::gc_finish(jvmtiEnv* /*jvmti*/) {
  contained(kGcFinish, "Exception occured in  memoryprofiler : gc_finish", [] {
    const std::shared_ptr<memoryProfiler> self = getMemoryProfiler();
    if (!self || self->config_.load() == nullptr || self->state() == kMemoryStopped) {
      return;
    }
    const std::uint32_t counted = self->gcCounter_.fetch_add(1) + 1;
    // Deliberate: the word "Trace" at Debug.
    TW_LOG(kLogDebug, kSeverityTrace, kGcFinish,
           "*GC Finish CallBack is Called, :GC_Counter/GC_Cycle Value is: %u", counted);
  });
}

void memoryProfiler::setObjectTag(JNIEnv* jni, jobject object) const {
  jvmtiEnv* const jvmti = jvmti_.load();
  if (jvmti == nullptr) {
    return;
  }
  const std::uint32_t generation = gcCounter();
  if (generation != 0) {
    jlong old = 0;
    // Deliberate: an old tag is taken for a global reference. One of 32 bits is a generation.
    if (jvmti->GetTag(object, &old) == JVMTI_ERROR_NONE && !isGeneration(old)) {
      jni->DeleteGlobalRef(reinterpret_cast<jobject>(static_cast<std::intptr_t>(old)));
    }
  }
  jvmti->SetTag(object, tagOf(generation));
}

std::int32_t memoryProfiler::tagInstances(JNIEnv* jni, jobjectArray classes,
                                          std::span<instanceTally> tallies) const {
  jvmtiEnv* const jvmti = jvmti_.load();
  return jvmti == nullptr ? 0 : agent::tagInstances(jvmti, jni, classes, gcCounter(), tallies);
}

bool memoryProfiler::countTaggedInstances(JNIEnv* jni, jobjectArray classes,
                                          std::span<instanceTally> tallies) const {
  jvmtiEnv* const jvmti = jvmti_.load();
  return jvmti != nullptr && agent::countTaggedInstances(jvmti, jni, classes, tallies);
}

std::int32_t memoryProfiler::scanJavaHeap(JNIEnv* jni, jstring path) {
  constexpr const char* kException = "Exception occured in memoryprofiler : scanJavaHeap";
  return contained(kScanJavaHeap, kException, 0, [&] {
    jvmtiEnv* const jvmti = getRegistry()->environment();
    if (!getMemoryProfiler() || jvmti == nullptr) {
      return 0;
    }
    const MemorySessionConfig* const config = config_.load();
    const classFilters filters = config == nullptr ? classFilters() : config->filters;
    // Deliberate: read without its sign, so that a negative number takes all classes.
    const auto most = static_cast<std::uint32_t>(config == nullptr ? 0 : config->topNClassCount);

    classRecords records;
    {
      std::optional<taggedObjects> walked;
      if (!scansInOneQuery_ || gcCounter() > kMostGenerationsAtOnce) {
        walked = countTaggedObjects(jvmti);
      }
      generationScan scan(jvmti, jni, filters, records);
      if (walked) {
        addGenerationsMet(jvmti, *walked, scan);
      } else {
        addGenerationsAtOnce(jvmti, scan);
      }
    }
    {
      classQueue chosen = selectClasses(std::move(records), filters, most);
      const support::lockGuard guard(queueMutex_);
      classQueue_.swap(chosen);
    }
    return dumpJsonObjectFromMapDS(jni, path);
  });
}

// Deliberate: the current generation is not among those that are counted; it has survived nothing.
std::uint32_t memoryProfiler::endOfGenerations() const {
  const std::uint32_t current = gcCounter();
  if (current == 0) {
    TW_LOG(kLogWarn, kSeverityWarn, kScanJavaHeap,
           "Agent was not able to find any gccount to report genuinely as no problem occurred");
  }
  return current;
}

// A query for each generation that a walk over the heap has met.
void memoryProfiler::addGenerationsMet(jvmtiEnv* jvmti, const taggedObjects& tagged,
                                       generationScan& scan) const {
  logTaggedObjects(tagged.count, tagged.status);
  const std::uint32_t end = endOfGenerations();
  const auto add = [&](std::uint32_t generation) {
    const jvmtiError error = scan.add(generation, generation).status;
    if (error == JVMTI_ERROR_NONE) {
      return true;
    }
    TW_LOG(kLogError, kSeverityError, kScanJavaHeap,
           "The objects of generation %u are not in the report: %s", generation,
           support::errorName(jvmti, error).c_str());
    return false;
  };
  if (tagged.complete) {
    for (const std::uint32_t generation : tagged.generations) {
      if (generation >= 1 && generation < end) {
        add(generation);
      }
    }
  } else {
    // A VM that refuses is not asked for each of what may be billions.
    std::uint32_t generation = 1;
    while (generation < end && add(generation)) {
      ++generation;
    }
  }
}

void memoryProfiler::addGenerationsAtOnce(jvmtiEnv* jvmti, generationScan& scan) const {
  const std::uint32_t end = gcCounter();
  generationScan::answer answer;  // as of a query that finds nothing: there is none for no tag
  if (end > 1) {
    answer = scan.add(1, end - 1);
  }
  logTaggedObjects(static_cast<std::uint64_t>(answer.count), answer.status);
  endOfGenerations();
  if (answer.status == JVMTI_ERROR_NONE) {
    return;
  }
  TW_LOG(kLogError, kSeverityError, kScanJavaHeap,
         "The objects of generations 1 to %u are not in the report: %s", end - 1,
         support::errorName(jvmti, answer.status).c_str());
}

std::int32_t memoryProfiler::dumpJsonObjectFromMapDS(JNIEnv* jni, jstring path) {
  constexpr const char* kException =
      "Exception occured in memoryprofiler : dumpJsonObjectFromMapDS";
  return contained(kDumpJson, kException, 0, [&] {
    // Taken whether or not it can be written: nothing of it turns up in the next report.
    classQueue chosen;
    {
      const support::lockGuard guard(queueMutex_);
      chosen.swap(classQueue_);
    }
    reportOutcomes::ofProcess().begin(kMemoryProfiler);
    if (!getMemoryProfiler()) {
      return 0;
    }
    std::string reportPath = support::textOf(jni, path);
    if (reportPath.empty()) {
      TW_LOG(kLogError, kSeverityError, kDumpJson,
             "No memory report written: the report path is null or empty");
      return 0;
    }
    support::fileWriter file(support::fileSystemPath(reportPath),
                             support::fileWriter::mode::truncate);

    if (chosen.empty()) {
      TW_LOG(kLogWarn, kSeverityWarn, kDumpJson,
             "Agent was not able to find any tagged data for memory to report genuinely as no "
             "problem occurred");
    }
    const MemorySessionConfig* const config = config_.load();
    file.write(
        memoryReportOf(config == nullptr ? kNoSessionId : config->sessionId, std::move(chosen)));
    std::string reason = file.close();
    const bool isWritten = reason.empty();
    if (!isWritten) {
      TW_LOG(kLogError, kSeverityError, kDumpJson,
             "Unable to write memory report '%s'. Error = '%s'", reportPath.c_str(),
             reason.c_str());
    }
    reportOutcomes::ofProcess().end(kMemoryProfiler,
                                    {std::move(reportPath), std::move(reason), file.written()});
    return isWritten ? 1 : 0;
  });
}

}  // namespace agent
