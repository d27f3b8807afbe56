#include "agent/jagent.h"

#include <com_korvane_twutils_nativeagent_AgentCounters.h>
#include <com_korvane_twutils_nativeagent_TWNativeAgentProfiling.h>
#include <jvmti.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "agent/boundary.h"
#include "agent/profilerRegistry.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "exceptions/exceptionprofiler.h"
#include "exceptions/messageOrigin.h"
#include "exceptions/raisedInHandler.h"
#include "exceptions/undeliveredRecords.h"
#include "locks/mutexlockprofiler.h"
#include "memory/instanceTags.h"
#include "memory/memoryprofiler.h"
#include "support/annotations.h"
#include "support/jniRef.h"
#include "support/jvmtiStatus.h"
#include "support/sourcePlace.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kOnLoad = "Agent_OnLoad";

constexpr jint kToolInterfaceVersion = 0x30010000;  // JVMTI 1.0, which every VM since gives

constexpr std::string_view kLogLevelKey = "logLevel";
constexpr std::string_view kHomeKey = "twHome";
constexpr std::string_view kObjectDepthKey = "captureObjDepth";
constexpr std::string_view kObjectTypeKey = "captureObjType";
constexpr std::string_view kStackDepthKey = "captureSTDepth";
constexpr std::string_view kFeaturesKey = "features";
constexpr std::string_view kOwnerLookupsKey = "ownerLookupsPerSecond";
constexpr std::string_view kOneQueryKey = "scanInOneQuery";
constexpr std::string_view kRecordBytesKey = "recordBytes";

constexpr std::string_view kMutexFeature = "mutexprofiling";
constexpr std::string_view kMemoryFeature = "memoryprofiling";
constexpr std::string_view kExceptionFeature = "exceptionprofiling";

constexpr std::array kProfilers = {kMutexLockProfiler, kMemoryProfiler, kExceptionProfiler};

constexpr const char* kLogNamePrefix = "tw_NativeAgent_";

// What the option string sets.
struct startUpSettings {
  std::string home = "C:\\opt\\korvane\\tracewell";
  std::int32_t logLevel = 3;
  std::int32_t objectType = 0;    // unset
  std::int32_t stackDepth = 0;    // unset
  std::int32_t objectDepth = -1;  // unset
  std::int32_t ownerLookupsPerSecond = 0;
  std::int32_t scanInOneQuery = 0;
  std::int32_t recordBytes = 0;  // unset
};

// The number in an item: it begins just after the key and its "=", and takes at most as many
// characters as stand before the first "=". Throws what the text conversions throw, after naming
// the item on standard error.
std::int32_t numberIn(const std::string& item, std::string_view key) {
  try {
    return support::toInt(item.substr(key.size() + 1, item.find('=')));
  } catch (const std::exception& error) {
    twAprLib::print(stderr,
                    "javanativeagent: option '%s': expected '%s=' and a decimal number of 32 bits "
                    "(%s)\n",
                    item.c_str(), std::string(key).c_str(), error.what());
    throw;
  }
}

std::string homeIn(const std::string& item) {
  try {
    return item.substr(kHomeKey.size() + 1);
  } catch (const std::exception& error) {
    twAprLib::print(stderr, "javanativeagent: option '%s': expected '%s=' and a folder (%s)\n",
                    item.c_str(), std::string(kHomeKey).c_str(), error.what());
    throw;
  }
}

// Values out of their range count as not given.
void applyCaptureSettings(const startUpSettings& settings) {
  const std::shared_ptr<exceptionProfiler> exceptions = getExceptionProfiler();
  if (!exceptions) {
    return;
  }
  const auto within = [](std::int32_t value, std::int32_t first, std::int32_t last) {
    return value >= first && value <= last;
  };
  if (within(settings.objectDepth, 0, 5)) {
    exceptions->captureObjDepth = settings.objectDepth;
  }
  if (within(settings.objectType, 1, 7)) {
    exceptions->captureObjType = settings.objectType;
  }
  if (within(settings.stackDepth, 4, 20)) {
    exceptions->captureSTDepth = settings.stackDepth;
  }
}

// Where the options stand does not matter. Values out of their range count as not given.
void applyCostSettings(const startUpSettings& settings) {
  const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
  if (locks && settings.ownerLookupsPerSecond > 0) {
    locks->limitOwnerLookups(settings.ownerLookupsPerSecond);
  }
  const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
  if (memory && settings.scanInOneQuery == 1) {
    memory->scanInOneQuery();
  }
  const std::shared_ptr<exceptionProfiler> exceptions = getExceptionProfiler();
  if (exceptions && settings.recordBytes >= exceptionProfiler::kLeastRecordBytes &&
      settings.recordBytes <= exceptionProfiler::kMostRecordBytes) {
    exceptions->recordBytes = settings.recordBytes;
  }
}

void createFeatures(profilerRegistry& registry, const std::string& item,
                    const startUpSettings& settings) {
  const std::string_view words = std::string_view(item).substr(item.find('=') + 1);
  support::forEachPiece(words, '_', [&](std::string_view word) {
    if (word == kExceptionFeature) {
      registry.createProfiler(kExceptionProfiler);
      applyCaptureSettings(settings);
    } else if (word == kMutexFeature) {
      registry.createProfiler(kMutexLockProfiler);
    } else if (word == kMemoryFeature) {
      registry.createProfiler(kMemoryProfiler);
    }
  });
}

void readItem(profilerRegistry& registry, const std::string& item, startUpSettings& settings) {
  const auto is = [&](std::string_view key) { return support::startsWithIgnoringCase(item, key); };
  if (is(kLogLevelKey)) {
    settings.logLevel = numberIn(item, kLogLevelKey);
  }
  if (is(kHomeKey)) {
    settings.home = homeIn(item);
  }
  if (is(kObjectDepthKey)) {
    settings.objectDepth = numberIn(item, kObjectDepthKey);
  }
  if (is(kObjectTypeKey)) {
    settings.objectType = numberIn(item, kObjectTypeKey);
  }
  if (is(kStackDepthKey)) {
    settings.stackDepth = numberIn(item, kStackDepthKey);
  }
  if (is(kOwnerLookupsKey)) {
    settings.ownerLookupsPerSecond = numberIn(item, kOwnerLookupsKey);
  }
  if (is(kOneQueryKey)) {
    settings.scanInOneQuery = numberIn(item, kOneQueryKey);
  }
  if (is(kRecordBytesKey)) {
    settings.recordBytes = numberIn(item, kRecordBytesKey);
  }
  if (is(kFeaturesKey)) {
    createFeatures(registry, item, settings);
  }
}

// Reads the options from left to right; the profilers named on the way get the capture settings
// that stand before them.
startUpSettings readOptions(profilerRegistry& registry, std::string_view options) {
  startUpSettings settings;
  support::forEachPiece(options, ',', [&](std::string_view item) {
    readItem(registry, std::string(item), settings);
  });
  const bool all = options.empty() || options.find("features=ALL") != std::string_view::npos ||
                   options.find("features=") == std::string_view::npos;
  if (all) {
    for (const std::int32_t kind : kProfilers) {
      registry.createProfiler(kind);
    }
    applyCaptureSettings(settings);
  }
  applyCostSettings(settings);
  return settings;
}

int daysIn(int month, int year) {
  switch (month) {
    case 2:
      return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 29 : 28;
    case 4:
    case 6:
    case 9:
    case 11:
      return 30;
    default:
      return 31;
  }
}

// Takes the profilers out; handlers finish with the share that they hold.
void unload() {
  const std::shared_ptr<profilerRegistry> registry = findRegistry();
  if (!registry) {
    return;
  }
  for (const std::int32_t kind : kProfilers) {
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
  std::array<std::weak_ptr<profiler>, kProfilers.size()> leaving;
  std::transform(kProfilers.begin(), kProfilers.end(), leaving.begin(),
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

jint load(JavaVM* vm, const char* options) {
  twAprLib::print("Starting Java Native Agent \n");
  void* environment = nullptr;
  vm->GetEnv(&environment, kToolInterfaceVersion);
  if (environment == nullptr) {
    return 0;
  }
  auto* const jvmti = static_cast<jvmtiEnv*>(environment);
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  registry->setEnvironment(jvmti);
  watchForVmEnd(vm, leaveBeforeVmEnds);

  const startUpSettings settings = readOptions(*registry, options == nullptr ? "" : options);

  jvmtiError capabilities = JVMTI_ERROR_NONE;
  if (!registry->empty()) {
    capabilities = jvmti->AddCapabilities(&registry->capabilities);
  }
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
  return 0;
}

}  // namespace

std::optional<logDate> parseLogDate(std::string_view digits) {
  constexpr std::size_t kDigits = 8;
  if (digits.size() < kDigits) {
    return std::nullopt;
  }
  const auto number = [&](std::size_t from, std::size_t length) {
    int value = 0;
    for (const char digit : digits.substr(from, length)) {
      value = value * 10 + (digit - '0');
    }
    return value;
  };
  if (digits.substr(0, kDigits).find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  return logDate{number(0, 4), number(4, 2), number(6, 2)};
}

bool isOldLog(const logDate& file, const logDate& today) {
  constexpr int kOldDays = 5;
  int years = today.year - file.year;
  int months = today.month - file.month;
  int days = today.day - file.day;
  if (days < 0) {
    days += daysIn(today.month == 1 ? 12 : today.month - 1, today.year);
    --months;
  }
  if (months < 0) {
    months += 12;
    --years;
  }
  return days >= kOldDays || months != 0 || years != 0;
}

void cleanUpOldLogs(const std::string& directory, const std::string& timeStamp) {
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0) {
    return;  // no such entry: nothing is listed
  }
  const std::size_t separator = directory.find_last_of("/\\");
  const std::string name =
      separator == std::string::npos ? directory : directory.substr(separator + 1);
  if (name == "." || name == ".." || !name.starts_with(kLogNamePrefix)) {
    return;
  }
  const std::optional<logDate> date =
      parseLogDate(std::string_view(name).substr(std::string_view(kLogNamePrefix).size()));
  const std::optional<logDate> today = parseLogDate(timeStamp);
  if (!date || !today || !isOldLog(*date, *today)) {
    return;
  }
  const std::string path = directory + "/" + name;
  if (::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    ::unlink(path.c_str());
  }
}

}  // namespace agent

// --- Entry points ----------------------------------------------------------------------------

using namespace agent;

// A malformed option throws out of here: the VM then ends with the exception's text.
JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void* /*reserved*/) {
  try {
    return load(vm, options);
  } catch (const std::bad_alloc&) {
    twAprLib::print(stderr, "javanativeagent: no memory to start with\n");
    return JNI_ERR;
  }
}

JNIEXPORT void JNICALL Agent_OnUnload(JavaVM* /*vm*/) {
  contained("Agent_OnUnload", "Exception occured in jagent : Agent_OnUnload", [] { unload(); });
}

// --- Native methods of TWNativeAgentProfiling ------------------------------------------------

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method
#define TW_NATIVE_NAME(method) \
  "Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_" #method

namespace {

// A native method ends with a result and without a Java exception, whatever happens in it.
template <typename Body>
jint native(const char* function, Body&& body,
            support::sourcePlace where = support::sourcePlace::current()) {
  return contained(function, "Exception occured in jagent : native method", jint{0},
                   std::forward<Body>(body), where);
}

void trace(const char* function, const char* message, jlong sessionId,
           support::sourcePlace where = support::sourcePlace::current()) {
  if (twAprLib::level() < kLogTrace) {
    return;
  }
  twAprLib::write(nullptr, 0, kLogModule, kSeverityTrace, where.file, where.line, function,
                  "%s%lld", message, static_cast<long long>(sessionId));
}

// Says on standard error what is wrong with a black list that is refused.
void refuseBlackList(const std::string& text, const std::exception& error) {
  twAprLib::print(stderr,
                  "javanativeagent: enableCaptureVariableinException: argument 'blackList' is "
                  "'%s': expected class names separated by commas within one character on each "
                  "side, as in '[a.B,c.D]' (%s)\n",
                  text.c_str(), error.what());
}

// One step of a lock session: the event switch, then the new state.
void stepLockSession(bool events, std::int32_t state, bool rank = false) {
  const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
  if (!locks) {
    return;
  }
  if (rank) {
    locks->sortData();
  }
  locks->setProfilerEventMode(events);
  locks->setState(state);
}

}  // namespace

JNIEXPORT jint JNICALL TW_NATIVE(startMutexLockProfilingSession)(
    JNIEnv* jni, jclass /*cls*/, jlong sessionId, jstring sessionName, jlong duration,
    jint topLockCount, jint maxLockCount, jint maxThreadPerLockCount, jint maxThreadCount,
    jint maxStackTraceCount, jint maxStackTraceCountPerThread, jstring stackFilePath) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMutexLockProfilingSession);
  return native(kFunction, [&] {
    trace(kFunction, "Initializing Lock Profiling Session Id -> ", sessionId);
    constexpr std::int32_t kSecondsPerMinute = 60;
    const std::int32_t graphSize = static_cast<std::int32_t>(duration) / kSecondsPerMinute;
    auto settings = std::make_unique<LockSessionConfig>(
        sessionId, support::textOf(jni, sessionName), duration, topLockCount, maxLockCount,
        maxThreadPerLockCount, maxThreadCount, maxStackTraceCount, maxStackTraceCountPerThread,
        support::textOf(jni, stackFilePath), graphSize);
    getRegistry()->switchProfiler(kMutexLockProfiler, true);
    const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
    return locks ? locks->setProfileData(std::move(settings)) : 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(startMutexLockSummarySession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                               jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMutexLockSummarySession);
  return native(kFunction, [&] {
    trace(kFunction, "Initializing Lock Summary Session Id -> ", sessionId);
    stepLockSession(true, kLockSummary);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(startMutexLockDetailSession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                              jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMutexLockDetailSession);
  return native(kFunction, [&] {
    trace(kFunction, "Initializing Lock Detail Session Id -> ", sessionId);
    stepLockSession(true, kLockDetail, true);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMutexLockSummarySession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                              jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMutexLockSummarySession);
  return native(kFunction, [&] {
    trace(kFunction, "Stopping Lock Summary Session Id -> ", sessionId);
    stepLockSession(false, kLockProfiling);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMutexLockDetailSession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                             jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMutexLockDetailSession);
  return native(kFunction, [&] {
    trace(kFunction, "Stopping Lock Detail Session Id -> ", sessionId);
    stepLockSession(false, kLockStopped);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMutexLockProfilingSession)(JNIEnv* jni, jclass /*cls*/,
                                                                jlong sessionId,
                                                                jstring reportPath) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMutexLockProfilingSession);
  return native(kFunction, [&] {
    trace(kFunction, "Stopping Lock Profiling Session Id -> ", sessionId);
    getRegistry()->switchProfiler(kMutexLockProfiler, false);
    const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
    return locks ? locks->dumpJsonObjectFromMapDS(jni, reportPath) : 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(startMemoryLeaksProfileSession)(
    JNIEnv* jni, jclass /*cls*/, jboolean memoryLeakEnable, jlong duration, jint sessionId,
    jstring sessionName, jint topNClassCount, jstring excludeClasses, jstring excludePackages,
    jstring includeClasses, jstring includePackages) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMemoryLeaksProfileSession);
  return native(kFunction, [&] {
    trace(kFunction, "******Starting memory Profiling Session Id -> ", sessionId);
    auto settings = std::make_unique<MemorySessionConfig>();
    settings->memoryLeakEnable = memoryLeakEnable;
    settings->duration = duration;
    settings->sessionId = sessionId;
    settings->sessionName = support::textOf(jni, sessionName);
    settings->topNClassCount = topNClassCount;
    settings->filters.excludeClasses = support::textOf(jni, excludeClasses);
    settings->filters.excludePackages = support::textOf(jni, excludePackages);
    settings->filters.includeClasses = support::textOf(jni, includeClasses);
    settings->filters.includePackages = support::textOf(jni, includePackages);
    getRegistry()->switchProfiler(kMemoryProfiler, true);
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (!memory) {
      return 0;
    }
    memory->setProfilerEventMode(true);
    return memory->setProfileData(std::move(settings));
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMemoryLeaksProfileSession)(JNIEnv* jni, jclass /*cls*/,
                                                                jlong sessionId,
                                                                jstring reportPath) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMemoryLeaksProfileSession);
  return native(kFunction, [&] {
    trace(kFunction, "******Stopping memory Profiling Session Id -> ", sessionId);
    const std::shared_ptr<profilerRegistry> registry = findRegistry();
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (!registry || !memory) {
      return 0;
    }
    registry->switchProfiler(kMemoryProfiler, false);
    memory->setProfilerEventMode(false);
    return memory->scanJavaHeap(jni, reportPath);
  });
}

JNIEXPORT void JNICALL TW_NATIVE(forceGarbageCollection)(JNIEnv* /*jni*/, jclass /*cls*/) {
  native(TW_NATIVE_NAME(forceGarbageCollection), [] {
    jvmtiEnv* const jvmti = getRegistry()->environment();
    if (jvmti != nullptr) {
      jvmti->ForceGarbageCollection();
    }
    return 0;
  });
}

JNIEXPORT void JNICALL TW_NATIVE(setObjectTag)(JNIEnv* jni, jclass /*cls*/, jobject object) {
  native(TW_NATIVE_NAME(setObjectTag), [&] {
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (memory && object != nullptr) {
      memory->setObjectTag(jni, object);
    }
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(tagInstances)(JNIEnv* jni, jclass /*cls*/, jobjectArray classes) {
  return native(TW_NATIVE_NAME(tagInstances), [&] {
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    jvmtiEnv* const jvmti = getRegistry()->environment();
    if (!memory || jvmti == nullptr || classes == nullptr) {
      return 0;
    }
    const auto count = static_cast<std::size_t>(jni->GetArrayLength(classes));
    std::vector<instanceTally> tallies(count);
    return tagInstances(jvmti, jni, classes, memory->gcCounter(), tallies);
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(tagInstancesWithin)(JNIEnv* jni, jclass /*cls*/,
                                                     jobjectArray classes, jintArray room) {
  return native(TW_NATIVE_NAME(tagInstancesWithin), [&] {
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    jvmtiEnv* const jvmti = getRegistry()->environment();
    if (!memory || jvmti == nullptr || classes == nullptr || room == nullptr) {
      return 0;
    }
    const auto count = static_cast<std::size_t>(jni->GetArrayLength(classes));
    std::vector<jint> rooms = support::numbersOf(jni, room, count);
    std::vector<instanceTally> tallies;
    tallies.reserve(count);
    for (const jint each : rooms) {
      tallies.push_back({.room = each});
    }
    const jint tagged = tagInstances(jvmti, jni, classes, memory->gcCounter(), tallies);
    for (std::size_t i = 0; i < count; ++i) {
      rooms[i] = tallies[i].isCut ? -1 : tallies[i].room - tallies[i].tagged;
    }
    support::setNumbers(jni, room, rooms);
    return tagged;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(countTaggedInstances)(JNIEnv* jni, jclass /*cls*/,
                                                       jobjectArray classes, jintArray counts) {
  return native(TW_NATIVE_NAME(countTaggedInstances), [&] {
    jvmtiEnv* const jvmti = getRegistry()->environment();
    if (!getMemoryProfiler() || jvmti == nullptr || classes == nullptr || counts == nullptr) {
      return 0;
    }
    const auto count = static_cast<std::size_t>(jni->GetArrayLength(classes));
    std::vector<instanceTally> tallies(count);
    if (!countTaggedInstances(jvmti, jni, classes, tallies)) {
      return 0;
    }
    std::vector<jint> numbers;
    numbers.reserve(count);
    for (const instanceTally& each : tallies) {
      numbers.push_back(each.tagged);
    }
    support::setNumbers(jni, counts, numbers);
    return 1;
  });
}

JNIEXPORT jclass JNICALL TW_NATIVE(messageOriginOf)(JNIEnv* jni, jclass /*cls*/, jclass type) {
  jclass origin = nullptr;
  native(TW_NATIVE_NAME(messageOriginOf), [&] {
    jvmtiEnv* const jvmti = getRegistry()->environment();
    if (jvmti != nullptr && type != nullptr) {
      origin = messageOriginOf(jvmti, jni, type);
    }
    return 0;
  });
  return origin;
}

JNIEXPORT jint JNICALL TW_NATIVE(getExtendedMatricesFromNative)(JNIEnv* jni, jclass /*cls*/,
                                                                jstring text) {
  if (text == nullptr) {
    return 0;
  }
  const char* const chars = jni->GetStringUTFChars(text, nullptr);
  if (chars == nullptr) {
    jni->ExceptionClear();
  } else {
    jni->ReleaseStringUTFChars(text, chars);
  }
  return 0;
}

// An empty black list throws out of here, as the text conversions of the start-up do.
JNIEXPORT jint JNICALL TW_NATIVE(enableCaptureVariableinException)(
    JNIEnv* jni, jclass /*cls*/, jboolean enable, jboolean classVariables, jboolean methodArguments,
    jboolean localVariables, jboolean threadLocals, jint captureRate, jint stackTraceDepth,
    jstring blackList) {
  constexpr const char* kFunction = TW_NATIVE_NAME(enableCaptureVariableinException);
  std::exception_ptr refused;  // thrown on: what the black list is refused with is not contained
  const jint result = native(kFunction, [&] {
    auto settings = std::make_unique<ExceptionCaptureSettings>();
    if (const auto text = support::tryTextOf(jni, blackList)) {
      try {
        settings->blackList = parseBlackList(*text);
      } catch (const std::out_of_range& error) {
        refuseBlackList(*text, error);
        refused = std::current_exception();
        return 0;
      }
    }
    settings->enabled = enable == JNI_TRUE;
    settings->captureClassVariables = classVariables == JNI_TRUE;
    settings->captureMethodArguments = methodArguments == JNI_TRUE;
    settings->captureLocalVariables = localVariables == JNI_TRUE;
    settings->captureThreadLocals = threadLocals == JNI_TRUE;
    settings->captureRate = captureRate;
    settings->stackTraceDepth = stackTraceDepth;
    settings->findCallback(jni);
    // Calls that meet would leave the events of the one with the settings of the other.
    static support::mutex& oneCall = *new support::mutex;
    const support::lockGuard guard(oneCall);
    getRegistry()->switchProfiler(kExceptionProfiler, settings->enabled);
    const std::shared_ptr<exceptionProfiler> exceptions = getExceptionProfiler();
    if (!exceptions) {
      return 0;
    }
    exceptions->setProfilerEventMode(settings->enabled);
    return exceptions->setProfileData(std::move(settings));
  });
  if (refused) {
    std::rethrow_exception(refused);
  }
  return result;
}

// --- Native methods of AgentCounters ---------------------------------------------------------

#define TW_COUNTERS(method) Java_com_korvane_twutils_nativeagent_AgentCounters_##method

JNIEXPORT jlong JNICALL TW_COUNTERS(exceptions)(JNIEnv* /*jni*/, jclass /*cls*/, jint which) {
  if (which < 0 || static_cast<std::size_t>(which) >= kExceptionCounts) {
    return 0;
  }
  return static_cast<jlong>(exceptionCounts::ofProcess().get(static_cast<exceptionCount>(which)));
}

JNIEXPORT jboolean JNICALL TW_COUNTERS(isRecordCut)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return exceptionProfiler::isRecordCut() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL TW_COUNTERS(sinkBegins)(JNIEnv* /*jni*/, jclass /*cls*/, jboolean now) {
  if (now == JNI_TRUE) {
    raisedInHandler::noteSink();
  }
}

// Time, thread, class, record, whether it is cut, and whether the thread was a virtual one.
JNIEXPORT jboolean JNICALL TW_COUNTERS(takeUndelivered)(JNIEnv* jni, jclass /*cls*/,
                                                        jobjectArray parts) {
  constexpr const char* kFunction =
      "Java_com_korvane_twutils_nativeagent_AgentCounters_takeUndelivered";
  const jint taken = native(kFunction, [&] {
    if (parts == nullptr) {
      return 0;
    }
    std::optional<undeliveredRecord> record = undeliveredRecords::ofProcess().take();
    if (!record) {
      return 0;
    }
    const std::string time = std::to_string(record->time);
    jsize index = 0;
    for (const char* each :
         {time.c_str(), record->thread.c_str(), record->exceptionClass.c_str(),
          record->text.c_str(), record->isCut ? "cut" : "", record->isVirtual ? "virtual" : ""}) {
      const support::localRef<jstring> text(jni, jni->NewStringUTF(each));
      if (text) {
        jni->SetObjectArrayElement(parts, index++, text.get());
      }
      if (!text || jni->ExceptionCheck() != JNI_FALSE) {
        jni->ExceptionClear();
        undeliveredRecords::ofProcess().putBack(std::move(*record));
        return 0;
      }
    }
    exceptionCounts::ofProcess().deliverLate();
    return 1;
  });
  return taken == 1 ? JNI_TRUE : JNI_FALSE;
}
