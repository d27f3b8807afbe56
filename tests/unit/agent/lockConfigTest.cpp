// The settings of a lock session, on their way from Java into the profiler.
#include <limits>
#include <memory>

#include "lockTest.h"
#include "memory/memoryprofiler.h"

namespace {

using namespace test;
using agent::LockSessionConfig;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class lockConfig : public lockTest {
 protected:
  std::int32_t graphSizeFor(jlong duration) {
    EXPECT_EQ(startProfiling({.duration = duration}), 1);
    return config().graphSize;
  }
};

constexpr const char* kDetails =
    "*********Session Details :\n\t\tSession Id : -9\n\t\tSession Name : night run"
    "\n\t\tDuration : 125\n\t\tMax Locks Count  : 2\n\t\tTop Lock count to capture : 1"
    "\n\t\tMax Thread Per Lock Count : 3\n\t\tMax Thread Count : 4"
    "\n\t\tMax StackTrace Count : 5\n\t\tMax StackTrace Count Per Thread : 6"
    "\n\t\tSize of graph array : 2";

const lockSession kNightRun{.id = -9,
                            .name = "night run",
                            .duration = 125,
                            .topLocks = 1,
                            .locks = 2,
                            .threadsPerLock = 3,
                            .threads = 4,
                            .stackTraces = 5,
                            .stackTracesPerThread = 6};

TEST_F(lockConfig, everyArgumentReachesItsField) {
  load();
  ASSERT_EQ(startProfiling(kNightRun), 1);
  EXPECT_EQ(config().sessionId, -9);
  EXPECT_EQ(config().sessionName, "night run");
  EXPECT_EQ(config().duration, 125);
  EXPECT_EQ(config().topLockCount, 1);
  EXPECT_EQ(config().maxLockCount.value(), 2);
  EXPECT_EQ(config().maxThreadPerLockCount, 3);
  EXPECT_EQ(config().maxThreadCount, 4);
  EXPECT_EQ(config().maxThreadCountCopy.value(), 4);
  EXPECT_EQ(config().maxStackTraceCount.value(), 5);
  EXPECT_EQ(config().maxStackTraceCountPerThread, 6);
  EXPECT_EQ(config().stackFilePath, stackPath());
}

TEST_F(lockConfig, graphHasOneSlotForEachWholeMinute) {
  load("logLevel=1");
  EXPECT_EQ(graphSizeFor(3600), 60);
  EXPECT_EQ(graphSizeFor(59), 0);
  EXPECT_EQ(graphSizeFor(60), 1);
  EXPECT_EQ(graphSizeFor(125), 2);
  EXPECT_EQ(graphSizeFor(0), 0);
  EXPECT_EQ(graphSizeFor(-61), -1);
  EXPECT_EQ(graphSizeFor(-59), 0);
}

TEST_F(lockConfig, graphSizeIsMadeOfTheLow32BitsOfTheDuration) {
  load("logLevel=1");
  EXPECT_EQ(graphSizeFor((jlong{1} << 32) + 120), 2);
  EXPECT_EQ(graphSizeFor(jlong{1} << 31), -35791394) << "2147483648 is -2147483648 in 32 bits";
  EXPECT_EQ(config().duration, jlong{1} << 31) << "the duration itself stays whole";
}

TEST_F(lockConfig, limitsArriveUnchanged) {
  load();
  const jint lowest = std::numeric_limits<jint>::min();
  ASSERT_EQ(startProfiling({.topLocks = -1,
                            .locks = lowest,
                            .threadsPerLock = 0,
                            .threads = -7,
                            .stackTraces = std::numeric_limits<jint>::max(),
                            .stackTracesPerThread = lowest}),
            1);
  EXPECT_EQ(config().topLockCount, -1);
  EXPECT_EQ(config().maxLockCount.value(), lowest);
  EXPECT_EQ(config().maxThreadPerLockCount, 0);
  EXPECT_EQ(config().maxThreadCountCopy.value(), -7);
  EXPECT_EQ(config().maxStackTraceCount.value(), std::numeric_limits<jint>::max());
  EXPECT_EQ(config().maxStackTraceCountPerThread, lowest);
}

TEST_F(lockConfig, sessionDetailsAreLoggedAtTrace) {
  load("logLevel=3");
  startProfiling(kNightRun);
  EXPECT_THAT(messages("Trace"), Contains(kDetails));
  for (const logRecord& each : log()) {
    if (each.message == kDetails) {
      EXPECT_EQ(each.function, "mutexLockProfiler::setProfileData");
    }
  }
}

TEST_F(lockConfig, belowTraceNoDetailsAreLoggedAndTheResultIsStill1) {
  load("logLevel=2");
  EXPECT_EQ(startProfiling(kNightRun), 1);
  EXPECT_THAT(messages("Trace"), IsEmpty());
}

TEST_F(lockConfig, secondConfigurationReplacesTheFirstAndEmptiesTheMaps) {
  load();
  fake::object* const first = vm.makeObject("first.Lock");
  fake::object* const second = vm.makeObject("second.Lock");
  fake::javaThread* const thread = vm.makeThread("t");
  beginDetail({first});
  contend(thread, first);
  beginDetail({second}, {.id = 43, .name = "second"});
  contend(thread, second);
  stopDetail();

  ASSERT_EQ(stopProfiling(), 1);
  EXPECT_EQ(report()["sessionname"], "second");
  EXPECT_EQ(report()["sessionid"], 43);
  EXPECT_EQ(report()["lockmap"].size(), 1U);
  EXPECT_TRUE(report()["lockmap"].contains(nameOf(second)));
}

TEST_F(lockConfig, replacedConfigurationRestoresTheBudgets) {
  load();
  beginSummary({.locks = 1});
  vm.contendedEnter(vm.makeThread("t"), vm.makeObject("a.Lock"));
  vm.contendedEnter(vm.makeThread("t"), vm.makeObject("b.Lock"));
  EXPECT_EQ(config().maxLockCount.value(), -1);
  startProfiling({.locks = 1});
  EXPECT_EQ(config().maxLockCount.value(), 1);
}

TEST_F(lockConfig, nullConfigurationGives0AndKeepsEverything) {
  load();
  fake::object* const lock = vm.makeObject("a.Lock");
  beginDetail({lock});
  contend(vm.makeThread("t"), lock);
  EXPECT_EQ(locks()->setProfileData(nullptr), 0);
  EXPECT_EQ(config().sessionName, "checkout");
  EXPECT_NE(lockBeanOf(lock), nullptr);
  EXPECT_FALSE(stackHashes().empty());
}

TEST_F(lockConfig, configurationOfAnotherProfilerIsNotTaken) {
  load();
  startProfiling();
  EXPECT_EQ(locks()->setProfileData(std::make_unique<agent::MemorySessionConfig>()), 0);
  EXPECT_EQ(config().sessionName, "checkout");
}

TEST_F(lockConfig, withoutALockProfilerASessionIsNotStarted) {
  load("features=memoryprofiling");
  EXPECT_EQ(startProfiling(), 0);
}

TEST_F(lockConfig, profilerThatIsNotRegisteredTakesNothing) {
  load("features=memoryprofiling");
  agent::mutexLockProfiler loose;
  EXPECT_EQ(loose.setProfileData(
                std::make_unique<LockSessionConfig>(1, "s", 60, 1, 1, 1, 1, 1, 1, "", 1)),
            0);
  EXPECT_EQ(loose.store()->config, nullptr);
}

TEST_F(lockConfig, nullStringsCountAsEmpty) {
  load();
  const jint result = vm.native([&](JNIEnv* jni) {
    return Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_startMutexLockProfilingSession(
        jni, nullptr, 1, nullptr, 60, 1, 1, 1, 1, 1, 1, nullptr);
  });
  EXPECT_EQ(result, 1);
  EXPECT_EQ(config().sessionName, "");
  EXPECT_EQ(config().stackFilePath, "");
}

TEST_F(lockConfig, stringsTheVmCannotGiveCountAsEmpty) {
  load();
  vm.fail("GetStringUTFChars", {.throwing = true});
  EXPECT_EQ(startProfiling(), 1);
  EXPECT_EQ(config().sessionName, "");
  EXPECT_EQ(config().stackFilePath, "");
}

TEST_F(lockConfig, handlersAreInstalledAndTheStateIs2BeforeTheSettingsAreTaken) {
  load();
  EXPECT_EQ(locks()->state(), 1);
  startProfiling();
  EXPECT_EQ(locks()->state(), 2);
  EXPECT_EQ(vm.callbacks().MonitorContendedEnter, &agent::mutexLockProfiler::MonitorContendedEnter);
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER)) << "no events before a phase";
}

TEST_F(lockConfig, hostileSessionNameIsLoggedAndKept) {
  load("logLevel=3");
  const std::string name = "a\"b\tc\nd\x01\x7F %s %n \xC3\xA9";
  ASSERT_EQ(startProfiling({.name = name}), 1);
  EXPECT_EQ(config().sessionName, name);
  EXPECT_THAT(messages("Trace"), Contains(HasSubstr(name)));
}

TEST_F(lockConfig, veryLongSessionNameIsKeptWhole) {
  load("logLevel=3");
  const std::string name(100000, 'n');
  ASSERT_EQ(startProfiling({.name = name}), 1);
  EXPECT_EQ(config().sessionName, name);
  EXPECT_THAT(messages("Trace"), Not(Contains(HasSubstr(name)))) << "a record is cut";
}

}  // namespace
