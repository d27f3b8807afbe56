#include "agent/options.h"

#include <exception>
#include <memory>

#include "agent/twAprLib.h"
#include "exceptions/exceptionprofiler.h"
#include "locks/mutexlockprofiler.h"
#include "memory/memoryprofiler.h"
#include "support/text.h"

namespace agent {

namespace {

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

// The number in an item: it begins just after the key and its "=", and takes at most as many
// characters as stand before the first "=". Throws what the text conversions throw, after naming
// the item on standard error.
std::int32_t numberIn(const std::string& item, std::string_view key) {
  try {
    // Deliberate: the length is that of the text before the first "=", whatever the key's.
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
      applyCaptureSettings(settings);  // Deliberate: of those that stand before the features
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

}  // namespace

startUpSettings readOptions(profilerRegistry& registry, std::string_view options) {
  startUpSettings settings;
  support::forEachPiece(options, ',', [&](std::string_view item) {
    readItem(registry, std::string(item), settings);
  });
  // Deliberate: these texts count anywhere, also within the value of another item.
  const bool all = options.empty() || options.find("features=ALL") != std::string_view::npos ||
                   options.find("features=") == std::string_view::npos;
  if (all) {
    for (const std::int32_t kind : profilerKind::all()) {
      registry.createProfiler(kind);
    }
    applyCaptureSettings(settings);
  }
  applyCostSettings(settings);
  return settings;
}

}  // namespace agent
