// Many threads in the handlers of the allocation profile at once, with its own thread and control
// calls. Meant for a thread sanitizer as much as for what is counted here.
#include <atomic>
#include <latch>
#include <memory>
#include <thread>

#include "allocationProfileTest.h"
#include "allocations/allocationProfile.h"
#include "allocations/sampleQueue.h"
#include "instruments/costAccount.h"
#include "instruments/lastReport.h"
#include "instruments/ownThread.h"

namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int kThreads = 4;

class allocationThreads : public allocationProfileTest {
 protected:
  // The profile's own thread runs on one of the system's.
  void runOwnThread() {
    own = std::make_unique<fake::attachedThread>(vm, "own", [&](JNIEnv*) { vm.runAgentThreads(); });
  }
  void begin(jlong interval = kInterval, jint samples = 50'000) {
    ASSERT_EQ(start(interval, samples), "");
    runOwnThread();
  }
  void end() {
    stop();
    own.reset();
  }
  void TearDown() override {
    end();
    allocationProfileTest::TearDown();
  }
  // Runs `body(index)` on kThreads attached threads, and `beside` here until they are done.
  void onThreads(const std::function<void(int, fake::javaThread*)>& body,
                 const std::function<void()>& beside) {
    std::latch ready(kThreads);
    std::atomic<int> running{kThreads};
    std::vector<std::unique_ptr<fake::attachedThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
      fake::javaThread* const java = vm.makeThread("T" + std::to_string(i));
      threads.push_back(std::make_unique<fake::attachedThread>(vm, java, [&, i, java](JNIEnv*) {
        ready.arrive_and_wait();
        body(i, java);
        --running;
      }));
    }
    while (running > 0) {
      beside();
      std::this_thread::yield();
    }
  }

  std::unique_ptr<fake::attachedThread> own;
};

TEST_F(allocationThreads, everySampleIsInTheReportOrCounted) {
  constexpr int kEach = 2000;
  begin();
  std::vector<fake::object*> objects;
  for (int i = 0; i < kThreads; ++i) {
    objects.push_back(vm.makeObject(vm.makeClass("com.example.Class" + std::to_string(i))));
  }
  onThreads(
      [&](int index, fake::javaThread* thread) {
        for (int round = 0; round < kEach; ++round) {
          vm.sampledAllocation(thread, objects[static_cast<std::size_t>(index)], kSize);
        }
      },
      [&] { snapshot(); });
  const nlohmann::json report = snapshot(true);
  EXPECT_EQ(samplesOf(report.at("allocated")) + report.at("omitted").at("lost").get<int>(),
            kThreads * kEach);
  EXPECT_EQ(report.at("omitted").at("failed"), 0);
  EXPECT_EQ(samplesOf(report.at("alive")), samplesOf(report.at("allocated")));
}

TEST_F(allocationThreads, sessionsBeginAndEndAmongEvents) {
  fake::object* const object = vm.makeObject(session);
  int sessions = 0;
  onThreads(
      [&](int, fake::javaThread* thread) {
        for (int round = 0; round < 3000; ++round) {
          vm.sampledAllocation(thread, object, kSize, fake::delivery::always);
        }
      },
      [&] {
        begin();
        snapshot(sessions % 2 == 0);
        shutdownBegins(sessions % 3 == 0);
        end();
        ++sessions;
      });
  EXPECT_GT(sessions, 0);
  begin();
  const std::size_t before = vm.weakReferences();
  EXPECT_EQ(samplesOf(snapshot().at("allocated")), 0);
  end();
  EXPECT_EQ(vm.weakReferences(), before - 1) << "the canary";
}

TEST_F(allocationThreads, theOwnThreadEmptiesTheQueueAndLetsGoOfTheDead) {
  begin();
  const std::size_t before = vm.weakReferences();
  for (std::size_t i = 0; i < 3 * agent::sampleQueue::kMost; ++i) {
    allocate(session, i == 0);
    if (i % 100 == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  EXPECT_TRUE(instruments::comesSoon([&] {
    vm.collectGarbage();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return vm.weakReferences() <= before + 1;
  }));
  const nlohmann::json report = snapshot(true);
  EXPECT_EQ(samplesOf(report.at("alive")), 1);
  EXPECT_EQ(samplesOf(report.at("allocated")) + report.at("omitted").at("lost").get<int>(),
            static_cast<int>(3 * agent::sampleQueue::kMost));
}

TEST_F(allocationThreads, theOwnThreadMarksThePoints) {
  begin();
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const nlohmann::json report = snapshot();
  EXPECT_EQ(report.at("points").size(), 2U) << "one is the snapshot's";
  EXPECT_GT(report.at("cost").at("processorNanos").get<std::uint64_t>(), 0U);
}

// --- The end of the VM.

TEST_F(allocationThreads, theVmWritesTheLastReport) {
  begin();
  allocate(session, true);
  EXPECT_TRUE(reportAtEnd(true));
  EXPECT_TRUE(vm.vmDeath());
  EXPECT_FALSE(isRunning());
  const nlohmann::json report = written();
  EXPECT_FALSE(report.at("endedAt").is_null());
  EXPECT_EQ(samplesOf(report.at("young")), 1) << "no collection for a report of its own";
  EXPECT_TRUE(report.at("afterHooks").is_null());
  EXPECT_FALSE(std::filesystem::exists(snapshotPath() + ".end"));
}

TEST_F(allocationThreads, theLastReportShowsWhatTheHooksHaveLeft) {
  begin();
  fake::object* const cleared = allocate(session, true);
  allocate(session, true);
  EXPECT_TRUE(reportAtEnd(true));
  shutdownBegins(true);
  allocate(session, true);
  cleared->reachable = false;
  EXPECT_TRUE(vm.vmDeath());
  const nlohmann::json report = written();
  EXPECT_FALSE(report.at("shutdownAt").is_null());
  EXPECT_EQ(report.at("collections"), 1);
  EXPECT_EQ(samplesOf(report.at("alive")), 2);
  EXPECT_EQ(samplesOf(report.at("afterHooks")), 1);
  EXPECT_EQ(report.at("afterHooks").at("collections"), 1);
  EXPECT_EQ(samplesOf(siteOf(report, "com.example.Session").at("afterHooks")), 1);
}

TEST_F(allocationThreads, whereNobodyAskedForCollectionsTheEndHasNone) {
  begin();
  allocate(session, true);
  EXPECT_TRUE(reportAtEnd(true));
  shutdownBegins(false);
  EXPECT_TRUE(vm.vmDeath());
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 0U);
  EXPECT_TRUE(written().at("afterHooks").is_null());
}

// One of the young objects takes nothing that is old.
TEST_F(allocationThreads, aCollectionWhileTheHooksRanDoesNotShowWhatTheyHaveLeft) {
  begin();
  allocate(session, true);
  EXPECT_TRUE(reportAtEnd(true));
  shutdownBegins(false);
  vm.collectGarbage();
  vm.collectGarbage();
  EXPECT_TRUE(vm.vmDeath());
  EXPECT_TRUE(written().at("afterHooks").is_null());
}

// A collector whose threads have ended does not.
TEST_F(allocationThreads, aLastCollectionThatIsNotAnsweredDoesNotKeepTheVm) {
  begin();
  allocate(session, true);
  EXPECT_TRUE(reportAtEnd(true));
  shutdownBegins(true);
  std::latch isOver(1);
  vm.on("ForceGarbageCollection", [&] { isOver.wait(); });
  EXPECT_TRUE(vm.vmDeath());
  const nlohmann::json report = written();
  EXPECT_EQ(samplesOf(report.at("alive")), 1);
  EXPECT_TRUE(report.at("afterHooks").is_null());
  isOver.count_down();
  own.reset();
}

TEST_F(allocationThreads, withoutAnOrderTheVmWritesNothing) {
  begin();
  EXPECT_TRUE(vm.vmDeath());
  EXPECT_FALSE(std::filesystem::exists(snapshotPath()));
}

TEST_F(allocationThreads, aReportThatIsTakenBackIsNotWritten) {
  begin();
  EXPECT_TRUE(reportAtEnd(false));
  end();
  EXPECT_FALSE(vm.vmDeath());
  EXPECT_FALSE(std::filesystem::exists(snapshotPath()));
}

TEST_F(allocationThreads, aLastReportThatCannotBeWrittenIsLogged) {
  begin();
  EXPECT_TRUE(reportAtEnd(true));
  std::filesystem::create_directory(snapshotPath());
  EXPECT_TRUE(vm.vmDeath());
  EXPECT_THAT(messages("Error"), ElementsAre(HasSubstr("was not written at the end: ")));
}

TEST_F(allocationThreads, aThreadThatDoesNotEndKeepsTheVmForTwoSecondsOnly) {
  EXPECT_EQ(start(), "");
  EXPECT_TRUE(reportAtEnd(true));
  const std::int64_t begin = instruments::steadyNanos();
  EXPECT_TRUE(vm.vmDeath());
  EXPECT_LT(instruments::steadyNanos() - begin, 5'000'000'000);
  EXPECT_THAT(messages("Error"), ElementsAre(HasSubstr("was not written at the end")));
}

// --- The thread of an instrument.

class ownThreadTest : public fake::vmTest {
 protected:
  bool start(instruments::ownThread& thread) {
    EXPECT_EQ(environment.open(vm.javaVm(), {}, {}), "");
    return vm.native([&](JNIEnv* jni) { return thread.start(environment, jni); });
  }
  instruments::ownEnvironment environment;
};

TEST_F(ownThreadTest, takesStepsUntilThereIsNone) {
  int steps = 0;
  instruments::ownThread thread("steps", [&](JNIEnv*) -> std::optional<std::int64_t> {
    return ++steps < 5 ? std::optional(instruments::steadyNanos() + 1'000'000) : std::nullopt;
  });
  EXPECT_TRUE(start(thread));
  fake::attachedThread runner(vm, "own", [&](JNIEnv*) { vm.runAgentThreads(); });
  EXPECT_TRUE(thread.hasEnded());
  runner.join();
  EXPECT_EQ(steps, 5);
}

TEST_F(ownThreadTest, aWakeBringsTheNextStep) {
  std::atomic<int> steps = 0;
  constexpr std::int64_t kHour = 3'600'000'000'000;
  instruments::ownThread thread("steps", [&](JNIEnv*) -> std::optional<std::int64_t> {
    ++steps;
    return instruments::steadyNanos() + kHour;
  });
  EXPECT_TRUE(start(thread));
  fake::attachedThread runner(vm, "own", [&](JNIEnv*) { vm.runAgentThreads(); });
  EXPECT_TRUE(instruments::comesSoon([&] { return steps == 1; }));
  thread.wake();
  EXPECT_TRUE(instruments::comesSoon([&] { return steps == 2; }));
  thread.stop();
  EXPECT_TRUE(thread.hasEnded());
  runner.join();
  EXPECT_EQ(steps, 2);
}

TEST_F(ownThreadTest, anErrorEndsIt) {
  instruments::ownThread thread(
      "steps", [](JNIEnv*) -> std::optional<std::int64_t> { throw std::runtime_error("no"); });
  EXPECT_TRUE(start(thread));
  fake::attachedThread runner(vm, "own", [&](JNIEnv*) { vm.runAgentThreads(); });
  EXPECT_TRUE(thread.hasEnded());
}

TEST_F(ownThreadTest, aVmThatGivesNoThreadHasNone) {
  instruments::ownThread thread(
      "steps", [](JNIEnv*) -> std::optional<std::int64_t> { return std::nullopt; });
  vm.fail("RunAgentThread");
  EXPECT_FALSE(start(thread));
  EXPECT_TRUE(thread.hasEnded()) << "at once";
}

}  // namespace
