// The settings of memory sessions, the switch of the collection event, and the counter.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "agent/twAprLib.h"
#include "memoryTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kSetProfileData = "memoryProfiler::setProfileData";
constexpr const char* kSetProfilerEventMode = "memoryProfiler::setProfilerEventMode";
constexpr const char* kGcFinish = "memoryProfiler::gc_finish";

class memoryConfig : public memoryTest {
 protected:
  static std::unique_ptr<agent::MemorySessionConfig> settings() {
    return std::make_unique<agent::MemorySessionConfig>();
  }
  void switchOn() { agent::getRegistry()->switchProfiler(agent::kMemoryProfiler, true); }
};

// --- setProfileData --------------------------------------------------------------------------

TEST_F(memoryConfig, theSettingsAreLoggedAtLevel3) {
  load("logLevel=3");
  EXPECT_EQ(start({.duration = 3600, .id = 12, .name = "night", .topClasses = 5}), 1);
  EXPECT_THAT(
      linesOf(kSetProfileData),
      ElementsAre("Trace: *************Enabling Memory Leak Profiler features:Memory Leak Enable:1"
                  "|Duration :3600|Session ID :12|SessionName :night|Number of top N Class :5"));
}

TEST_F(memoryConfig, extremeSettingsAreLoggedAsTheyAre) {
  load();
  EXPECT_EQ(start({.enable = false,
                   .duration = INT64_MIN,
                   .id = INT32_MIN,
                   .name = "",
                   .topClasses = INT32_MAX}),
            1);
  EXPECT_THAT(
      linesOf(kSetProfileData),
      ElementsAre("Trace: *************Enabling Memory Leak Profiler features:Memory Leak Enable:0"
                  "|Duration :-9223372036854775808|Session ID :-2147483648|SessionName :"
                  "|Number of top N Class :2147483647"));
}

TEST_F(memoryConfig, filtersAreNotLogged) {
  load("logLevel=4");
  start({.excludeClasses = "filterA",
         .excludePackages = "filterB",
         .includeClasses = "filterC",
         .includePackages = "filterD"});
  for (const logRecord& each : log()) {
    EXPECT_THAT(each.message, Not(HasSubstr("filter")));
  }
}

TEST_F(memoryConfig, aNameThatLooksLikeAFormatIsLoggedAsItIs) {
  load();
  start({.name = "%s%n|\xc3\xa4\xed\xa0\xbd\xed\xb8\x80"});
  EXPECT_THAT(linesOf(kSetProfileData),
              ElementsAre(HasSubstr("|SessionName :%s%n|\xc3\xa4\xed\xa0\xbd\xed\xb8\x80|Number")));
}

TEST_F(memoryConfig, belowLevel3NeitherSettingsNorEventSwitchIsLogged) {
  load("logLevel=2");
  EXPECT_EQ(start(), 1);
  stop();
  EXPECT_THAT(linesOf(kSetProfileData), IsEmpty());
  EXPECT_THAT(linesOf(kSetProfilerEventMode), IsEmpty());
}

TEST_F(memoryConfig, noSettingsAreRefused) {
  load();
  EXPECT_EQ(memory()->setProfileData(nullptr), 0);
  EXPECT_THAT(log(), Not(Contains(::testing::Field(&logRecord::function, kSetProfileData))));
}

TEST_F(memoryConfig, settingsOfAnotherProfilerAreRefused) {
  load();
  EXPECT_EQ(memory()->setProfileData(std::make_unique<agent::sessionSettings>()), 0);
}

TEST_F(memoryConfig, refusedSettingsLeaveTheOnesHeld) {
  begin({.id = 31});
  EXPECT_EQ(memory()->setProfileData(nullptr), 0);
  collect();
  EXPECT_EQ(memory()->gcCounter(), 2U);
  stop();
  EXPECT_EQ(report().at("sessionid"), 31);
}

TEST_F(memoryConfig, aSecondConfigurationReplacesTheSettingsAndTheCounterGoesOn) {
  begin({.id = 1});
  collect(4);
  EXPECT_EQ(start({.id = 2}), 1);
  EXPECT_EQ(memory()->gcCounter(), 5U);
  collect();
  EXPECT_EQ(memory()->gcCounter(), 6U);
  stop();
  EXPECT_EQ(report().at("sessionid"), 2);
}

// --- setProfilerEventMode --------------------------------------------------------------------

TEST_F(memoryConfig, switchingOnSetsState5AndEnablesTheEventForAllThreads) {
  load();
  EXPECT_EQ(memory()->state(), 6);
  memory()->setProfilerEventMode(true);
  EXPECT_EQ(memory()->state(), 5);
  EXPECT_THAT(vm.eventModes(),
              ElementsAre(fake::eventMode{JVMTI_ENABLE, JVMTI_EVENT_GARBAGE_COLLECTION_FINISH}));
  EXPECT_THAT(linesOf(kSetProfilerEventMode), ElementsAre("Trace: *jvmti status: 0"));
}

TEST_F(memoryConfig, switchingOffDisablesTheEventAndLeavesState5) {
  load();
  memory()->setProfilerEventMode(true);
  memory()->setProfilerEventMode(false);
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_GARBAGE_COLLECTION_FINISH));
  EXPECT_EQ(memory()->state(), 5);
}

TEST_F(memoryConfig, switchingOffBeforeASessionLeavesState6) {
  load();
  memory()->setProfilerEventMode(false);
  EXPECT_EQ(memory()->state(), 6);
}

TEST_F(memoryConfig, theStatusOfARefusedSwitchIsLogged) {
  load();
  vm.fail("SetEventNotificationMode", {.error = JVMTI_ERROR_MUST_POSSESS_CAPABILITY});
  memory()->setProfilerEventMode(true);
  EXPECT_THAT(linesOf(kSetProfilerEventMode), ElementsAre("Trace: *jvmti status: 99"));
  EXPECT_EQ(memory()->state(), 5);
}

TEST_F(memoryConfig, withoutAnEnvironmentTheSwitchDoesNothing) {
  const auto profiler = std::make_shared<agent::memoryProfiler>();
  profiler->setProfilerEventMode(true);
  EXPECT_EQ(profiler->state(), 6);
  EXPECT_EQ(vm.calls("SetEventNotificationMode"), 0U);
}

// --- gc_finish -------------------------------------------------------------------------------

TEST_F(memoryConfig, everyFinishedCollectionOfASessionCounts) {
  load();
  start();
  EXPECT_EQ(memory()->gcCounter(), 0U);
  collect(3);
  EXPECT_EQ(memory()->gcCounter(), 3U);
}

TEST_F(memoryConfig, collectionsBeforeTheFirstConfigurationDoNotCount) {
  load();
  collect();
  switchOn();
  memory()->setProfilerEventMode(true);
  EXPECT_TRUE(vm.garbageCollectionFinish());
  EXPECT_EQ(memory()->gcCounter(), 0U);
  memory()->setProfileData(settings());
  EXPECT_TRUE(vm.garbageCollectionFinish());
  EXPECT_EQ(memory()->gcCounter(), 1U);
}

TEST_F(memoryConfig, collectionsInState6DoNotCount) {
  load();
  switchOn();
  memory()->setProfileData(settings());
  EXPECT_TRUE(vm.garbageCollectionFinish(fake::delivery::always));
  EXPECT_EQ(memory()->gcCounter(), 0U);
}

TEST_F(memoryConfig, collectionsAfterTheStopDoNotCount) {
  begin();
  stop();
  EXPECT_FALSE(vm.garbageCollectionFinish());
  EXPECT_FALSE(vm.garbageCollectionFinish(fake::delivery::always)) << "its handler is gone";
  EXPECT_EQ(memory()->gcCounter(), 1U);
}

TEST_F(memoryConfig, theNextSessionGoesOnCounting) {
  begin();
  stop();
  start();
  collect();
  EXPECT_EQ(memory()->gcCounter(), 2U);
}

TEST_F(memoryConfig, aCollectionIsLoggedAsTraceAtLevel4) {
  load();
  start();
  loggedFrom(
      4, [&] { collect(2); }, "Trace");
  EXPECT_THAT(
      linesOf(kGcFinish),
      ElementsAre("Trace: *GC Finish CallBack is Called, :GC_Counter/GC_Cycle Value is: 1",
                  "Trace: *GC Finish CallBack is Called, :GC_Counter/GC_Cycle Value is: 2"));
}

TEST_F(memoryConfig, aCollectionThatDoesNotCountIsNotLogged) {
  load("logLevel=4");
  switchOn();
  memory()->setProfilerEventMode(true);
  collect();
  EXPECT_THAT(linesOf(kGcFinish), IsEmpty());
}

TEST_F(memoryConfig, theCounterIsLoggedWithoutASign) {
  load("logLevel=4");
  start();
  memory()->setGcCounter(0xFFFFFFFEU);
  collect();
  EXPECT_THAT(linesOf(kGcFinish), ElementsAre(HasSubstr(" Value is: 4294967295")));
}

TEST_F(memoryConfig, theCounterBeginsAt0AgainAfterItsEnd) {
  load();
  start();
  memory()->setGcCounter(0xFFFFFFFFU);
  collect();
  EXPECT_EQ(memory()->gcCounter(), 0U);
}

// The fake VM reports any call that it allows no handler of this event.
TEST_F(memoryConfig, theHandlerCallsNeitherTheVmNorJava) {
  load("logLevel=4");
  start();
  vm.resetCalls();
  collect();
  EXPECT_THAT(vm.callNames(), IsEmpty());
}

TEST_F(memoryConfig, theHandlerDoesNothingWithoutAProfiler) {
  load();
  start();
  const auto callback = vm.callbacks().GarbageCollectionFinish;
  unload();
  callback(vm.jvmti());
  EXPECT_EQ(memory(), nullptr);
}

// --- Handlers of the other profilers ---------------------------------------------------------

TEST_F(memoryConfig, aMemorySessionLeavesTheHandlersOfTheOthers) {
  load();
  startProfiling();
  agent::getRegistry()->switchProfiler(agent::kExceptionProfiler, true);
  const auto othersAreInstalled = [&] {
    const jvmtiEventCallbacks installed = vm.callbacks();
    return installed.MonitorContendedEnter != nullptr &&
           installed.MonitorContendedEntered != nullptr && installed.MonitorWait != nullptr &&
           installed.MonitorWaited != nullptr && installed.Exception != nullptr;
  };
  start();
  EXPECT_NE(vm.callbacks().GarbageCollectionFinish, nullptr);
  EXPECT_TRUE(othersAreInstalled());
  stop();
  EXPECT_EQ(vm.callbacks().GarbageCollectionFinish, nullptr);
  EXPECT_TRUE(othersAreInstalled());
}

TEST_F(memoryConfig, switchingTheOthersLeavesTheMemorySession) {
  begin();
  startProfiling();
  agent::getRegistry()->switchProfiler(agent::kExceptionProfiler, true);
  collect();
  stopProfiling();
  agent::getRegistry()->switchProfiler(agent::kExceptionProfiler, false);
  collect();
  EXPECT_EQ(memory()->gcCounter(), 3U);
}

}  // namespace
