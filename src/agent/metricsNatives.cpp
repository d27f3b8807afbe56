// Native methods of AgentMetrics: what the profiles have counted, as arrays of numbers and names.
#include <com_korvane_twutils_nativeagent_AgentMetrics.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/nativeMethod.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "exceptions/exceptionFigures.h"
#include "exceptions/redactionCount.h"
#include "instruments/costAccount.h"
#include "support/jniRef.h"

using namespace agent;

#define TW_METRIC(name) com_korvane_twutils_nativeagent_AgentMetrics_##name
#define TW_METRICS(method) Java_com_korvane_twutils_nativeagent_AgentMetrics_##method
#define TW_METRICS_NAME(method) "Java_com_korvane_twutils_nativeagent_AgentMetrics_" #method

namespace {

// What one native gives.
struct table {
  std::vector<jlong> figures;
  std::vector<const std::string*> classes;
  std::vector<jlong> rows;
};

template <typename Number>
jlong number(Number value) {
  return static_cast<jlong>(value);
}

support::localRef<jlongArray> newLongs(JNIEnv* jni, const std::vector<jlong>& numbers) {
  const auto count = static_cast<jsize>(numbers.size());
  support::localRef<jlongArray> array(jni, jni->NewLongArray(count));
  if (array) {
    jni->SetLongArrayRegion(array.get(), 0, count, numbers.data());
  }
  return array;
}

support::localRef<jobjectArray> newTexts(JNIEnv* jni,
                                         const std::vector<const std::string*>& texts) {
  const support::localRef<jclass> type(jni, jni->FindClass("java/lang/String"));
  const auto count = static_cast<jsize>(texts.size());
  support::localRef<jobjectArray> array(
      jni, type ? jni->NewObjectArray(count, type.get(), nullptr) : nullptr);
  for (jsize i = 0; i < count && array; ++i) {
    const support::localRef<jstring> text(
        jni, jni->NewStringUTF(texts[static_cast<std::size_t>(i)]->c_str()));
    if (!text) {
      return {};
    }
    jni->SetObjectArrayElement(array.get(), i, text.get());
  }
  return array;
}

// Null, with no exception left, when there is no memory for it.
jobjectArray arraysOf(JNIEnv* jni, const table& given) {
  const support::localRef<jlongArray> figures = newLongs(jni, given.figures);
  support::localRef<jobjectArray> classes;
  support::localRef<jlongArray> rows;
  support::localRef<jclass> type;
  if (figures) {
    classes = newTexts(jni, given.classes);
  }
  if (classes) {
    rows = newLongs(jni, given.rows);
  }
  if (rows) {
    type = support::localRef<jclass>(jni, jni->FindClass("java/lang/Object"));
  }
  jobjectArray all = type ? jni->NewObjectArray(3, type.get(), nullptr) : nullptr;
  if (all == nullptr) {
    jni->ExceptionClear();
    return nullptr;
  }
  jni->SetObjectArrayElement(all, TW_METRIC(FIGURES), figures.get());
  jni->SetObjectArrayElement(all, TW_METRIC(CLASSES), classes.get());
  jni->SetObjectArrayElement(all, TW_METRIC(ROWS), rows.get());
  return all;
}

template <typename Body>
jobjectArray nativeTable(const char* function, JNIEnv* jni, Body&& body) {
  jobjectArray result = nullptr;
  native(function, [&] {
    result = body([&](const table& given) { return arraysOf(jni, given); });
    return 1;
  });
  return result;
}

static_assert(TW_METRIC(BUCKETS) == blockTotals::kBuckets);
static_assert(TW_METRIC(KINDS) == static_cast<int>(lockKind::idle));
static_assert(TW_METRIC(KINDS) + 1 == contentionFigures::kKinds);
static_assert(TW_METRIC(THROWN_NUMBERS) == kSiteCounts);
static_assert(TW_METRIC(THROWN_CAUGHT) == static_cast<int>(siteCount::caught));
static_assert(TW_METRIC(THROWN_UNCAUGHT) == static_cast<int>(siteCount::uncaught));
static_assert(TW_METRIC(THROWN_UNKNOWN) == static_cast<int>(siteCount::unknown));
static_assert(TW_METRIC(THROWN_RECORDED) == static_cast<int>(siteCount::recorded));
static_assert(TW_METRIC(THROWN_RETHROWN) == static_cast<int>(siteCount::rethrown));
static_assert(TW_METRIC(THROWN_FILTERED) == static_cast<int>(siteCount::filtered));
static_assert(TW_METRIC(THROWN_BLACK_LISTED) == static_cast<int>(siteCount::blackListed));
static_assert(TW_METRIC(THROWN_OVER_RATE) == static_cast<int>(siteCount::overRate));
static_assert(TW_METRIC(THROWN_FAILED) == static_cast<int>(siteCount::failed));
static_assert(TW_METRIC(THROWN_CUT) == static_cast<int>(siteCount::cut));

// In the order of their indices.
std::vector<jlong> figuresOf(const contentionFigures& all) {
  std::vector<jlong> figures = {all.isRunning ? 1 : 0,           all.budgetPercent,
                                number(all.stuckThreads),        number(all.stuckLocksDropped),
                                number(all.deadlocks),           number(all.cost.ticks),
                                number(all.cost.ticksLeftOut),   number(all.cost.safepoints),
                                number(all.cost.safepointNanos), number(all.cost.handshakes),
                                number(all.cost.handshakeNanos), number(all.cost.processorNanos),
                                number(all.startsNotSeen),       number(all.blocksNotSampled)};
  for (std::size_t kind = 0; kind < TW_METRIC(KINDS); ++kind) {
    const contentionFigures::durations& ended = all.ended.at(kind);
    figures.push_back(number(all.blockedThreads.at(kind)));
    figures.push_back(number(ended.nanos));
    for (const std::uint64_t each : ended.buckets) {
      figures.push_back(number(each));
    }
  }
  return figures;
}

}  // namespace

JNIEXPORT jobjectArray JNICALL TW_METRICS(contention)(JNIEnv* jni, jclass /*cls*/) {
  return nativeTable(TW_METRICS_NAME(contention), jni, [&](auto&& give) {
    const contentionFigures all = contentionProfile::ofProcess().figures(jni);
    table result{figuresOf(all), {}, {}};
    for (const auto& [key, sums] : all.rows) {
      result.classes.push_back(&key.first);
      for (const jlong each : {number(key.second), number(sums.entries), number(sums.nanos)}) {
        result.rows.push_back(each);
      }
    }
    return give(result);
  });
}

JNIEXPORT jobjectArray JNICALL TW_METRICS(allocations)(JNIEnv* jni, jclass /*cls*/) {
  return nativeTable(TW_METRICS_NAME(allocations), jni, [&](auto&& give) {
    const allocationFigures all = allocationProfile::ofProcess().figures(jni);
    table result{{all.isRunning ? 1 : 0, all.intervalBytes, number(all.collections),
                  number(all.samples), number(all.lost), number(all.failed),
                  number(all.processorNanos), number(all.handlerNanos)},
                 {},
                 {}};
    for (const auto& [cls, sums] : all.rows) {
      result.classes.push_back(&cls);
      for (const jlong each : {number(sums.allocated.bytes), number(sums.allocated.samples),
                               number(sums.alive.bytes), number(sums.alive.samples)}) {
        result.rows.push_back(each);
      }
    }
    return give(result);
  });
}

JNIEXPORT jobjectArray JNICALL TW_METRICS(exceptions)(JNIEnv* jni, jclass /*cls*/) {
  return nativeTable(TW_METRICS_NAME(exceptions), jni, [&](auto&& give) {
    const siteCounts& counts = siteCounts::ofProcess();
    const exceptionFigures all = figuresOf(counts);
    table result{{counts.began() == 0 ? 0 : 1, number(redacted::hidden())}, {}, {}};
    for (const auto& [cls, totals] : all.rows) {
      result.classes.push_back(&cls);
      for (const std::uint64_t each : totals) {
        result.rows.push_back(number(each));
      }
    }
    return give(result);
  });
}

JNIEXPORT jlong JNICALL TW_METRICS(threadNanos)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return instruments::threadNanos();
}
