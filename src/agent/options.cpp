#include "agent/options.h"

#include <charconv>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "agent/twAprLib.h"
#include "exceptions/captureMode.h"
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
constexpr std::string_view kExceptionCaptureKey = "exceptionCapture";
constexpr std::string_view kQuietKey = "quiet";
constexpr std::string_view kCompanionKey = "companion=";

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

// A duration in milliseconds: a number with ms, s, m or h, or without for milliseconds.
std::optional<std::int64_t> millisIn(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || value < 0 || value > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
  constexpr std::int64_t kSecond = 1000;
  constexpr std::int64_t kMinute = 60 * kSecond;
  constexpr std::int64_t kHour = 60 * kMinute;
  for (const auto& [name, millis] : {std::pair<std::string_view, std::int64_t>{"", 1},
                                     {"ms", 1},
                                     {"s", kSecond},
                                     {"m", kMinute},
                                     {"h", kHour}}) {
    if (support::lowerCase(unit) == name) {
      return value * millis;
    }
  }
  return std::nullopt;
}

// Reads "key=value" into `setting` when the key is this one. Any other value, and one
// out of its range, leaves the setting as it is and is noted.
template <typename Number>
void readSetting(const std::string& item, std::string_view key, bool isDuration, std::int64_t first,
                 std::int64_t last, Number& setting, startUpSettings& settings) {
  const std::size_t sign = item.find('=');
  if (support::lowerCase(item.substr(0, sign)) != support::lowerCase(key)) {
    return;
  }
  const std::string_view text =
      sign == std::string::npos ? std::string_view() : std::string_view(item).substr(sign + 1);
  const bool hasUnit = text.find_first_not_of("0123456789") != std::string_view::npos;
  const std::optional<std::int64_t> value = hasUnit && !isDuration ? std::nullopt : millisIn(text);
  if (value && *value >= first && *value <= last) {
    setting = static_cast<Number>(*value);
  } else {
    settings.ignored.push_back(item);
  }
}

void readContentionItem(const std::string& item, startUpSettings& settings) {
  using limits = contentionSettings;
  constexpr std::int64_t kForEver = 864'000'000'000;  // 240000 hours
  contentionSettings& profile = settings.contentionProfile;
  readSetting(item, "contention", false, 0, 1, settings.contention, settings);
  readSetting(item, "contentionLocks", false, limits::kFewestLocks, limits::kMostLocks,
              profile.locks, settings);
  readSetting(item, "contentionSamples", false, 0, limits::kMostSamples, profile.samplesPerSecond,
              settings);
  readSetting(item, "contentionBudget", false, 1, limits::kMostBudget, profile.budgetPercent,
              settings);
  readSetting(item, "contentionStuck", true, limits::kShortestStuck, kForEver, profile.stuckMillis,
              settings);
  readSetting(item, "contentionWindow", true, limits::kShortestWindow, limits::kLongestWindow,
              profile.windowMillis, settings);
}

void readAllocationItem(const std::string& item, startUpSettings& settings) {
  using limits = allocationSettings;
  allocationSettings& profile = settings.allocationProfile;
  readSetting(item, "allocations", false, 0, 1, settings.allocations, settings);
  readSetting(item, "allocationsInterval", false, limits::kShortestInterval,
              limits::kLongestInterval, profile.intervalBytes, settings);
  readSetting(item, "allocationsSamples", false, limits::kFewestSamples, limits::kMostSamples,
              profile.liveSamples, settings);
}

void readQuiet(const std::string& item, startUpSettings& settings) {
  readSetting(item, kQuietKey, false, 0, 1, settings.quiet, settings);
}

void readIdle(const std::string& item, startUpSettings& settings) {
  readSetting(item, "idle", false, 0, 1, settings.idle, settings);
}

void readCompanionItem(const std::string& item, startUpSettings& settings) {
  if (support::startsWithIgnoringCase(item, kCompanionKey)) {
    settings.companion = item.substr(kCompanionKey.size());
  }
  readSetting(item, "companionLate", false, 0, 1, settings.companionLate, settings);
}

// Read before all others, since a profiler asks for its capabilities when it is made.
void readExceptionCapture(const std::string& item, startUpSettings& settings) {
  const std::size_t sign = item.find('=');
  if (support::lowerCase(item.substr(0, sign)) != support::lowerCase(kExceptionCaptureKey)) {
    return;
  }
  const std::string mode =
      sign == std::string::npos ? std::string() : support::lowerCase(item.substr(sign + 1));
  if (mode == "made" || mode == "thrown") {
    captureExceptionsWhereMade(mode == "made");
  } else {
    settings.ignored.push_back(item);
  }
}

// "redactNames=a:b" and its siblings. A list with a malformed entry is ignored as a whole.
void readRedactionItem(const std::string& item, startUpSettings& settings) {
  const std::size_t sign = item.find('=');
  const std::string key = support::lowerCase(item.substr(0, sign));
  const std::string text = sign == std::string::npos ? std::string() : item.substr(sign + 1);
  if (key == "redact") {
    if (const std::optional<redactionMode> mode = redactionModeOf(text)) {
      settings.redaction.mode = *mode;
    } else {
      settings.ignored.push_back(item);
    }
    return;
  }
  using list = std::vector<std::string> redactionSettings::*;
  for (const auto& [name, which] :
       {std::pair<std::string_view, list>{"redactnames", &redactionSettings::names},
        {"redacttypes", &redactionSettings::types},
        {"redactvalues", &redactionSettings::values},
        {"shownames", &redactionSettings::shown}}) {
    if (key != name) {
      continue;
    }
    redactionSettings given;
    std::vector<std::string>& entries = given.*which;
    support::forEachPiece(text, ':', [&](std::string_view entry) { entries.emplace_back(entry); });
    if (entries.empty() || !problemOf(given).empty()) {
      settings.ignored.push_back(item);
    } else {
      settings.redaction.*which = std::move(entries);
    }
  }
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
  readContentionItem(item, settings);
  readAllocationItem(item, settings);
  readRedactionItem(item, settings);
  readQuiet(item, settings);
  readIdle(item, settings);
  readCompanionItem(item, settings);
}

}  // namespace

bool asksForQuiet(std::string_view options) {
  startUpSettings settings;
  support::forEachPiece(options, ',',
                        [&](std::string_view item) { readQuiet(std::string(item), settings); });
  return settings.quiet;
}

bool asksForIdle(std::string_view options) {
  startUpSettings settings;
  support::forEachPiece(options, ',',
                        [&](std::string_view item) { readIdle(std::string(item), settings); });
  return settings.idle;
}

startUpSettings readOptions(profilerRegistry& registry, std::string_view options) {
  startUpSettings settings;
  readOptions(registry, options, true, settings);
  return settings;
}

void readOptions(profilerRegistry& registry, std::string_view options, bool canSeeThrown,
                 startUpSettings& settings) {
  captureExceptionsWhereMade(false);
  support::forEachPiece(options, ',', [&](std::string_view item) {
    readExceptionCapture(std::string(item), settings);
  });
  if (!canSeeThrown) {
    captureExceptionsWhereMade(true);
  }
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
}

}  // namespace agent
