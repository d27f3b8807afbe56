// The registry: profilers by kind, the capabilities they ask for, and the one callback table.
#include "agent/profilerRegistry.h"

#include <cstring>
#include <functional>

#include "exceptions/exceptionprofiler.h"
#include "locks/mutexlockprofiler.h"
#include "memory/memoryprofiler.h"
#include "registryFixture.h"

using agent::getExceptionProfiler;
using agent::getMemoryProfiler;
using agent::getMutexProfiler;
using agent::getRegistry;
using agent::kExceptionProfiler;
using agent::kMemoryProfiler;
using agent::kMutexLockProfiler;
using agent::profiler;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

bool same(const jvmtiCapabilities& a, const jvmtiCapabilities& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}
bool same(const jvmtiEventCallbacks& a, const jvmtiEventCallbacks& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

jvmtiCapabilities lockCapabilities() {
  jvmtiCapabilities asked{};
  asked.can_get_owned_monitor_info = 1;
  asked.can_get_current_contended_monitor = 1;
  asked.can_get_monitor_info = 1;
  asked.can_generate_monitor_events = 1;
  return asked;
}

jvmtiCapabilities memoryCapabilities() {
  jvmtiCapabilities asked{};
  asked.can_tag_objects = 1;
  asked.can_generate_garbage_collection_events = 1;
  return asked;
}

jvmtiCapabilities exceptionCapabilities() {
  jvmtiCapabilities asked{};
  asked.can_get_source_file_name = 1;
  asked.can_get_line_numbers = 1;
  asked.can_access_local_variables = 1;
  asked.can_generate_exception_events = 1;
  return asked;
}

class registry : public test::registryTest {
 protected:
  static void create(std::initializer_list<std::int32_t> kinds) {
    for (const std::int32_t kind : kinds) {
      getRegistry()->createProfiler(kind);
    }
  }
  void expectEvents(std::vector<fake::eventMode> expected) {
    EXPECT_TRUE(vm.eventModes() == expected);
  }
};

constexpr std::initializer_list<std::int32_t> kAllKinds = {0, 1, 2};

// --- The registry itself ---------------------------------------------------------------------

TEST_F(registry, isMadeOnFirstUse) {
  agent::freeRegistry();
  EXPECT_EQ(agent::findRegistry(), nullptr);
  const auto made = getRegistry();
  EXPECT_EQ(made, getRegistry());
  EXPECT_EQ(made, agent::findRegistry());
}

TEST_F(registry, isEmptyAtFirst) {
  agent::freeRegistry();
  EXPECT_EQ(getRegistry()->environment(), nullptr);
  EXPECT_TRUE(getRegistry()->empty());
  EXPECT_TRUE(same(getRegistry()->capabilities, jvmtiCapabilities{}));
  EXPECT_TRUE(same(getRegistry()->callbacks, jvmtiEventCallbacks{}));
  EXPECT_EQ(getMutexProfiler(), nullptr);
  EXPECT_EQ(getMemoryProfiler(), nullptr);
  EXPECT_EQ(getExceptionProfiler(), nullptr);
}

// --- createProfiler --------------------------------------------------------------------------

TEST_F(registry, createsEachKind) {
  create(kAllKinds);
  EXPECT_EQ(getRegistry()->find(0), getMutexProfiler());
  EXPECT_EQ(getRegistry()->find(1), getMemoryProfiler());
  EXPECT_EQ(getRegistry()->find(2), getExceptionProfiler());
  EXPECT_NE(getMutexProfiler(), nullptr);
  EXPECT_NE(getMemoryProfiler(), nullptr);
  EXPECT_NE(getExceptionProfiler(), nullptr);
}

TEST_F(registry, createProfilerAlwaysReturnsFalse) {
  for (const std::int32_t kind : {0, 1, 2, 3, -1, 0}) {
    EXPECT_FALSE(getRegistry()->createProfiler(kind)) << kind;
  }
}

TEST_F(registry, otherKindsAreRefused) {
  create({-1, 3, 100});
  EXPECT_TRUE(getRegistry()->empty());
  EXPECT_EQ(getRegistry()->find(3), nullptr);
  EXPECT_TRUE(same(getRegistry()->capabilities, jvmtiCapabilities{}));
}

TEST_F(registry, creatingAKindTwiceLeavesTheSecondRegistered) {
  for (const std::int32_t kind : kAllKinds) {
    create({kind});
    const std::shared_ptr<profiler> first = getRegistry()->find(kind);
    create({kind});
    EXPECT_NE(getRegistry()->find(kind), first) << kind;
  }
  EXPECT_EQ(getRegistry()->find(0), getMutexProfiler());
  EXPECT_EQ(getRegistry()->find(1), getMemoryProfiler());
  EXPECT_EQ(getRegistry()->find(2), getExceptionProfiler());
}

TEST_F(registry, aReplacedProfilerStaysWholeForItsUsers) {
  create({kMutexLockProfiler});
  const auto first = getMutexProfiler();
  create({kMutexLockProfiler});
  EXPECT_EQ(first->state(), 1);
  EXPECT_NE(first->store(), nullptr);
}

TEST_F(registry, newProfilersAreStopped) {
  create(kAllKinds);
  EXPECT_EQ(getMutexProfiler()->state(), 1);
  EXPECT_EQ(getMemoryProfiler()->state(), 6);
  EXPECT_EQ(getExceptionProfiler()->state(), 8);
  for (const std::int32_t kind : kAllKinds) {
    const auto made = getRegistry()->find(kind);
    EXPECT_FALSE(made->enabled()) << kind;
    EXPECT_EQ(made->captureObjType, 3) << kind;
    EXPECT_EQ(made->captureObjDepth, 1) << kind;
    EXPECT_EQ(made->captureSTDepth, 3) << kind;
  }
}

// --- Capabilities ----------------------------------------------------------------------------

TEST_F(registry, theLockProfilerAsksForExactlyItsCapabilities) {
  create({kMutexLockProfiler});
  EXPECT_TRUE(same(getRegistry()->capabilities, lockCapabilities()));
}

TEST_F(registry, theMemoryProfilerAsksForExactlyItsCapabilities) {
  create({kMemoryProfiler});
  EXPECT_TRUE(same(getRegistry()->capabilities, memoryCapabilities()));
}

TEST_F(registry, theExceptionProfilerAsksForExactlyItsCapabilities) {
  create({kExceptionProfiler});
  EXPECT_TRUE(same(getRegistry()->capabilities, exceptionCapabilities()));
}

TEST_F(registry, capabilitiesAddUp) {
  getRegistry()->capabilities.can_pop_frame = 1;  // of somebody else
  create({kMutexLockProfiler, kMemoryProfiler});
  jvmtiCapabilities expected = lockCapabilities();
  expected.can_tag_objects = 1;
  expected.can_generate_garbage_collection_events = 1;
  expected.can_pop_frame = 1;
  EXPECT_TRUE(same(getRegistry()->capabilities, expected));
  EXPECT_THAT(vm.callNames(), IsEmpty());  // they are asked for at start-up only
}

// --- switchProfiler --------------------------------------------------------------------------

TEST_F(registry, switchingOnInstallsTheHandlers) {
  create(kAllKinds);
  getRegistry()->switchProfiler(kMutexLockProfiler, true);
  EXPECT_TRUE(getMutexProfiler()->enabled());
  jvmtiEventCallbacks expected{};
  expected.VMInit = agent::mutexLockProfiler::VMInit;
  expected.MonitorWait = agent::mutexLockProfiler::MonitorWait;
  expected.MonitorWaited = agent::mutexLockProfiler::MonitorWaited;
  expected.MonitorContendedEnter = agent::mutexLockProfiler::MonitorContendedEnter;
  expected.MonitorContendedEntered = agent::mutexLockProfiler::MonitorContendedEntered;
  EXPECT_TRUE(same(vm.callbacks(), expected));
  EXPECT_EQ(vm.calls("SetEventCallbacks"), 1U);
}

TEST_F(registry, theMemoryProfilerInstallsTwoHandlers) {
  create(kAllKinds);
  getRegistry()->switchProfiler(kMemoryProfiler, true);
  jvmtiEventCallbacks expected{};
  expected.VMInit = agent::memoryProfiler::VMInit;
  expected.GarbageCollectionFinish = agent::memoryProfiler::gc_finish;
  EXPECT_TRUE(same(vm.callbacks(), expected));
}

TEST_F(registry, theExceptionProfilerInstallsOneHandler) {
  create(kAllKinds);
  getRegistry()->switchProfiler(kExceptionProfiler, true);
  jvmtiEventCallbacks expected{};
  expected.Exception = agent::exceptionProfiler::ExceptionCallback;
  EXPECT_TRUE(same(vm.callbacks(), expected));
}

TEST_F(registry, switchingOneNeverRemovesTheHandlersOfAnother) {
  create(kAllKinds);
  for (const std::int32_t kind : {2, 0, 1}) {
    getRegistry()->switchProfiler(kind, true);
  }
  const jvmtiEventCallbacks all = vm.callbacks();
  EXPECT_NE(all.VMInit, nullptr);
  EXPECT_NE(all.MonitorContendedEnter, nullptr);
  EXPECT_NE(all.GarbageCollectionFinish, nullptr);
  EXPECT_NE(all.Exception, nullptr);

  getRegistry()->switchProfiler(kMemoryProfiler, false);
  jvmtiEventCallbacks expected = all;
  expected.GarbageCollectionFinish = nullptr;
  expected.VMInit = agent::mutexLockProfiler::VMInit;
  EXPECT_TRUE(same(vm.callbacks(), expected));

  getRegistry()->switchProfiler(kMutexLockProfiler, false);
  jvmtiEventCallbacks exceptionsOnly{};
  exceptionsOnly.Exception = all.Exception;
  EXPECT_TRUE(same(vm.callbacks(), exceptionsOnly));
}

TEST_F(registry, switchingOffTheLastInstallsAnEmptyTable) {
  create(kAllKinds);
  getRegistry()->switchProfiler(kExceptionProfiler, true);
  getRegistry()->switchProfiler(kExceptionProfiler, false);
  EXPECT_FALSE(getExceptionProfiler()->enabled());
  EXPECT_TRUE(same(vm.callbacks(), jvmtiEventCallbacks{}));
  EXPECT_EQ(vm.calls("SetEventCallbacks"), 2U);
}

TEST_F(registry, theHigherKindOwnsTheSharedVmInitSlot) {
  create({kMutexLockProfiler, kMemoryProfiler});
  getRegistry()->switchProfiler(kMemoryProfiler, true);
  getRegistry()->switchProfiler(kMutexLockProfiler, true);
  EXPECT_EQ(vm.callbacks().VMInit, agent::memoryProfiler::VMInit);
}

TEST_F(registry, switchingAKindThatIsNotRegisteredReinstallsTheOthers) {
  create({kMutexLockProfiler});
  getRegistry()->switchProfiler(kMutexLockProfiler, true);
  const jvmtiEventCallbacks before = vm.callbacks();
  for (const std::int32_t absent : {1, 2, 7, -1}) {
    getRegistry()->switchProfiler(absent, true);
    EXPECT_TRUE(same(vm.callbacks(), before)) << absent;
  }
  EXPECT_EQ(vm.calls("SetEventCallbacks"), 5U);
}

TEST_F(registry, anySwitchPutsAnEnabledLockProfilerIntoStateTwo) {
  create(kAllKinds);
  getRegistry()->switchProfiler(kMutexLockProfiler, true);
  EXPECT_EQ(getMutexProfiler()->state(), 2);
  for (const std::int32_t other : {1, 2, 7}) {
    getMutexProfiler()->setState(agent::kLockDetail);
    getRegistry()->switchProfiler(other, true);
    EXPECT_EQ(getMutexProfiler()->state(), 2) << other;
  }
}

TEST_F(registry, switchingOffLeavesTheStates) {
  create(kAllKinds);
  getRegistry()->switchProfiler(kMutexLockProfiler, true);
  getMutexProfiler()->setState(agent::kLockDetail);
  getRegistry()->switchProfiler(kMutexLockProfiler, false);
  EXPECT_EQ(getMutexProfiler()->state(), 4);
}

TEST_F(registry, aRefusedTableIsTriedAgainWithTheNextSwitch) {
  create({kMutexLockProfiler});
  vm.fail("SetEventCallbacks", {.times = 1});
  getRegistry()->switchProfiler(kMutexLockProfiler, true);
  EXPECT_EQ(vm.callbacks().MonitorWait, nullptr);
  getRegistry()->switchProfiler(kMutexLockProfiler, true);
  EXPECT_NE(vm.callbacks().MonitorWait, nullptr);
}

// --- setProfilerEventMode --------------------------------------------------------------------

TEST_F(registry, theLockProfilerSwitchesFiveEvents) {
  create({kMutexLockProfiler});
  getMutexProfiler()->setState(agent::kLockProfiling);
  getMutexProfiler()->setProfilerEventMode(true);
  expectEvents({{JVMTI_ENABLE, JVMTI_EVENT_VM_INIT},
                {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_WAIT},
                {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_WAITED},
                {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTER},
                {JVMTI_ENABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTERED}});
  EXPECT_EQ(getMutexProfiler()->state(), 2);
  getMutexProfiler()->setProfilerEventMode(false);
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  EXPECT_EQ(vm.eventModes().size(), 10U);
  EXPECT_EQ(getMutexProfiler()->state(), 2);
}

TEST_F(registry, theLockProfilerSwitchesEventsInStateTwoOnly) {
  create({kMutexLockProfiler});
  for (const std::int32_t state : {1, 3, 4}) {
    getMutexProfiler()->setState(state);
    getMutexProfiler()->setProfilerEventMode(true);
    getMutexProfiler()->setProfilerEventMode(false);
    EXPECT_EQ(getMutexProfiler()->state(), state);
  }
  expectEvents({});
}

TEST_F(registry, theMemoryProfilerSwitchesOneEventAndItsState) {
  create({kMemoryProfiler});
  getMemoryProfiler()->setProfilerEventMode(true);
  expectEvents({{JVMTI_ENABLE, JVMTI_EVENT_GARBAGE_COLLECTION_FINISH}});
  EXPECT_EQ(getMemoryProfiler()->state(), 5);
  getMemoryProfiler()->setProfilerEventMode(false);
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_GARBAGE_COLLECTION_FINISH));
  EXPECT_EQ(getMemoryProfiler()->state(), 5);
}

TEST_F(registry, theExceptionProfilerSwitchesTwoEventsAndItsState) {
  create({kExceptionProfiler});
  getExceptionProfiler()->setProfilerEventMode(true);
  expectEvents({{JVMTI_ENABLE, JVMTI_EVENT_VM_INIT}, {JVMTI_ENABLE, JVMTI_EVENT_EXCEPTION}});
  EXPECT_EQ(getExceptionProfiler()->state(), 7);
  getExceptionProfiler()->setProfilerEventMode(false);
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_EXCEPTION));
  EXPECT_EQ(getExceptionProfiler()->state(), 7);
}

// --- Without an environment ------------------------------------------------------------------

TEST_F(registry, withoutAnEnvironmentNoCapabilityIsAdded) {
  getRegistry()->setEnvironment(nullptr);
  create(kAllKinds);
  EXPECT_TRUE(same(getRegistry()->capabilities, jvmtiCapabilities{}));
  EXPECT_FALSE(getRegistry()->empty());
}

TEST_F(registry, withoutAnEnvironmentSetEventCallbacksDoesNothing) {
  create(kAllKinds);
  getRegistry()->setEnvironment(nullptr);
  for (const std::int32_t kind : kAllKinds) {
    getRegistry()->switchProfiler(kind, true);
  }
  EXPECT_TRUE(same(getRegistry()->callbacks, jvmtiEventCallbacks{}));
  EXPECT_EQ(getMutexProfiler()->state(), 1);
  EXPECT_TRUE(getMutexProfiler()->enabled());
  EXPECT_EQ(vm.calls("SetEventCallbacks"), 0U);
}

TEST_F(registry, withoutAnEnvironmentSetProfilerEventModeDoesNothing) {
  create(kAllKinds);
  getMutexProfiler()->setState(agent::kLockProfiling);
  getRegistry()->setEnvironment(nullptr);
  for (const std::int32_t kind : kAllKinds) {
    getRegistry()->find(kind)->setProfilerEventMode(true);
  }
  EXPECT_EQ(getMemoryProfiler()->state(), 6);
  EXPECT_EQ(getExceptionProfiler()->state(), 8);
  EXPECT_THAT(vm.callNames(), IsEmpty());
}

// --- removeProfiler --------------------------------------------------------------------------

TEST_F(registry, removesOneKind) {
  create(kAllKinds);
  getRegistry()->removeProfiler(kMemoryProfiler);
  EXPECT_EQ(getMemoryProfiler(), nullptr);
  EXPECT_EQ(getRegistry()->find(kMemoryProfiler), nullptr);
  EXPECT_NE(getMutexProfiler(), nullptr);
  EXPECT_NE(getExceptionProfiler(), nullptr);
  getRegistry()->removeProfiler(kMemoryProfiler);
  getRegistry()->removeProfiler(9);
  EXPECT_FALSE(getRegistry()->empty());
}

TEST_F(registry, aRemovedProfilerGoesWithItsLastUser) {
  create({kMutexLockProfiler});
  getMutexProfiler()->setProfileData(std::make_unique<agent::LockSessionConfig>(
      42, "session", 60, 1, 2, 3, 4, 5, 6, "stacks.txt", 1));
  ASSERT_NE(getMutexProfiler()->store()->config, nullptr);
  std::weak_ptr<agent::mutexLockProfiler> watched = getMutexProfiler();
  {
    const auto user = getMutexProfiler();
    getRegistry()->removeProfiler(kMutexLockProfiler);
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(user->store()->config, nullptr);  // released
  }
  EXPECT_TRUE(watched.expired());
}

// --- The base class --------------------------------------------------------------------------

TEST(profilerBase, doesNothing) {
  profiler base(17);
  base.setEventCallbacks();
  base.release();
  base.addCapabilities();
  base.setProfilerEventMode(true);
  base.sortData();
  EXPECT_EQ(base.setProfileData(nullptr), 0);
  EXPECT_EQ(base.dumpJsonObjectFromMapDS(nullptr, nullptr), 0);
  EXPECT_EQ(base.scanJavaHeap(nullptr, nullptr), 0);
  EXPECT_EQ(base.state(), 17);
  EXPECT_EQ(agent::findRegistry(), nullptr);
}

TEST_F(registry, operationsThatAProfilerLacksGiveZero) {
  create(kAllKinds);
  EXPECT_EQ(getMutexProfiler()->scanJavaHeap(vm.env(), nullptr), 0);
  EXPECT_EQ(getExceptionProfiler()->scanJavaHeap(vm.env(), nullptr), 0);
  EXPECT_EQ(getExceptionProfiler()->dumpJsonObjectFromMapDS(vm.env(), nullptr), 0);
  for (const std::int32_t kind : kAllKinds) {
    EXPECT_EQ(getRegistry()->find(kind)->setProfileData(nullptr), 0) << kind;
    // Settings of another kind are none.
    EXPECT_EQ(getRegistry()->find(kind)->setProfileData(std::make_unique<agent::sessionSettings>()),
              0)
        << kind;
  }
}

// --- VMInit ----------------------------------------------------------------------------------

class vmInit : public test::agentTest {
 protected:
  // Delivers the event that the lock profiler's handler is for.
  void deliver() { EXPECT_TRUE(vm.vmInit(vm.currentThread(), fake::delivery::always)); }
};

TEST_F(vmInit, ofAStoppedProfilerIsLogged) {
  load("logLevel=1");
  startProfiling();
  stopDetail();
  deliver();
  const std::vector<test::logRecord> records = log();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].message, "profiler is already stopped");
  EXPECT_EQ(records[0].severity, "Error");
  EXPECT_EQ(records[0].function, "mutexLockProfiler::VMInit");
  EXPECT_EQ(records[0].sourceFile, "mutexlockprofiler.cpp");
}

TEST_F(vmInit, withoutALockProfilerIsLogged) {
  load("logLevel=1");
  startProfiling();
  getRegistry()->removeProfiler(kMutexLockProfiler);
  deliver();
  EXPECT_THAT(messages("Error"), ElementsAre("Unable to get mutex profiler"));
}

TEST_F(vmInit, ofTheMemoryProfilerDoesNothing) {
  load("logLevel=4");
  getRegistry()->switchProfiler(kMemoryProfiler, true);
  vm.resetCalls();
  deliver();
  EXPECT_THAT(vm.callNames(), IsEmpty());
  EXPECT_THAT(messages("Error"), IsEmpty()) << "the lock profiler is stopped";
}

TEST_F(vmInit, ofARunningProfilerSaysNothing) {
  load("logLevel=4");
  const std::vector<std::function<void()>> steps = {
      [&] { startProfiling(); }, [&] { startSummary(); }, [&] { startDetail(); }};
  for (const auto& step : steps) {
    step();
    const std::size_t before = log().size();
    deliver();
    EXPECT_EQ(log().size(), before) << "in state " << getMutexProfiler()->state();
  }
}

TEST_F(vmInit, saysNothingAtLevelZero) {
  load("logLevel=0");
  startProfiling();
  stopDetail();
  deliver();
  EXPECT_THAT(logFiles(), IsEmpty());
}

}  // namespace
