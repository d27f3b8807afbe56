// The native methods: what they call in which order, their log lines, states and results.
#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <set>
#include <utility>

#include "lockTest.h"
#include "memory/memoryprofiler.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method
#define TW_NATIVE_NAME(method) \
  "Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_" #method

using agent::getMemoryProfiler;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

// Arguments of startMemoryLeaksProfileSession.
struct memorySession {
  jint id = 7;
  std::array<const char*, 5> texts = {"leaks", "a.B", "a", "c.D", "c"};  // null: a null String
  jlong duration = 60;
  jint topClasses = 3;
};

class natives : public test::lockTest {
 protected:
  jint startMemory(const memorySession& s = {}) {
    return vm.native([&](JNIEnv* jni) {
      const auto text = [&](std::size_t i) -> jstring {
        return s.texts[i] == nullptr ? nullptr : vm.ref(vm.makeString(s.texts[i]));
      };
      return TW_NATIVE(startMemoryLeaksProfileSession)(jni, nullptr, JNI_TRUE, s.duration, s.id,
                                                       text(0), s.topClasses, text(1), text(2),
                                                       text(3), text(4));
    });
  }

  jint stopMemory(jlong id = 7) {
    return vm.native([&](JNIEnv* jni) {
      return TW_NATIVE(stopMemoryLeaksProfileSession)(jni, nullptr, id,
                                                      vm.ref(vm.makeString(memoryPath())));
    });
  }

  void forceCollection() {
    vm.native([](JNIEnv* jni) { TW_NATIVE(forceGarbageCollection)(jni, nullptr); });
  }

  void tag(fake::object* object) {
    vm.native([&](JNIEnv* jni) { TW_NATIVE(setObjectTag)(jni, nullptr, vm.ref(object)); });
  }

  jint extendedMatrices(jstring text) {
    return vm.native(
        [&](JNIEnv* jni) { return TW_NATIVE(getExtendedMatricesFromNative)(jni, nullptr, text); });
  }

  // startMutexLockProfilingSession with any two Strings.
  jint startProfilingWith(jstring name, jstring path, jlong id = 42, jlong duration = 60) {
    return vm.native([&](JNIEnv* jni) {
      return TW_NATIVE(startMutexLockProfilingSession)(jni, nullptr, id, name, duration, 1, 2, 3, 4,
                                                       5, 6, path);
    });
  }

  std::string memoryPath() const { return folder() / "memory.json"; }

  // The settings that the lock profiler holds.

  // Collects so often that the next tag is `generation`.
  void reachGeneration(unsigned generation) {
    while (getMemoryProfiler()->gcCounter() < generation) {
      forceCollection();
    }
  }
};

// --- Trace lines -----------------------------------------------------------------------------

struct traced {
  const char* method;
  const char* message;
};
constexpr std::array<traced, 8> kTraced = {{
    {"startMutexLockProfilingSession", "Initializing Lock Profiling Session Id -> "},
    {"startMutexLockSummarySession", "Initializing Lock Summary Session Id -> "},
    {"startMutexLockDetailSession", "Initializing Lock Detail Session Id -> "},
    {"stopMutexLockSummarySession", "Stopping Lock Summary Session Id -> "},
    {"stopMutexLockDetailSession", "Stopping Lock Detail Session Id -> "},
    {"stopMutexLockProfilingSession", "Stopping Lock Profiling Session Id -> "},
    {"startMemoryLeaksProfileSession", "******Starting memory Profiling Session Id -> "},
    {"stopMemoryLeaksProfileSession", "******Stopping memory Profiling Session Id -> "},
}};

class traceLines : public natives {
 protected:
  // Every method that has a Trace line, with this session id.
  void callAll(jlong id) {
    startProfilingWith(nullptr, nullptr, id);
    startSummary(id);
    startDetail(id);
    stopSummary(id);
    stopDetail(id);
    stopProfiling(id);
    startMemory({.id = static_cast<jint>(id)});
    stopMemory(id);
  }

  void expectTraces(const std::string& id, const std::string& intId) {
    std::size_t next = 0;
    for (const test::logRecord& each : log()) {
      if (each.function.find("TWNativeAgentProfiling") == std::string::npos) {
        continue;
      }
      ASSERT_LT(next, kTraced.size());
      const traced& expected = kTraced[next++];
      const bool takesInt = std::string(expected.method) == "startMemoryLeaksProfileSession";
      EXPECT_EQ(each.function,
                std::string("Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_") +
                    expected.method);
      EXPECT_EQ(each.message, expected.message + (takesInt ? intId : id));
      EXPECT_EQ(each.severity, "Trace");
      EXPECT_EQ(each.sourceFile, "natives.cpp");
    }
    EXPECT_EQ(next, kTraced.size());
  }
};

TEST_F(traceLines, nameEveryMethodAndItsSession) {
  load("logLevel=3");
  callAll(42);
  expectTraces("42", "42");
}

TEST_F(traceLines, showTheWholeSessionId) {
  load("logLevel=3");
  callAll(-9007199254740993);
  expectTraces("-9007199254740993", "-1");
}

TEST_F(traceLines, comeWithoutAnyProfilerToo) {
  load("logLevel=3,features=none");
  callAll(5);
  expectTraces("5", "5");
}

TEST_F(traceLines, needLevelThree) {
  load("logLevel=2");
  callAll(42);
  EXPECT_THAT(messages("Trace"), IsEmpty());
}

// Whatever the method does comes after its line.
TEST_F(traceLines, comeFirst) {
  load("logLevel=3,features=none");
  std::vector<std::size_t> linesBefore;
  for (const char* function : {"GetStringUTFChars", "SetEventCallbacks"}) {
    vm.on(function, [&] { linesBefore.push_back(messages("Trace").size()); });
  }
  startProfiling();  // two texts and a switch
  EXPECT_THAT(linesBefore, ElementsAre(2, 2, 2));
  linesBefore.clear();
  startMemory();  // five texts and a switch
  EXPECT_THAT(linesBefore, ElementsAre(3, 3, 3, 3, 3, 3));
  linesBefore.clear();
  stopProfiling();
  EXPECT_THAT(linesBefore, ElementsAre(4));
}

TEST_F(natives, theOthersHaveNoLine) {
  load("logLevel=4");
  const std::size_t before = log().size();
  forceCollection();
  tag(vm.makeObject("com.example.Session"));
  extendedMatrices(vm.ref(vm.makeString("x")));
  EXPECT_EQ(log().size(), before);
}

// --- startMutexLockProfilingSession ----------------------------------------------------------

TEST_F(natives, startProfilingTakesItsArguments) {
  load();
  EXPECT_EQ(startProfilingWith(vm.ref(vm.makeString("checkout")),
                               vm.ref(vm.makeString("/tmp/stacks")), 42, 3600),
            1);
  EXPECT_EQ(config().sessionId, 42);
  EXPECT_EQ(config().sessionName, "checkout");
  EXPECT_EQ(config().duration, 3600);
  EXPECT_EQ(config().topLockCount, 1);
  EXPECT_EQ(config().maxLockCount.value(), 2);
  EXPECT_EQ(config().maxThreadPerLockCount, 3);
  EXPECT_EQ(config().maxThreadCount, 4);
  EXPECT_EQ(config().maxThreadCountCopy.value(), 4);
  EXPECT_EQ(config().maxStackTraceCount.value(), 5);
  EXPECT_EQ(config().maxStackTraceCountPerThread, 6);
  EXPECT_EQ(config().stackFilePath, "/tmp/stacks");
  EXPECT_EQ(config().graphSize, 60);
}

TEST_F(natives, theGraphHasASlotForEachWholeMinute) {
  load();
  const std::vector<std::pair<jlong, std::int32_t>> sizes = {
      {0, 0},
      {59, 0},
      {60, 1},
      {125, 2},
      {3600, 60},
      {-59, 0},
      {-61, -1},
      // The low 32 bits count, signed.
      {jlong{1} << 32, 0},
      {(jlong{1} << 32) + 120, 2},
      {jlong{0x80000000}, std::numeric_limits<std::int32_t>::min() / 60},
      {std::numeric_limits<jlong>::max(), 0}};
  for (const auto& [duration, slots] : sizes) {
    startProfilingWith(nullptr, nullptr, 42, duration);
    EXPECT_EQ(config().graphSize, slots) << duration;
    EXPECT_EQ(config().duration, duration);
  }
}

TEST_F(natives, startProfilingReadsTheStringsThenInstallsTheHandlers) {
  load();
  vm.setLogging(true);
  EXPECT_EQ(startProfiling(), 1);
  std::vector<std::string> calls = vm.callLog();
  std::erase(calls, "ReleaseStringUTFChars");
  EXPECT_THAT(calls, ElementsAre("GetStringUTFChars", "GetStringUTFChars", "SetEventCallbacks"));
  EXPECT_EQ(locks()->state(), 2);
  EXPECT_TRUE(locks()->enabled());
  EXPECT_THAT(vm.eventModes(), IsEmpty());  // no event is enabled yet
}

TEST_F(natives, startProfilingHandsTheSettingsOverInStateTwo) {
  load("logLevel=3");
  vm.on("SetEventCallbacks", [&] { EXPECT_EQ(locks()->store()->config, nullptr); });
  startProfiling();
  EXPECT_NE(locks()->store()->config, nullptr);
  EXPECT_THAT(messages("Trace"), Contains(StartsWith("*********Session Details :")));
}

TEST_F(natives, nullStringsOfTheLockSessionAreEmpty) {
  load();
  EXPECT_EQ(startProfilingWith(nullptr, nullptr), 1);
  EXPECT_EQ(config().sessionName, "");
  EXPECT_EQ(config().stackFilePath, "");
}

TEST_F(natives, stringsThatTheVmHasNoMemoryForAreEmpty) {
  load();
  vm.fail("GetStringUTFChars", {.throwing = true});
  EXPECT_EQ(startProfilingWith(vm.ref(vm.makeString("a")), vm.ref(vm.makeString("b"))), 1);
  EXPECT_EQ(config().sessionName, "");
  EXPECT_EQ(config().stackFilePath, "");
  EXPECT_EQ(vm.pendingException(), nullptr);
}

TEST_F(natives, hostileSessionNamesAreTakenByteForByte) {
  load("logLevel=4");
  const std::string hostile = "a\"b\\\t\n%s%n\x01\x7f\xc3\xa4\xed\xa0\xbd\xed\xb8\x80";
  startProfilingWith(vm.ref(vm.makeString(hostile)), nullptr);
  EXPECT_EQ(config().sessionName, hostile);
  EXPECT_THAT(messages("Trace"), Contains(HasSubstr(hostile)));
}

// --- Summary and detail sessions -------------------------------------------------------------

TEST_F(natives, theStatesOfASession) {
  load();
  EXPECT_EQ(locks()->state(), 1);
  startProfiling();
  EXPECT_EQ(locks()->state(), 2);
  startSummary();
  EXPECT_EQ(locks()->state(), 3);
  startDetail();
  EXPECT_EQ(locks()->state(), 4);
  stopSummary();
  EXPECT_EQ(locks()->state(), 2);
  stopDetail();
  EXPECT_EQ(locks()->state(), 1);
}

TEST_F(natives, summaryBeforeProfilingEnablesNoEventButSetsStateThree) {
  load();
  startSummary();
  EXPECT_EQ(locks()->state(), 3);
  EXPECT_THAT(vm.eventModes(), IsEmpty());
}

TEST_F(natives, detailBeforeProfilingEnablesNoEventButSetsStateFour) {
  load();
  startDetail();
  EXPECT_EQ(locks()->state(), 4);
  EXPECT_THAT(vm.eventModes(), IsEmpty());
}

TEST_F(natives, summaryEnablesTheEventsBeforeItsState) {
  load();
  startProfiling();
  std::vector<std::int32_t> states;
  vm.on("SetEventNotificationMode", [&] { states.push_back(locks()->state()); });
  startSummary();
  EXPECT_THAT(states, ElementsAre(2, 2, 2, 2, 2));
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
}

TEST_F(natives, detailRanksBeforeItsStateAndKeepsTheEvents) {
  load();
  beginSummary();
  fake::object* const lock = vm.makeObject("com.example.Lock");
  contend(vm.makeThread("worker"), lock);
  vm.resetCalls();
  startDetail();
  EXPECT_EQ(vm.calls("SetEventNotificationMode"), 0U);  // acts in state 2 only
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  EXPECT_TRUE(isSelected(lock));
  EXPECT_EQ(locks()->state(), 4);
}

TEST_F(natives, detailWithoutASummaryRanksThenEnablesThenSetsItsState) {
  load("logLevel=4");
  startProfiling();
  std::vector<std::int32_t> states;
  std::size_t debugLines = 0;
  vm.on("SetEventNotificationMode", [&] {
    states.push_back(locks()->state());
    debugLines = messages("Debug").size();
  });
  startDetail();
  EXPECT_THAT(states, ElementsAre(2, 2, 2, 2, 2));
  EXPECT_GE(debugLines, 1U) << "nothing was ranked before the events";
  EXPECT_EQ(locks()->state(), 4);
}

TEST_F(natives, stoppingASummaryOrDetailSessionLeavesTheEventsOn) {
  load();
  beginSummary();
  stopSummary();
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  startDetail();
  stopDetail();
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
}

TEST_F(natives, stoppingASummaryInStateTwoDisablesTheEvents) {
  load();
  beginSummary();
  stopSummary();
  stopSummary();
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  EXPECT_EQ(locks()->state(), 2);
}

TEST_F(natives, stoppingADetailSessionInStateTwoDisablesTheEvents) {
  load();
  beginSummary();
  stopSummary();
  stopDetail();
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  EXPECT_EQ(locks()->state(), 1);
}

TEST_F(natives, afterADetailSessionVmInitSaysThatTheProfilerIsStopped) {
  load("logLevel=1");
  beginDetail({vm.makeObject("com.example.Lock")});
  stopDetail();
  EXPECT_TRUE(vm.vmInit(vm.currentThread()));
  EXPECT_THAT(messages("Error"), ElementsAre("profiler is already stopped"));
}

// --- stopMutexLockProfilingSession -----------------------------------------------------------

TEST_F(natives, stopProfilingTakesTheHandlersAwayBeforeItReports) {
  load();
  beginSummary();
  bool hadReport = true;
  vm.on("SetEventCallbacks", [&] { hadReport = std::filesystem::exists(reportPath()); });
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_FALSE(hadReport);
  EXPECT_TRUE(std::filesystem::exists(reportPath()));
  EXPECT_FALSE(locks()->enabled());
  EXPECT_EQ(vm.callbacks().MonitorContendedEnter, nullptr);
  EXPECT_EQ(locks()->state(), 3);
}

TEST_F(natives, stopProfilingGivesTheReportsResult) {
  load("logLevel=1");
  EXPECT_EQ(stopProfiling(), 0);  // no session was configured
  EXPECT_EQ(messages("Error").size(), 1U);
  startProfiling();
  EXPECT_EQ(stopProfiling(), 1);
}

TEST_F(natives, aNullReportPathGivesZeroAndAnErrorLine) {
  load("logLevel=1");
  startProfiling();
  const jint result = vm.native([](JNIEnv* jni) {
    return TW_NATIVE(stopMutexLockProfilingSession)(jni, nullptr, 42, nullptr);
  });
  EXPECT_EQ(result, 0);
  EXPECT_THAT(messages("Error"), SizeIs(1));
  EXPECT_FALSE(locks()->enabled());
}

// --- Memory sessions -------------------------------------------------------------------------

TEST_F(natives, startMemoryLogsItsSettings) {
  load("logLevel=3");
  EXPECT_EQ(startMemory({.id = -5, .duration = 99, .topClasses = 12}), 1);
  EXPECT_THAT(messages("Trace"),
              Contains("*************Enabling Memory Leak Profiler features:Memory Leak Enable:1|"
                       "Duration :99|Session ID :-5|SessionName :leaks|Number of top N Class :12"));
}

TEST_F(natives, startMemoryReadsThenSwitchesThenEnables) {
  load();
  vm.setLogging(true);
  EXPECT_EQ(startMemory(), 1);
  std::vector<std::string> calls = vm.callLog();
  std::erase(calls, "ReleaseStringUTFChars");
  EXPECT_THAT(calls, ElementsAre("GetStringUTFChars", "GetStringUTFChars", "GetStringUTFChars",
                                 "GetStringUTFChars", "GetStringUTFChars", "SetEventCallbacks",
                                 "SetEventNotificationMode"));
  EXPECT_EQ(getMemoryProfiler()->state(), 5);
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_GARBAGE_COLLECTION_FINISH));
}

TEST_F(natives, startMemoryTakesItsSettingsLast) {
  load("logLevel=3");
  std::vector<std::string> linesBefore;
  vm.on("SetEventNotificationMode", [&] { linesBefore = messages("Trace"); });
  startMemory();
  EXPECT_THAT(linesBefore, Each(Not(HasSubstr("Enabling Memory Leak Profiler"))));
  EXPECT_THAT(messages("Trace"), Contains(HasSubstr("Enabling Memory Leak Profiler")));
}

TEST_F(natives, nullStringsOfTheMemorySessionAreEmpty) {
  load("logLevel=3");
  EXPECT_EQ(startMemory({.texts = {}}), 1);
  EXPECT_THAT(messages("Trace"), Contains(HasSubstr("|SessionName :|")));
  EXPECT_EQ(stopMemory(), 1);
}

TEST_F(natives, startMemoryPutsARunningLockSessionIntoStateTwo) {
  load();
  beginDetail({vm.makeObject("com.example.Lock")});
  ASSERT_EQ(locks()->state(), 4);
  startMemory();
  EXPECT_EQ(locks()->state(), 2);
  EXPECT_NE(vm.callbacks().MonitorContendedEnter, nullptr);
}

TEST_F(natives, stopMemorySwitchesOffThenScans) {
  load();
  startMemory();
  vm.setLogging(true);
  EXPECT_EQ(stopMemory(), 1);
  const std::vector<std::string> calls = vm.callLog();
  ASSERT_GE(calls.size(), 3U);
  EXPECT_EQ(calls[0], "SetEventCallbacks");
  EXPECT_EQ(calls[1], "SetEventNotificationMode");
  EXPECT_EQ(calls[2], "IterateThroughHeap");
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_GARBAGE_COLLECTION_FINISH));
  EXPECT_EQ(vm.callbacks().GarbageCollectionFinish, nullptr);
  EXPECT_EQ(getMemoryProfiler()->state(), 5);
  EXPECT_TRUE(std::filesystem::exists(memoryPath()));
}

TEST_F(natives, stopMemoryGivesTheScansResult) {
  load();
  startMemory();
  const jint result = vm.native([&](JNIEnv* jni) {
    return TW_NATIVE(stopMemoryLeaksProfileSession)(jni, nullptr, 7, nullptr);
  });
  EXPECT_EQ(result, 0);
}

// --- forceGarbageCollection ------------------------------------------------------------------

TEST_F(natives, forceGarbageCollectionCallsTheVm) {
  load("features=none");
  forceCollection();
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 1U);
}

TEST_F(natives, forceGarbageCollectionNeedsAnEnvironment) {
  forceCollection();
  load();
  unload();
  forceCollection();
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 0U);
}

TEST_F(natives, forceGarbageCollectionIgnoresAFailure) {
  load();
  vm.fail("ForceGarbageCollection");
  forceCollection();
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 1U);
}

// --- setObjectTag ----------------------------------------------------------------------------

class objectTags : public natives {
 protected:
  void SetUp() override {
    load();
    startMemory();
    object_ = vm.makeObject("com.example.Session");
  }
  fake::object* object_ = nullptr;
};

TEST_F(objectTags, generationZeroTakesTheTagAway) {
  object_->tag = 99;
  tag(object_);
  EXPECT_EQ(object_->tag, 0);
  EXPECT_EQ(vm.calls("GetTag"), 0U);
  EXPECT_EQ(vm.calls("DeleteGlobalRef"), 0U);
  EXPECT_EQ(vm.calls("SetTag"), 1U);
}

TEST_F(objectTags, areTheGeneration) {
  reachGeneration(3);
  tag(object_);
  EXPECT_EQ(object_->tag, 3);
}

TEST_F(objectTags, taggingTwiceKeepsTheLastTag) {
  for (unsigned generation = 1; generation <= 5; ++generation) {
    reachGeneration(generation);
    tag(object_);
    EXPECT_EQ(object_->tag, generation);
  }
  EXPECT_EQ(vm.calls("DeleteGlobalRef"), 0U);
}

TEST_F(objectTags, theOldTagIsReadBeforeTheNewOneIsSet) {
  reachGeneration(1);
  vm.setLogging(true);
  tag(object_);
  EXPECT_THAT(vm.callLog(), ElementsAre("GetTag", "SetTag"));
}

TEST_F(objectTags, anOldTagOf32BitsIsNeverReleased) {
  reachGeneration(1);
  for (const jlong old : {jlong{1}, jlong{6}, jlong{0x7FFFFFFF}, jlong{-1}, jlong{-2147483648}}) {
    object_->tag = old;
    tag(object_);
    EXPECT_EQ(object_->tag, 1) << old;
  }
  EXPECT_EQ(vm.calls("DeleteGlobalRef"), 0U);
}

TEST_F(objectTags, anOldTagBeyond32BitsIsReleasedAsAGlobalReference) {
  reachGeneration(2);
  jobject const reference = vm.env()->NewGlobalRef(vm.ref(vm.makeObject("com.example.Held")));
  object_->tag = static_cast<jlong>(reinterpret_cast<std::intptr_t>(reference));
  tag(object_);
  EXPECT_EQ(vm.calls("DeleteGlobalRef"), 1U);
  EXPECT_EQ(vm.globalReferences(), 0U);
  EXPECT_EQ(object_->tag, 2);
}

TEST_F(objectTags, anOldTagThatCannotBeReadIsNotReleased) {
  reachGeneration(1);
  vm.fail("GetTag");
  tag(object_);
  EXPECT_EQ(vm.calls("DeleteGlobalRef"), 0U);
  EXPECT_EQ(object_->tag, 1);
}

TEST_F(objectTags, aTagThatCannotBeSetIsLost) {
  reachGeneration(1);
  vm.fail("SetTag", {.times = 1});
  tag(object_);
  EXPECT_EQ(object_->tag, 0);
  tag(object_);
  EXPECT_EQ(object_->tag, 1);
}

TEST_F(objectTags, ofANullObjectAreNotSet) {
  reachGeneration(1);
  tag(nullptr);
  EXPECT_EQ(vm.calls("SetTag"), 0U);
}

TEST_F(natives, withoutTheMemoryProfilerNothingIsTagged) {
  load("features=mutexprofiling_exceptionprofiling");
  tag(vm.makeObject("com.example.Session"));
  EXPECT_EQ(vm.calls("SetTag"), 0U);
}

TEST_F(natives, beforeALoadNothingIsTagged) {
  tag(vm.makeObject("com.example.Session"));
  EXPECT_THAT(vm.callNames(), IsEmpty());
}

// --- getExtendedMatricesFromNative -----------------------------------------------------------

TEST_F(natives, getExtendedMatricesAlwaysGivesZero) {
  load();
  EXPECT_EQ(extendedMatrices(nullptr), 0);
  EXPECT_EQ(vm.calls("GetStringUTFChars"), 0U);
  for (const char* text : {"", "x", "a\xc3\xa4\xed\xa0\xbd"}) {
    EXPECT_EQ(extendedMatrices(vm.ref(vm.makeString(text))), 0) << text;
  }
  EXPECT_EQ(vm.calls("GetStringUTFChars"), 3U);
  EXPECT_EQ(vm.calls("ReleaseStringUTFChars"), 3U);
}

TEST_F(natives, getExtendedMatricesNeedsNoAgent) {
  EXPECT_EQ(extendedMatrices(vm.ref(vm.makeString("x"))), 0);
}

TEST_F(natives, getExtendedMatricesSurvivesAStringWithoutCharacters) {
  load();
  vm.fail("GetStringUTFChars", {.throwing = true});
  EXPECT_EQ(extendedMatrices(vm.ref(vm.makeString("x"))), 0);
  EXPECT_EQ(vm.calls("ReleaseStringUTFChars"), 0U);
}

// --- Missing profilers -----------------------------------------------------------------------

TEST_F(natives, withoutTheirProfilerSessionMethodsGiveZero) {
  load("logLevel=1,features=none");
  EXPECT_EQ(startProfiling(), 0);
  startSummary();
  startDetail();
  stopSummary();
  stopDetail();
  EXPECT_EQ(stopProfiling(), 0);
  EXPECT_EQ(startMemory(), 0);
  EXPECT_EQ(stopMemory(), 0);
  EXPECT_THAT(vm.eventModes(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(reportPath()));
  EXPECT_FALSE(std::filesystem::exists(memoryPath()));
  EXPECT_THAT(logFiles(), IsEmpty());  // a missing profiler is no error
}

TEST_F(natives, theSwitchRunsWithoutTheProfilerToo) {
  load("features=exceptionprofiling");
  vm.resetCalls();
  startProfiling();
  stopProfiling();
  startMemory();
  EXPECT_EQ(vm.calls("SetEventCallbacks"), 3U);
}

TEST_F(natives, withoutALoadSessionMethodsGiveZero) {
  EXPECT_EQ(startProfiling(), 0);
  startSummary();
  startDetail();
  stopSummary();
  stopDetail();
  EXPECT_EQ(stopProfiling(), 0);
  EXPECT_EQ(startMemory(), 0);
  EXPECT_EQ(stopMemory(), 0);
  EXPECT_EQ(vm.calls("SetEventCallbacks"), 0U);
}

TEST_F(natives, afterAnUnloadSessionMethodsGiveZero) {
  load();
  unload();
  vm.resetCalls();
  EXPECT_EQ(startProfiling(), 0);
  EXPECT_EQ(stopProfiling(), 0);
  EXPECT_EQ(startMemory(), 0);
  EXPECT_EQ(stopMemory(), 0);
  EXPECT_EQ(vm.calls("SetEventCallbacks"), 0U);
}

// --- Any order, any failure ------------------------------------------------------------------

class wholeSessions : public natives {
 protected:
  // Every native method at least once, with events in between. Both sessions end with a report.
  void run() {
    fake::object* const lock = vm.makeObject(lockClass_);
    startResults_ = {startProfiling(), startMemory()};
    startSummary();
    contend(vm.makeThread("worker"), lock, 1000);
    startDetail();
    contend(vm.makeThread("worker"), lock, 1000);
    forceCollection();
    tag(lock);
    forceCollection();
    extendedMatrices(vm.ref(vm.makeString("x")));
    stopDetail();
    stopSummary();
    stopResults_ = {stopProfiling(), stopMemory()};
  }
  // contend() expects its events, which a refused switch leaves out.
  void contend(fake::javaThread* thread, fake::object* lock, jlong blocked) {
    vm.contendedEnter(thread, lock);
    vm.advance(blocked);
    vm.contendedEntered(thread, lock);
  }

  std::pair<jint, jint> startResults_, stopResults_;

 private:
  void SetUp() override { lockClass_ = vm.makeClass("com.example.Lock"); }
  fake::javaClass* lockClass_ = nullptr;
};

// Each function fails in turn, with an exception too where it may throw: the fixture sees to it
// that nothing stays held or pending. The next session is as good as the first.
TEST_F(wholeSessions, surviveEveryFailingCall) {
  load("logLevel=4");
  run();
  std::set<std::string> functions = vm.callNames();
  // Those that give something back: when they fail, what is held is the VM's own doing.
  for (const char* freeing :
       {"Deallocate", "DeleteLocalRef", "ReleaseStringUTFChars", "DeleteWeakGlobalRef",
        "DeleteGlobalRef", "PopLocalFrame", "GetEnv", "AddCapabilities", "ExceptionClear"}) {
    functions.erase(freeing);
  }
  ASSERT_GT(functions.size(), 10U);
  const std::set<std::string> throwers = {"CallObjectMethod", "GetMethodID", "GetStringUTFChars",
                                          "NewWeakGlobalRef", "PushLocalFrame"};
  for (const std::string& function : functions) {
    SCOPED_TRACE(function);
    for (const bool throwing : {false, true}) {
      if (throwing && !throwers.contains(function)) {
        continue;
      }
      vm.fail(function, {.throwing = throwing});
      run();
      vm.succeed(function);
      run();
      EXPECT_EQ(startResults_, std::pair(1, 1));
      EXPECT_EQ(stopResults_, std::pair(1, 1));
      EXPECT_EQ(report()["sessionid"], 42);
    }
  }
}

// Calls in an order that makes no sense still leave a usable agent.
TEST_F(wholeSessions, comeAfterCallsInAnyOrder) {
  load("logLevel=4");
  const std::array<std::function<void()>, 8> steps = {
      [&] { startProfiling(); }, [&] { startSummary(); }, [&] { startDetail(); },
      [&] { stopSummary(); },    [&] { stopDetail(); },   [&] { stopProfiling(); },
      [&] { startMemory(); },    [&] { stopMemory(); }};
  for (const auto& first : steps) {
    for (const auto& second : steps) {
      first();
      second();
    }
  }
  run();
  EXPECT_EQ(startResults_, std::pair(1, 1));
  EXPECT_EQ(stopResults_, std::pair(1, 1));
}

// At the end of the VM every call answers WRONG_PHASE and leaves its outputs unset.
TEST_F(wholeSessions, surviveTheEndOfTheVm) {
  load("logLevel=4");
  run();
  vm.setPhase(JVMTI_PHASE_DEAD);
  run();
  vm.setPhase(JVMTI_PHASE_LIVE);
}

}  // namespace
