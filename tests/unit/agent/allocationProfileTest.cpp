// The whole allocation profile: its natives, options, sessions, and a VM that refuses.
#include "allocationProfileTest.h"

#include "allocations/allocationProfile.h"
#include "allocations/survivingSamples.h"
#include "eachCall.h"
#include "fakevm/frames.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class allocationProfile : public allocationProfileTest {};

// --- Sessions.

TEST_F(allocationProfile, samplesFromItsStartToItsStop) {
  EXPECT_FALSE(isRunning());
  EXPECT_FALSE(isSampled());
  EXPECT_EQ(start(), "");
  EXPECT_TRUE(isRunning());
  EXPECT_EQ(vm.samplingInterval(), kInterval);
  EXPECT_TRUE(isSampled());
  EXPECT_TRUE(stop());
  EXPECT_FALSE(isRunning());
  EXPECT_FALSE(isSampled());
  EXPECT_EQ(samplesOf(snapshot().at("allocated")), 1);
}

TEST_F(allocationProfile, itsFiguresGoOnFromSessionToSession) {
  const auto figures = [&] {
    return vm.native(
        [](JNIEnv* jni) { return agent::allocationProfile::ofProcess().figures(jni); });
  };
  EXPECT_THAT(figures().rows, IsEmpty());
  EXPECT_EQ(start(), "");
  allocate(session, true);
  allocate(session, false);
  snapshot(true);
  const agent::allocationFigures first = figures();
  EXPECT_TRUE(first.isRunning);
  EXPECT_EQ(first.intervalBytes, kInterval);
  EXPECT_EQ(first.collections, 1U);
  EXPECT_EQ(first.rows.at("com.example.Session").allocated.samples, 2U);
  EXPECT_EQ(first.rows.at("com.example.Session").alive.samples, 1U);
  EXPECT_TRUE(stop());
  vm.runAgentThreads();
  EXPECT_FALSE(figures().isRunning);
  EXPECT_EQ(figures().rows.at("com.example.Session").alive.samples, 0U);
  EXPECT_EQ(start(), "");
  allocate(session, true);
  const agent::allocationFigures second = figures();
  EXPECT_EQ(second.rows.at("com.example.Session").allocated.samples, 3U);
  EXPECT_EQ(second.samples, 3U);
  EXPECT_EQ(second.collections, 1U);
}

TEST(allocationFigures, ofSessionsThatAreOverAreBounded) {
  agent::allocationFigures all;
  for (std::size_t i = 0; i < agent::allocationFigures::kMostRows + 10; ++i) {
    agent::allocationFigures session;
    session.rows["a.C" + std::to_string(i)].allocated.add(8, 1);
    all.keep(session);
  }
  EXPECT_EQ(all.rows.size(), agent::allocationFigures::kMostRows + 1);
  EXPECT_EQ(all.rows.at("").allocated.samples, 10U);
}

TEST_F(allocationProfile, whatOutlivesACollectionThatBeganLaterIsAlive) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  allocate(session, false);
  nlohmann::json site = siteOf(snapshot(), "com.example.Session");
  EXPECT_EQ(samplesOf(site.at("allocated")), 2);
  EXPECT_EQ(samplesOf(site.at("young")), 2);
  EXPECT_EQ(samplesOf(site.at("alive")), 0);
  const nlohmann::json report = snapshot(true);
  EXPECT_EQ(report.at("afterCollection"), true);
  EXPECT_EQ(report.at("collections"), 1);
  site = siteOf(report, "com.example.Session");
  EXPECT_EQ(samplesOf(site.at("allocated")), 2);
  EXPECT_EQ(samplesOf(site.at("young")), 0);
  EXPECT_EQ(samplesOf(site.at("alive")), 1);
  EXPECT_EQ(site.at("ages"), nlohmann::json({1}));
}

TEST_F(allocationProfile, collectionsOfTheVmCountWithoutBeingAskedFor) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  allocate(session, false);
  vm.collectGarbage();
  nlohmann::json report = snapshot();
  EXPECT_EQ(report.at("collections"), 1);
  EXPECT_EQ(report.at("afterCollection"), false);
  EXPECT_EQ(samplesOf(report.at("alive")), 0) << "it may have begun before the allocation";
  EXPECT_EQ(samplesOf(report.at("young")), 1);
  vm.collectGarbage();
  report = snapshot();
  EXPECT_EQ(report.at("collections"), 2);
  EXPECT_EQ(samplesOf(report.at("alive")), 1);
}

TEST_F(allocationProfile, samplesStandForWhatIsAllocatedBetweenThem) {
  EXPECT_EQ(start(), "");
  allocate(session, true, 1024);
  const nlohmann::json alive = siteOf(snapshot(true), "com.example.Session").at("alive");
  EXPECT_EQ(alive.at("bytes"), 1620) << "1024 / (1 - 1/e)";
  EXPECT_EQ(alive.at("objects"), 2);
}

TEST_F(allocationProfile, sitesHaveTheirStackAndThreads) {
  EXPECT_EQ(start(), "");
  worker->setFrames({fake::makeFrame(vm, nullptr, "com.example.Shop", "open", {}, {}),
                     fake::makeFrame(vm, nullptr, "com.example.Main", "main", {}, {})});
  allocate(session, true);
  allocate(session, true);
  worker->setFrames({});
  allocate(session, true);
  const nlohmann::json report = snapshot(true);
  ASSERT_THAT(report.at("sites"), SizeIs(2));
  const nlohmann::json site = report.at("sites").at(0);
  EXPECT_EQ(samplesOf(site.at("alive")), 2);
  EXPECT_EQ(site.at("threads"), nlohmann::json({{{"name", "worker-1"}, {"samples", 2}}}));
  ASSERT_THAT(report.at("stacks"), SizeIs(2));
  for (const nlohmann::json& stack : report.at("stacks")) {
    if (stack.at("id") == site.at("stack")) {
      EXPECT_THAT(stack.at("frames"), ElementsAre(HasSubstr("com.example.Shop.open("),
                                                  HasSubstr("com.example.Main.main(")));
      EXPECT_EQ(stack.at("isCut"), false);
    }
  }
}

TEST_F(allocationProfile, aStackThatIsTooDeepIsCut) {
  EXPECT_EQ(start(), "");
  const fake::frame each = fake::makeFrame(vm, nullptr, "com.example.Deep", "down", {}, {});
  worker->setFrames(std::vector<fake::frame>(64, each));
  allocate(session, true);
  worker->setFrames(std::vector<fake::frame>(65, each));
  allocate(vm.makeClass("com.example.Other"), true);
  const nlohmann::json report = snapshot();
  ASSERT_THAT(report.at("stacks"), SizeIs(2));
  for (const nlohmann::json& stack : report.at("stacks")) {
    EXPECT_THAT(stack.at("frames"), SizeIs(64));
    const bool isDeeper = stack.at("id") == siteOf(report, "com.example.Other").at("stack");
    EXPECT_EQ(stack.at("isCut"), isDeeper);
  }
}

TEST_F(allocationProfile, virtualThreadsShareAName) {
  fake::javaClass* const type = vm.makeClass("java.lang.BaseVirtualThread");
  EXPECT_EQ(start(), "");
  for (int i = 0; i < 3; ++i) {
    worker = vm.makeVirtualThread("request-" + std::to_string(i));
    worker->type = type;
    allocate(session, true);
  }
  EXPECT_EQ(siteOf(snapshot(true), "com.example.Session").at("threads"),
            nlohmann::json({{{"name", "virtual threads"}, {"samples", 3}}}));
}

TEST_F(allocationProfile, aSnapshotIsWrittenWhileItRunsAndAfterItsEnd) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  const nlohmann::json running = snapshot();
  EXPECT_TRUE(running.at("endedAt").is_null());
  EXPECT_TRUE(running.at("shutdownAt").is_null());
  EXPECT_TRUE(running.at("afterHooks").is_null());
  fake::object* const second = allocate(session, true);
  EXPECT_TRUE(stop(true));
  const nlohmann::json ended = snapshot();
  EXPECT_EQ(ended.at("endedAt"), ended.at("writtenAt"));
  EXPECT_EQ(ended.at("afterCollection"), true);
  EXPECT_EQ(samplesOf(ended.at("alive")), 2);
  second->reachable = false;
  vm.collectGarbage();
  EXPECT_EQ(snapshot(true), ended) << "nothing changes any more";
}

TEST_F(allocationProfile, aStopWithoutACollectionCountsAsOfTheLastOne) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  EXPECT_TRUE(stop(false));
  const nlohmann::json ended = snapshot();
  EXPECT_EQ(ended.at("afterCollection"), false);
  EXPECT_EQ(samplesOf(ended.at("alive")), 0);
  EXPECT_EQ(samplesOf(ended.at("young")), 1);
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 0U);
}

TEST_F(allocationProfile, runsOnce) {
  EXPECT_EQ(start(), "");
  EXPECT_EQ(start(), "the allocation profile runs already");
  EXPECT_TRUE(stop());
  EXPECT_FALSE(stop());
}

TEST_F(allocationProfile, whatDoesNotRunIsNotStoppedAndHasNoSnapshot) {
  EXPECT_FALSE(stop());
  EXPECT_FALSE(reportAtEnd(false));
  shutdownBegins(true);
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 0U);
  EXPECT_EQ(snapshot(snapshotPath(), true), "the allocation profile was never started");
  EXPECT_EQ(snapshot("", false), "no path");
}

TEST_F(allocationProfile, givesTheReasonWhenASnapshotCannotBeWritten) {
  EXPECT_EQ(start(), "");
  const std::string path = folder() / "nowhere" / "allocations.json";
  EXPECT_THAT(snapshot(path, false), HasSubstr(path + ": "));
}

TEST_F(allocationProfile, aSecondSessionBeginsFromZero) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  snapshot(true);
  stop();
  vm.runAgentThreads();
  EXPECT_EQ(start(2048, 2000), "");
  EXPECT_EQ(vm.samplingInterval(), 2048);
  nlohmann::json report = snapshot(true);
  EXPECT_THAT(report.at("sites"), IsEmpty());
  EXPECT_EQ(samplesOf(report.at("allocated")), 0);
  EXPECT_EQ(report.at("collections"), 1);
  EXPECT_EQ(report.at("settings"),
            nlohmann::json({{"intervalBytes", 2048}, {"liveSamples", 2000}}));
  EXPECT_TRUE(report.at("endedAt").is_null());
  allocate(session, true);
  EXPECT_EQ(samplesOf(snapshot().at("allocated")), 1);
}

TEST_F(allocationProfile, doesNotBeginBeforeTheThreadOfTheLastSessionHasEnded) {
  EXPECT_EQ(start(), "");
  stop();
  EXPECT_EQ(start(), "the allocation profile of before has not ended yet");
  EXPECT_FALSE(isRunning());
  vm.runAgentThreads();
  EXPECT_EQ(start(), "");
}

TEST_F(allocationProfile, aStopLetsGoOfAllObjects) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  snapshot();
  allocate(session, true);
  const std::size_t held = vm.weakReferences();
  EXPECT_TRUE(stop());
  EXPECT_EQ(vm.weakReferences(), held - 3) << "two samples and the canary";
}

TEST_F(allocationProfile, sessionsKeepNoMoreReferencesThanOne) {
  vm.makeClass("java.lang.BaseVirtualThread");
  worker->setFrames({fake::makeFrame(vm, nullptr, "com.example.Shop", "open", {}, {})});
  std::vector<std::size_t> held;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(start(), "");
    allocate(session, true);
    allocate(session, false);
    snapshot(true);
    allocate(session, true);
    stop(i % 2 == 0);
    vm.runAgentThreads();
    held.push_back(vm.globalReferences() + vm.weakReferences());
  }
  EXPECT_THAT(held, Each(held.front()));
}

TEST_F(allocationProfile, theDeadAreLetGoOf) {
  EXPECT_EQ(start(), "");
  snapshot();
  const std::size_t before = vm.weakReferences();
  for (int i = 0; i < 100; ++i) {
    allocate(session, i == 0);
  }
  EXPECT_EQ(vm.weakReferences(), before + 100);
  snapshot(true);
  EXPECT_EQ(vm.weakReferences(), before + 1);
}

TEST_F(allocationProfile, anExceptionThatIsPendingAtTheEventStays) {
  EXPECT_EQ(start(), "");
  fake::object* const thrown = vm.makeObject("java.lang.IllegalStateException");
  vm.throwInJava(thrown);
  EXPECT_TRUE(isSampled());
  EXPECT_EQ(vm.pendingException(), thrown);
  vm.clearException();
  EXPECT_EQ(samplesOf(snapshot().at("allocated")), 1);
}

TEST_F(allocationProfile, threadsThatAreLeftOutAreCountedOnly) {
  EXPECT_EQ(start(), "");
  leaveOut(true);
  isSampled();
  nlohmann::json report = snapshot();
  EXPECT_EQ(samplesOf(report.at("allocated")), 0);
  EXPECT_EQ(report.at("omitted").at("leftOut"), 1);
  leaveOut(false);
  isSampled();
  report = snapshot();
  EXPECT_EQ(samplesOf(report.at("allocated")), 1);
  EXPECT_EQ(report.at("omitted").at("leftOut"), 1);
}

TEST_F(allocationProfile, samplesWithoutRoomInTheQueueAreCountedAndLetGoOf) {
  EXPECT_EQ(start(), "");
  const std::size_t before = vm.weakReferences();
  for (std::size_t i = 0; i < agent::sampleQueue::kMost + 3; ++i) {
    allocate(session, false);
  }
  EXPECT_EQ(vm.weakReferences(), before + agent::sampleQueue::kMost);
  const nlohmann::json report = snapshot();
  EXPECT_EQ(report.at("omitted").at("lost"), 3);
  EXPECT_EQ(report.at("omitted").at("lostBytes"), 3 * 1619);
  EXPECT_EQ(report.at("cost").at("samples"), agent::sampleQueue::kMost + 3);
}

TEST_F(allocationProfile, samplesBecomeRarerWhereTheLivingHaveNoRoom) {
  EXPECT_EQ(start(kInterval, 1000), "");
  for (int i = 0; i < 1500; ++i) {
    allocate(session, true, 16);
  }
  const nlohmann::json report = snapshot(true);
  EXPECT_EQ(report.at("omitted").at("thinned"), 1);
  EXPECT_EQ(report.at("intervalBytes"), 2 * kInterval);
  EXPECT_EQ(report.at("settings").at("intervalBytes"), kInterval);
  EXPECT_EQ(vm.samplingInterval(), 2 * kInterval);
  const double truth = 1500 * (kInterval + 8);
  EXPECT_NEAR(report.at("alive").at("bytes").get<double>(), truth, 0.15 * truth)
      << "five standard deviations of 1500 thrown coins";
  EXPECT_EQ(samplesOf(report.at("allocated")), 1500);
}

TEST_F(allocationProfile, theDeadMakeRoomBeforeTheLiving) {
  EXPECT_EQ(start(kInterval, 1000), "");
  for (int i = 0; i < 1500; ++i) {
    allocate(session, i < 900);
  }
  const nlohmann::json report = snapshot(true);
  EXPECT_EQ(report.at("omitted").at("thinned"), 0);
  EXPECT_EQ(samplesOf(report.at("alive")), 900);
}

TEST_F(allocationProfile, aReportHasTheThousandSitesWithMostAliveAndTheSumOfTheOthers) {
  EXPECT_EQ(start(kInterval, 50'000), "");
  for (int i = 0; i < 1200; ++i) {
    allocate(vm.makeClass("com.example.Kept" + std::to_string(i)), i < 400, kSize + i);
  }
  const nlohmann::json report = snapshot(true);
  EXPECT_THAT(report.at("sites"), SizeIs(1000));
  EXPECT_EQ(report.at("otherSites").at("sites"), 200);
  EXPECT_EQ(samplesOf(report.at("otherSites").at("allocated")), 200);
  EXPECT_EQ(samplesOf(report.at("otherSites").at("alive")), 0);
  EXPECT_EQ(report.at("sites").at(0).at("class"), "com.example.Kept399");
  int alive = 0;
  for (const nlohmann::json& each : report.at("sites")) {
    alive += samplesOf(each.at("alive"));
  }
  EXPECT_EQ(alive, 400);
  EXPECT_EQ(samplesOf(report.at("allocated")), 1200);
}

// --- Before the hooks.

TEST_F(allocationProfile, whatIsAliveBeforeTheHooksStaysInTheReport) {
  EXPECT_EQ(start(), "");
  fake::object* const kept = allocate(session, true);
  shutdownBegins(true);
  kept->reachable = false;
  vm.collectGarbage();
  const nlohmann::json report = snapshot(true);
  EXPECT_FALSE(report.at("shutdownAt").is_null());
  EXPECT_EQ(report.at("afterCollection"), true);
  EXPECT_EQ(report.at("collections"), 1);
  EXPECT_EQ(samplesOf(report.at("alive")), 1);
  EXPECT_TRUE(report.at("afterHooks").is_null()) << "only the VM's end knows";
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 1U) << "none for what is frozen";
}

TEST_F(allocationProfile, aShutdownBeginsOnce) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  shutdownBegins(true);
  const nlohmann::json first = snapshot();
  allocate(session, true);
  shutdownBegins(true);
  const nlohmann::json second = snapshot();
  EXPECT_EQ(second.at("shutdownAt"), first.at("shutdownAt"));
  EXPECT_EQ(samplesOf(second.at("alive")), 1);
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 1U);
}

TEST_F(allocationProfile, aStopAfterTheShutdownBeganKeepsWhatWasAlive) {
  EXPECT_EQ(start(), "");
  fake::object* const kept = allocate(session, true);
  shutdownBegins(true);
  kept->reachable = false;
  EXPECT_TRUE(stop(true));
  const nlohmann::json report = snapshot();
  EXPECT_FALSE(report.at("endedAt").is_null());
  EXPECT_EQ(samplesOf(report.at("alive")), 1);
}

TEST_F(allocationProfile, theReportOfAVmThatEndsIsNotTakenBack) {
  EXPECT_EQ(start(), "");
  EXPECT_TRUE(reportAtEnd(true));
  EXPECT_TRUE(stop());
  EXPECT_TRUE(isRunning()) << "until the VM ends";
  EXPECT_TRUE(reportAtEnd(false));
  EXPECT_TRUE(stop());
  EXPECT_FALSE(isRunning());
}

// --- Values that are refused.

TEST_F(allocationProfile, refusesValuesOutOfRangeWithTheRange) {
  EXPECT_EQ(start(1023, 1000), "interval 1023: expected a number from 1024 to 1073741824");
  EXPECT_EQ(start(1073741825, 1000),
            "interval 1073741825: expected a number from 1024 to 1073741824");
  EXPECT_EQ(start(1024, 999), "samples 999: expected a number from 1000 to 50000");
  EXPECT_EQ(start(1024, 50001), "samples 50001: expected a number from 1000 to 50000");
  EXPECT_FALSE(isRunning());
  EXPECT_EQ(start(1073741824, 50000), "");
  stop();
  vm.runAgentThreads();
  EXPECT_EQ(start(1024, 1000), "");
}

TEST_F(allocationProfile, namesWhatTheVmDoesNotGive) {
  jvmtiCapabilities all{};
  ASSERT_EQ(vm.jvmti()->GetPotentialCapabilities(&all), JVMTI_ERROR_NONE);
  jvmtiCapabilities some = all;
  some.can_generate_sampled_object_alloc_events = 0;
  vm.setPotentialCapabilities(some);
  EXPECT_EQ(start(),
            "the VM gives the samples of allocations to one agent, and another one has them");
  vm.setFeatureVersion(8);
  EXPECT_EQ(start(), "the VM samples allocations from JDK 11 on");
  EXPECT_FALSE(isRunning());
  vm.setPotentialCapabilities(all);
  EXPECT_EQ(start(), "");
}

TEST_F(allocationProfile, needsTheEventOfCollections) {
  jvmtiCapabilities some{};
  ASSERT_EQ(vm.jvmti()->GetPotentialCapabilities(&some), JVMTI_ERROR_NONE);
  some.can_generate_garbage_collection_events = 0;
  vm.setPotentialCapabilities(some);
  EXPECT_EQ(start(), "the VM does not give the event of garbage collections");
}

// --- With the VM.

TEST_F(allocationProfile, startsWithTheVmWhenTheOptionsWantIt) {
  unload();
  EXPECT_EQ(load("logLevel=4,allocations=1,allocationsInterval=4096,allocationsSamples=2000"), 0);
  EXPECT_FALSE(isRunning());
  EXPECT_TRUE(vm.vmInit(worker));
  EXPECT_TRUE(isRunning());
  EXPECT_FALSE(vm.vmInit(worker)) << "once";
  EXPECT_EQ(snapshot().at("settings"),
            nlohmann::json({{"intervalBytes", 4096}, {"liveSamples", 2000}}));
}

TEST_F(allocationProfile, doesNotStartWithTheVmOtherwise) {
  EXPECT_FALSE(vm.vmInit(worker));
  EXPECT_FALSE(isRunning());
}

TEST_F(allocationProfile, badOptionsAreNotedAndTheDefaultsHold) {
  unload();
  EXPECT_EQ(load("logLevel=4,allocations=1,allocationsInterval=1023,allocationsSamples=50001"), 0);
  vm.vmInit(worker);
  EXPECT_EQ(snapshot().at("settings"),
            nlohmann::json({{"intervalBytes", 524'288}, {"liveSamples", 50'000}}));
  for (const char* const item : {"allocationsInterval=1023", "allocationsSamples=50001"}) {
    EXPECT_THAT(messages("warn"),
                Contains("Ignoring option '" + std::string(item) + "': its default holds"));
  }
}

TEST_F(allocationProfile, aVmThatRefusesAtItsStartIsLoggedAndGoesOn) {
  unload();
  jvmtiCapabilities some{};
  vm.jvmti()->GetPotentialCapabilities(&some);
  some.can_generate_sampled_object_alloc_events = 0;
  vm.setPotentialCapabilities(some);
  EXPECT_EQ(load("logLevel=4,allocations=1"), 0);
  EXPECT_THAT(messages("Error"),
              Contains("The allocation profile does not run: the VM gives the samples of "
                       "allocations to one agent, and another one has them"));
}

// --- Every call refused in turn.

class allocationsRefused : public allocationProfile {
 protected:
  void SetUp() override {
    vm.makeClass("java.lang.BaseVirtualThread");
    worker->setFrames({fake::makeFrame(vm, nullptr, "com.example.Shop", "open", {}, {})});
  }
  void end() {
    stop();
    vm.runAgentThreads();
    EXPECT_FALSE(isRunning());
  }
};

TEST_F(allocationsRefused, startsThatFailLeaveNothingAndTheNextOneSucceeds) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  snapshot();
  end();
  const std::size_t held = vm.weakReferences();  // classes of frames
  std::string problem;
  refuseEachCallOf(
      vm, [&] { problem = start(); },
      [&] {
        EXPECT_EQ(isRunning(), problem.empty());
        EXPECT_EQ(isSampled(), problem.empty());
        end();
        EXPECT_LE(vm.weakReferences(), held);
        EXPECT_EQ(start(), "");
        allocate(session, true);
        EXPECT_EQ(samplesOf(snapshot(true).at("alive")), 1);
        end();
      });
}

TEST_F(allocationsRefused, aFailedStartLeavesNoSessionToWrite) {
  for (const char* const call : {"RunAgentThread", "NewObject"}) {
    vm.fail(call);
    EXPECT_EQ(start(), "the VM gives it no thread");
    vm.succeed(call);
    EXPECT_EQ(snapshot(snapshotPath(), false), "the allocation profile was never started");
  }
  vm.fail("SetHeapSamplingInterval");
  EXPECT_EQ(start(), "the VM refuses the interval of the samples");
  vm.succeed("SetHeapSamplingInterval");
  vm.fail("SetEventNotificationMode");
  EXPECT_EQ(start(), "the VM refuses the events of allocations");
  vm.succeed("SetEventNotificationMode");
  EXPECT_EQ(snapshot(snapshotPath(), false), "the allocation profile was never started");
  vm.runAgentThreads();
  EXPECT_EQ(start(), "");
}

// A sample is in the report, or it is counted.
TEST_F(allocationsRefused, eventsLoseNoSampleWithoutCountingIt) {
  EXPECT_EQ(start(), "");
  int samples = 0;
  const auto event = [&] {
    EXPECT_TRUE(vm.sampledAllocation(worker, vm.makeObject(session), kSize));
    ++samples;
  };
  // The name of the thread is asked for once a second: of a new one each time.
  refuseEachCallOf(
      vm,
      [&] {
        leaveOut(false);
        event();
      },
      [] {});
  const nlohmann::json report = snapshot();
  const int kept = samplesOf(report.at("allocated"));
  const int failed = report.at("omitted").at("failed").get<int>();
  EXPECT_LT(kept, samples);
  EXPECT_GE(kept + failed, samples);
  EXPECT_EQ(report.at("cost").at("samples"), samples);
}

TEST_F(allocationsRefused, aCollectionThatDoesNotComeIsNotClaimed) {
  EXPECT_EQ(start(), "");
  allocate(session, true);
  vm.fail("ForceGarbageCollection");
  EXPECT_EQ(snapshot(true).at("afterCollection"), false);
  vm.succeed("ForceGarbageCollection");
  vm.fail("NewByteArray", {.throwing = true});
  EXPECT_EQ(snapshot(true).at("afterCollection"), false);
  vm.succeed("NewByteArray");
  EXPECT_EQ(snapshot(true).at("afterCollection"), true);
}

TEST_F(allocationsRefused, stopsAndSnapshotsSurvive) {
  worker->setFrames({});  // whose classes are held for longer
  const auto run = [&] {
    ASSERT_EQ(start(), "");
    allocate(session, true);
    allocate(session, false);
  };
  run();
  refuseEachCallOf(
      vm,
      [&] {
        if (isRunning()) {
          snapshot(snapshotPath(), true);
          allocate(session, true);
          shutdownBegins(true);
          stop(true);
        }
      },
      [&] {
        vm.runAgentThreads();
        EXPECT_FALSE(isRunning());
        EXPECT_EQ(vm.weakReferences(), 0U);
        run();
      });
}

}  // namespace
