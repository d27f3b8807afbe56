// Native methods for the companion itself, beside those that start and stop the profilers:
// instances of whole classes are tagged, and what the agent has counted and kept is read. Java
// calls them on any thread.
#include <com_korvane_twutils_nativeagent_AgentCompanion.h>
#include <com_korvane_twutils_nativeagent_AgentCounters.h>
#include <com_korvane_twutils_nativeagent_AgentReports.h>
#include <com_korvane_twutils_nativeagent_PlacedRecordParser.h>
#include <com_korvane_twutils_nativeagent_RecordFacts.h>
#include <com_korvane_twutils_nativeagent_TWNativeAgentProfiling.h>
#include <jvmti.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/idle.h"
#include "agent/nativeMethod.h"
#include "agent/profilerRegistry.h"
#include "agent/reportOutcome.h"
#include "exceptions/captureMode.h"
#include "exceptions/exceptionCounts.h"
#include "exceptions/exceptionprofiler.h"
#include "exceptions/messageOrigin.h"
#include "exceptions/raisedInHandler.h"
#include "exceptions/recordPlaces.h"
#include "exceptions/siteCounts.h"
#include "exceptions/undeliveredRecords.h"
#include "memory/memoryprofiler.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"

using namespace agent;

namespace {

// Sets the first elements of an array of strings to copies of `texts`. False, with no exception
// left, when Java has no memory for them or the array is too short.
bool setTexts(JNIEnv* jni, jobjectArray array, std::initializer_list<const char*> texts) {
  jsize index = 0;
  for (const char* const each : texts) {
    const support::localRef<jstring> text(jni, jni->NewStringUTF(each));
    if (text) {
      jni->SetObjectArrayElement(array, index++, text.get());
    }
    if (!text || jni->ExceptionCheck() != JNI_FALSE) {
      jni->ExceptionClear();
      return false;
    }
  }
  return true;
}

// Sets the element after those texts. False as with them.
bool setPlaces(JNIEnv* jni, jobjectArray array, const std::vector<jint>& places) {
  constexpr jsize kIndex = 7;
  support::localRef<jintArray> numbers;
  if (!places.empty()) {
    numbers = support::newNumbers(jni, places);
  }
  if (jni->ExceptionCheck() == JNI_FALSE) {
    jni->SetObjectArrayElement(array, kIndex, numbers.get());
  }
  if (jni->ExceptionCheck() == JNI_FALSE) {
    return true;
  }
  jni->ExceptionClear();
  return false;
}

}  // namespace

// --- Native methods of TWNativeAgentProfiling, in addition to those of natives.cpp --------------

JNIEXPORT jint JNICALL TW_NATIVE(tagInstances)(JNIEnv* jni, jclass /*cls*/, jobjectArray classes) {
  wakeIdle(jni);
  return native(TW_NATIVE_NAME(tagInstances), [&] {
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (!memory || classes == nullptr) {
      return 0;
    }
    const auto count = static_cast<std::size_t>(jni->GetArrayLength(classes));
    std::vector<instanceTally> tallies(count);
    return memory->tagInstances(jni, classes, tallies);
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(tagInstancesWithin)(JNIEnv* jni, jclass /*cls*/,
                                                     jobjectArray classes, jintArray room) {
  wakeIdle(jni);
  return native(TW_NATIVE_NAME(tagInstancesWithin), [&] {
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (!memory || classes == nullptr || room == nullptr) {
      return 0;
    }
    const auto count = static_cast<std::size_t>(jni->GetArrayLength(classes));
    std::vector<jint> rooms = support::numbersOf(jni, room, count);
    std::vector<instanceTally> tallies;
    tallies.reserve(count);
    for (const jint each : rooms) {
      tallies.push_back({.room = each});
    }
    const jint tagged = memory->tagInstances(jni, classes, tallies);
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
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (!memory || classes == nullptr || counts == nullptr) {
      return 0;
    }
    const auto count = static_cast<std::size_t>(jni->GetArrayLength(classes));
    std::vector<instanceTally> tallies(count);
    if (!memory->countTaggedInstances(jni, classes, tallies)) {
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

// --- Native methods of AgentCompanion --------------------------------------------------------

#define TW_COMPANION(method) Java_com_korvane_twutils_nativeagent_AgentCompanion_##method

JNIEXPORT jboolean JNICALL TW_COMPANION(isQuiet)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return twAprLib::isQuiet() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL TW_COMPANION(wake)(JNIEnv* jni, jclass /*cls*/) {
  wakeIdle(jni);
}

JNIEXPORT jobjectArray JNICALL TW_COMPANION(loadedClasses)(JNIEnv* jni, jclass /*cls*/) {
  jobjectArray array = nullptr;
  native("Java_com_korvane_twutils_nativeagent_AgentCompanion_loadedClasses", [&] {
    jvmtiEnv* const jvmti = getRegistry()->environment();
    jint count = 0;
    support::jvmtiPtr<jclass> classes(jvmti);
    if (jvmti != nullptr) {
      classes.fill([&](jclass** out) { return jvmti->GetLoadedClasses(&count, out); });
    }
    if (!classes) {
      return 0;
    }
    const support::localRef<jclass> type(jni, jni->FindClass("java/lang/Class"));
    array = type ? jni->NewObjectArray(count, type.get(), nullptr) : nullptr;
    for (jint i = 0; i < count; ++i) {
      if (array != nullptr) {
        jni->SetObjectArrayElement(array, i, classes[i]);
      }
      jni->DeleteLocalRef(classes[i]);
    }
    return 1;
  });
  return array;
}

// --- Native methods of AgentCounters ---------------------------------------------------------

#define TW_COUNTERS(method) Java_com_korvane_twutils_nativeagent_AgentCounters_##method

JNIEXPORT jlong JNICALL TW_COUNTERS(exceptions)(JNIEnv* /*jni*/, jclass /*cls*/, jint which) {
  if (which < 0 || static_cast<std::size_t>(which) >= kExceptionCounts) {
    return 0;
  }
  return static_cast<jlong>(exceptionCounts::ofProcess().get(static_cast<exceptionCount>(which)));
}

JNIEXPORT jstring JNICALL TW_COUNTERS(exceptionMode)(JNIEnv* jni, jclass /*cls*/) {
  return jni->NewStringUTF(exceptionMode());
}

JNIEXPORT jstring JNICALL TW_COUNTERS(exceptionProblem)(JNIEnv* jni, jclass /*cls*/) {
  std::string problem;
  native("Java_com_korvane_twutils_nativeagent_AgentCounters_exceptionProblem", [&] {
    problem = exceptionProfiler::madeProblem();
    return 1;
  });
  return problem.empty() ? nullptr : jni->NewStringUTF(problem.c_str());
}

JNIEXPORT jboolean JNICALL TW_COUNTERS(isRecordCut)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return exceptionProfiler::isRecordCut() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL TW_COUNTERS(sinkBegins)(JNIEnv* /*jni*/, jclass /*cls*/, jboolean now) {
  if (now == JNI_TRUE) {
    raisedInHandler::noteSink();
  }
}

// Time, thread, class, record, whether it is cut, whether the thread was a virtual one, the facts,
// and as the last element the places, or null.
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
    const std::string facts = std::to_string(record->facts);
    if (!setTexts(jni, parts,
                  {time.c_str(), record->thread.c_str(), record->exceptionClass.c_str(),
                   record->text.c_str(), record->isCut ? "cut" : "",
                   record->isVirtual ? "virtual" : "", facts.c_str()}) ||
        !setPlaces(jni, parts, record->places)) {
      undeliveredRecords::ofProcess().putBack(std::move(*record));
      return 0;
    }
    exceptionCounts::ofProcess().deliverLate();
    if (record->site != nullptr) {
      record->site->recordLate();
    }
    return 1;
  });
  return taken == 1 ? JNI_TRUE : JNI_FALSE;
}

// --- What Java reads records with ---------------------------------------------------------

#define TW_PLACE(name) com_korvane_twutils_nativeagent_PlacedRecordParser_##name
#define TW_STATE(name) static_cast<record::valueState>(TW_PLACE(STATE_##name))
#define TW_FACT(name) com_korvane_twutils_nativeagent_RecordFacts_##name

static_assert(TW_PLACE(OFFSET_BITS) == record::kOffsetBits);
static_assert(TW_PLACE(STATE_BITS) == record::kStateBits);
static_assert(TW_PLACE(STATIC) == record::kIsStatic);
static_assert(TW_PLACE(OPENS_OBJECT) == record::kOpensObject);
static_assert(TW_STATE(NULL) == record::valueState::null);
static_assert(TW_STATE(NOT_READ) == record::valueState::notRead);
static_assert(TW_STATE(NOT_AVAILABLE) == record::valueState::notAvailable);
static_assert(TW_STATE(REDACTED) == record::valueState::redacted);
static_assert(TW_STATE(UNREADABLE) == record::valueState::unreadable);
static_assert(TW_FACT(CAUGHT_KNOWN) == record::kIsCaughtKnown);
static_assert(TW_FACT(CAUGHT) == record::kIsCaught);
static_assert(TW_FACT(CUT) == record::kIsCut);
static_assert(TW_FACT(VIRTUAL) == record::kIsVirtual);
static_assert(TW_FACT(MADE) == record::kIsMade);
static_assert(TW_FACT(OBJECT_DEPTH_SHIFT) == record::kObjectDepthShift);
static_assert(TW_FACT(OBJECT_TYPE_SHIFT) == record::kObjectTypeShift);
static_assert(TW_FACT(STACK_DEPTH_SHIFT) == record::kStackDepthShift);

// --- Native methods of AgentReports ----------------------------------------------------------

static_assert(com_korvane_twutils_nativeagent_AgentReports_LOCKS == kMutexLockProfiler);
static_assert(com_korvane_twutils_nativeagent_AgentReports_MEMORY == kMemoryProfiler);

// Path, problem, bytes, and the owner lookups made and skipped, which are empty without a limit.
JNIEXPORT jboolean JNICALL Java_com_korvane_twutils_nativeagent_AgentReports_last(
    JNIEnv* jni, jclass /*cls*/, jint kind, jobjectArray parts) {
  constexpr const char* kFunction = "Java_com_korvane_twutils_nativeagent_AgentReports_last";
  const jint given = native(kFunction, [&] {
    const std::optional<reportOutcome> last = reportOutcomes::ofProcess().last(kind);
    if (parts == nullptr || !last) {
      return 0;
    }
    const auto& lookups = last->ownerLookups;
    const std::string bytes = std::to_string(last->bytes);
    const std::string made = lookups ? std::to_string(lookups->made) : std::string();
    const std::string skipped = lookups ? std::to_string(lookups->skipped) : std::string();
    // The system's reasons are in the encoding of its locale.
    std::string problem = last->problem;
    std::replace_if(
        problem.begin(), problem.end(), [](char c) { return static_cast<signed char>(c) < 0; },
        '?');
    return setTexts(
               jni, parts,
               {last->path.c_str(), problem.c_str(), bytes.c_str(), made.c_str(), skipped.c_str()})
               ? 1
               : 0;
  });
  return given == 1 ? JNI_TRUE : JNI_FALSE;
}
