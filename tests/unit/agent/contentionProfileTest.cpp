// The whole contention profile: its natives, options, sessions, and a VM that refuses.
#include "contentionProfileTest.h"

#include <numeric>

#include "eachCall.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class contentionProfile : public contentionProfileTest {
 protected:
  // The number of entries of the only lock in a snapshot.
  int entriesIn(const nlohmann::json& report) {
    EXPECT_THAT(report.at("locks"), SizeIs(1));
    return report.at("locks").empty() ? 0 : report.at("locks").at(0).at("entries").get<int>();
  }
};

// --- Sessions.

TEST_F(contentionProfile, recordsFromItsStartToItsStop) {
  EXPECT_FALSE(isRunning());
  EXPECT_FALSE(vm.contendedEnter(worker, lock));
  EXPECT_EQ(start(), "");
  EXPECT_TRUE(isRunning());
  block(worker, lock);
  EXPECT_TRUE(vm.monitorWait(worker, lock, 0));
  EXPECT_TRUE(vm.monitorWaited(worker, lock, false));
  EXPECT_TRUE(stop());
  EXPECT_FALSE(isRunning());
  EXPECT_FALSE(vm.contendedEnter(worker, lock));
  EXPECT_THAT(snapshot().at("locks"), SizeIs(2));
}

TEST_F(contentionProfile, aSnapshotIsWrittenWhileItRunsAndAfterItsEnd) {
  EXPECT_EQ(start(), "");
  block(worker, lock);
  const nlohmann::json running = snapshot();
  EXPECT_EQ(entriesIn(running), 1);
  EXPECT_TRUE(running.at("endedAt").is_null());
  EXPECT_EQ(running.at("locks").at(0).at("class"), "com.example.Stock");
  block(worker, lock);
  EXPECT_TRUE(vm.contendedEnter(worker, lock));
  EXPECT_TRUE(stop());
  const nlohmann::json ended = snapshot();
  EXPECT_EQ(entriesIn(ended), 2);
  EXPECT_EQ(ended.at("endedAt"), ended.at("writtenAt"));
  EXPECT_EQ(ended.at("locks").at(0).at("stillBlocked"), 1) << "as of the end";
  EXPECT_EQ(snapshot(), ended) << "nothing changes any more";
}

TEST_F(contentionProfile, itsFiguresGoOnFromSessionToSession) {
  const auto figures = [&] {
    return vm.native(
        [](JNIEnv* jni) { return agent::contentionProfile::ofProcess().figures(jni); });
  };
  const std::pair stock(std::string("com.example.Stock"), agent::lockKind::monitor);
  const auto monitors = static_cast<std::size_t>(agent::lockKind::monitor);
  EXPECT_THAT(figures().rows, IsEmpty());
  EXPECT_EQ(start(), "");
  block(worker, lock);
  agent::contentionFigures first = figures();
  EXPECT_TRUE(first.isRunning);
  EXPECT_EQ(first.rows.at(stock).entries, 1U);
  EXPECT_TRUE(vm.contendedEnter(worker, lock));
  const agent::contentionFigures blocked = figures();
  EXPECT_EQ(blocked.blockedThreads.at(monitors), 1U);
  EXPECT_EQ(blocked.rows.at(stock).entries, 1U) << "it goes on";
  EXPECT_GT(blocked.rows.at(stock).nanos, first.rows.at(stock).nanos);
  EXPECT_TRUE(stop());
  vm.runAgentThreads();
  const agent::contentionFigures stopped = figures();
  EXPECT_FALSE(stopped.isRunning);
  EXPECT_EQ(stopped.blockedThreads.at(monitors), 0U);
  EXPECT_GE(stopped.rows.at(stock).nanos, blocked.rows.at(stock).nanos);
  EXPECT_EQ(start(), "");
  EXPECT_GE(figures().rows.at(stock).nanos, stopped.rows.at(stock).nanos);
  block(worker, lock);
  const agent::contentionFigures second = figures();
  EXPECT_EQ(second.rows.at(stock).entries, 2U);
  EXPECT_EQ(std::accumulate(second.ended.at(monitors).buckets.begin(),
                            second.ended.at(monitors).buckets.end(), 0U),
            2U);
}

TEST(contentionFigures, ofSessionsThatAreOverAreBounded) {
  agent::contentionFigures all;
  for (std::size_t i = 0; i < agent::contentionFigures::kMostRows + 10; ++i) {
    agent::contentionFigures session;
    session.rows[{"a.C" + std::to_string(i), agent::lockKind::wait}] = {1, 2};
    all.keep(session);
  }
  EXPECT_EQ(all.rows.size(), agent::contentionFigures::kMostRows + 1);
  EXPECT_EQ((all.rows.at({"", agent::lockKind::wait}).entries), 10U);
}

TEST_F(contentionProfile, runsOnce) {
  EXPECT_EQ(start(), "");
  EXPECT_EQ(start(), "the contention profile runs already");
  EXPECT_TRUE(stop());
  EXPECT_FALSE(stop());
}

TEST_F(contentionProfile, whatDoesNotRunIsNotStoppedAndHasNoSnapshot) {
  EXPECT_FALSE(stop());
  EXPECT_EQ(snapshot(snapshotPath()), "the contention profile was never started");
  EXPECT_EQ(snapshot(""), "no path");
}

TEST_F(contentionProfile, givesTheReasonWhenASnapshotCannotBeWritten) {
  EXPECT_EQ(start(), "");
  const std::string path = folder() / "nowhere" / "contention.json";
  EXPECT_THAT(snapshot(path), HasSubstr(path + ": "));
}

TEST_F(contentionProfile, aSecondSessionBeginsFromZero) {
  EXPECT_EQ(start(), "");
  block(worker, lock);
  EXPECT_TRUE(vm.contendedEnter(worker, lock));
  stop();
  vm.runAgentThreads();
  EXPECT_EQ(start({.locks = 128}), "");
  EXPECT_TRUE(vm.contendedEntered(worker, lock));
  nlohmann::json report = snapshot();
  EXPECT_THAT(report.at("locks"), IsEmpty());
  EXPECT_EQ(report.at("omitted").at("startsNotSeen"), 1);
  EXPECT_EQ(report.at("settings").at("locks"), 128);
  block(worker, lock);
  EXPECT_EQ(entriesIn(snapshot()), 1);
}

TEST_F(contentionProfile, doesNotBeginBeforeTheThreadOfTheLastSessionHasEnded) {
  EXPECT_EQ(start(), "");
  stop();
  EXPECT_EQ(start(), "the contention profile of before has not ended yet");
  EXPECT_FALSE(isRunning());
  vm.runAgentThreads();
  EXPECT_EQ(start(), "");
}

TEST_F(contentionProfile, aStopLetsGoOfBlockedThreads) {
  EXPECT_EQ(start(), "");
  const std::size_t before = vm.globalReferences();
  vm.contendedEnter(worker, lock);
  vm.monitorWait(vm.makeThread("idle"), lock, 0);
  EXPECT_EQ(vm.globalReferences(), before + 2);
  EXPECT_TRUE(stop());
  EXPECT_EQ(vm.globalReferences(), before);
}

TEST_F(contentionProfile, sessionsKeepNoMoreReferencesThanOne) {
  std::vector<std::size_t> held;
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(start(), "");
    block(worker, lock);
    vm.contendedEnter(worker, vm.makeObject("com.example.Other"));
    stop();
    vm.runAgentThreads();
    held.push_back(vm.globalReferences() + vm.weakReferences());
  }
  EXPECT_THAT(held, ::testing::Each(held.front()));
}

// --- Parks.

class contentionParks : public contentionProfile {
 protected:
  void callHook(const char* name, fake::object* blocker) {
    void* const native =
        vm.classNamed("com.korvane.twutils.nativeagent.hook.ParkHook")->natives.at(name);
    vm.native([&](JNIEnv* jni) {
      if (std::string_view(name) == "blockerSet") {
        reinterpret_cast<void(JNICALL*)(JNIEnv*, jclass, jthread, jobject)>(native)(
            jni, nullptr, vm.ref(vm.currentThread()), vm.ref(blocker));
      } else {
        reinterpret_cast<void(JNICALL*)(JNIEnv*, jclass)>(native)(jni, nullptr);
      }
    });
  }
};

TEST_F(contentionParks, areSeenByTheHook) {
  loadParkClasses();
  EXPECT_EQ(start(), "");
  fake::object* const fair = vm.makeObject(types.fairLock);
  callHook("acquisitionBegins", nullptr);
  for (int i = 0; i < 3; ++i) {
    callHook("blockerSet", fair);
    callHook("blockerSet", nullptr);
  }
  const nlohmann::json report = snapshot();
  EXPECT_EQ(report.at("parks"), "exact");
  EXPECT_EQ(entriesIn(report), 1);
  EXPECT_EQ(report.at("locks").at(0).at("kind"), "lock");
}

TEST_F(contentionParks, areNotInTheReportWithTheReason) {
  EXPECT_EQ(start(), "");
  EXPECT_THAT(snapshot().at("parks").get<std::string>(), HasSubstr("not hooked: LockSupport"));
  EXPECT_THAT(messages("warn"), ElementsAre(HasSubstr("Locks of java.util.concurrent: ")));
}

TEST_F(contentionParks, areNotRecordedWhereNobodyCanTellLocksFromThem) {
  loadParkClasses();
  vm.fail("NewGlobalRef", {.times = 1});
  EXPECT_EQ(start(), "");
  EXPECT_EQ(snapshot().at("parks"),
            "the VM does not give the classes that tell locks from other parks");
  stop();
  vm.runAgentThreads();
  const std::size_t before = vm.globalReferences();
  EXPECT_EQ(start(), "");
  EXPECT_EQ(snapshot().at("parks"), "exact");
  EXPECT_EQ(vm.globalReferences(), before + 1) << "only what was missing";
}

// --- Values that are refused.

TEST_F(contentionProfile, refusesValuesOutOfRangeWithTheRange) {
  const std::vector<std::pair<agent::contentionSettings, const char*>> rows{
      {{.locks = 63}, "locks 63: expected a number from 64 to 65536"},
      {{.locks = 65537}, "locks 65537: expected a number from 64 to 65536"},
      {{.samplesPerSecond = -1}, "samples -1: expected a number from 0 to 1000"},
      {{.samplesPerSecond = 1001}, "samples 1001: expected a number from 0 to 1000"},
      {{.budgetPercent = 0}, "budget 0: expected a number from 1 to 100"},
      {{.budgetPercent = 101}, "budget 101: expected a number from 1 to 100"},
      {{.stuckMillis = 99}, "stuck 99: expected a number from 100 to 9223372036854"},
      {{.windowMillis = 999}, "window 999: expected a number from 1000 to 3600000"},
      {{.windowMillis = 3'600'001}, "window 3600001: expected a number from 1000 to 3600000"}};
  for (const auto& [settings, text] : rows) {
    EXPECT_EQ(start(settings), text);
    EXPECT_FALSE(isRunning());
  }
  EXPECT_EQ(start({64, 0, 100, 9223372036854, 3'600'000}), "");
  stop();
  vm.runAgentThreads();
  EXPECT_EQ(start({65536, 1000, 1, 100, 1000}), "");
}

// --- With the VM.

TEST_F(contentionProfile, startsWithTheVmWhenTheOptionsWantIt) {
  unload();
  EXPECT_EQ(load("logLevel=4,contention=1,contentionLocks=256,contentionSamples=10,"
                 "contentionBudget=2,contentionStuck=5s,contentionWindow=1000"),
            0);
  EXPECT_FALSE(isRunning());
  EXPECT_TRUE(vm.vmInit(worker));
  EXPECT_TRUE(isRunning());
  EXPECT_FALSE(vm.vmInit(worker)) << "once";
  const nlohmann::json settings = snapshot().at("settings");
  EXPECT_EQ(settings.at("locks"), 256);
  EXPECT_EQ(settings.at("samplesPerSecond"), 10);
  EXPECT_EQ(settings.at("budgetPercent"), 2);
  EXPECT_EQ(settings.at("stuckMillis"), 5000);
  EXPECT_EQ(settings.at("windowMillis"), 1000);
}

TEST_F(contentionProfile, doesNotStartWithTheVmOtherwise) {
  EXPECT_FALSE(vm.vmInit(worker));
  EXPECT_FALSE(isRunning());
}

TEST_F(contentionProfile, badOptionsAreNotedAndTheDefaultsHold) {
  unload();
  EXPECT_EQ(load("logLevel=4,contention=1,contentionLocks=63,contentionSamples=x,"
                 "contentionBudget=101,contentionStuck=99,contentionWindow="),
            0);
  vm.vmInit(worker);
  const nlohmann::json settings = snapshot().at("settings");
  EXPECT_EQ(settings.at("locks"), 4096);
  EXPECT_EQ(settings.at("samplesPerSecond"), 50);
  EXPECT_EQ(settings.at("budgetPercent"), 1);
  EXPECT_EQ(settings.at("stuckMillis"), 30'000);
  EXPECT_EQ(settings.at("windowMillis"), 10'000);
  for (const char* const item :
       {"contentionLocks=63", "contentionSamples=x", "contentionBudget=101", "contentionStuck=99",
        "contentionWindow="}) {
    EXPECT_THAT(messages("warn"),
                Contains("Ignoring option '" + std::string(item) + "': its default holds"));
  }
}

TEST_F(contentionProfile, aVmThatRefusesAtItsStartIsLogged) {
  unload();
  vm.fail("AddCapabilities", {.error = JVMTI_ERROR_OUT_OF_MEMORY, .times = 1});
  EXPECT_EQ(load("logLevel=4,contention=1"), 0);
  EXPECT_THAT(messages("Error"),
              Contains("The contention profile does not run: the VM refuses the capabilities: "
                       "JVMTI_ERROR_OUT_OF_MEMORY"));
}

// --- Every call refused in turn.

class contentionRefused : public contentionProfile {
 protected:
  void eachCallOf(const std::function<void()>& body, const std::function<void()>& after) {
    refuseEachCallOf(vm, body, after);
  }
  void end() {
    stop();
    vm.runAgentThreads();
    EXPECT_FALSE(isRunning());
  }
};

TEST_F(contentionRefused, startsThatFailLeaveNothingAndTheNextOneSucceeds) {
  loadParkClasses();
  EXPECT_EQ(start(), "");
  end();
  std::string problem;
  eachCallOf([&] { problem = start(); },
             [&] {
               if (problem.empty()) {
                 EXPECT_TRUE(isRunning());
               } else {
                 EXPECT_FALSE(isRunning());
                 EXPECT_FALSE(vm.contendedEnter(worker, lock));
               }
               end();
               EXPECT_EQ(start(), "");
               block(worker, lock);
               EXPECT_EQ(entriesIn(snapshot()), 1);
               end();
             });
}

TEST_F(contentionRefused, aFailedStartLeavesNoSessionToWrite) {
  for (const char* const call : {"RunAgentThread", "NewObject"}) {
    vm.fail(call);
    EXPECT_EQ(start(), "the VM gives it no thread");
    vm.succeed(call);
    EXPECT_EQ(snapshot(snapshotPath()), "the contention profile was never started");
  }
  vm.fail("SetEventNotificationMode");
  EXPECT_EQ(start(), "the VM refuses the events of monitors");
  vm.succeed("SetEventNotificationMode");
  EXPECT_EQ(snapshot(snapshotPath()), "the contention profile was never started");
  vm.runAgentThreads();
  EXPECT_EQ(start(), "");
}

TEST_F(contentionRefused, aVmWithoutTheEventsOfMonitorsHasNoProfile) {
  vm.setPotentialCapabilities({});
  EXPECT_EQ(start(), "the VM does not give the events of monitors");
}

TEST_F(contentionRefused, stopsAndSnapshotsSurvive) {
  loadParkClasses();
  const auto run = [&] {
    ASSERT_EQ(start(), "");
    block(worker, lock);
    vm.contendedEnter(worker, lock);
  };
  run();
  eachCallOf(
      [&] {
        if (isRunning()) {
          snapshot(snapshotPath());
          stop();
        }
      },
      [&] {
        vm.runAgentThreads();
        EXPECT_FALSE(isRunning());
        run();
      });
}

// --- Events and looks, with the parts.

class contentionPartsRefused : public contentionTest {
 protected:
  void eachCallOf(const std::function<void()>& body) {
    vm.resetCalls();
    body();
    std::map<std::string, std::uint64_t> calls;
    for (const std::string& call : vm.callNames()) {
      if (!neverFails(call)) {
        calls[call] = vm.calls(call);
      }
    }
    ASSERT_FALSE(calls.empty());
    for (const auto& [call, count] : calls) {
      for (unsigned at = 1; at <= count; ++at) {
        SCOPED_TRACE(call + " refused at time " + std::to_string(at));
        const bool throwing = call == "NewWeakGlobalRef" || call == "PushLocalFrame";
        vm.fail(call,
                {.error = JVMTI_ERROR_OUT_OF_MEMORY, .from = at, .times = 1, .throwing = throwing});
        body();
        vm.succeed(call);
      }
    }
  }
  std::uint64_t blockedNow() {
    std::uint64_t count = 0;
    agent::blockedThread found{};
    for (std::uint32_t i = 0; i < recorder->threads().end(); ++i) {
      count += recorder->threads().read(i, found) ? 1 : 0;
    }
    return count;
  }

  fake::javaThread* worker = vm.makeThread("worker-1");
};

TEST_F(contentionPartsRefused, eventsLoseNoSlotAndNoBlockButAsNotSeen) {
  begin();
  std::uint64_t blocks = 0;
  const std::size_t globals = vm.globalReferences();
  eachCallOf([&] {
    fake::object* const fresh = vm.makeObject(vm.makeClass("com.example.Fresh"));
    enter(worker, fresh);
    entered(worker);
    park(worker, vm.makeObject(types.fairLock));
    unpark(worker);
    blocks += 2;
  });
  EXPECT_EQ(allEntries() + recorder->omitted().startsNotSeen, blocks);
  // A thread whose word cannot be read at the end of a block leaves its slot to the sampler.
  EXPECT_LE(blockedNow(), recorder->omitted().startsNotSeen);
  vm.native([&](JNIEnv* jni) { recorder->threads().dropAll(jni); });
  EXPECT_EQ(vm.globalReferences(), globals);
}

TEST_F(contentionPartsRefused, aBlockWhoseWordIsNotStoredLeavesItsSlot) {
  begin();
  const std::size_t globals = vm.globalReferences();
  vm.fail("SetThreadLocalStorage");
  enter(worker, vm.makeObject("com.example.Stock"));
  vm.succeed("SetThreadLocalStorage");
  EXPECT_EQ(blockedNow(), 0U) << "or it would be stuck for ever";
  EXPECT_EQ(vm.globalReferences(), globals);
  entered(worker);
  EXPECT_EQ(recorder->omitted().startsNotSeen, 1U);
}

TEST_F(contentionPartsRefused, looksGoOn) {
  load("logLevel=4");
  begin({.budgetPercent = 100, .stuckMillis = 100});
  std::int64_t now = instruments::steadyNanos();
  fake::javaThread* const holder = vm.makeThread("holder");
  holder->setFrames({fake::makeFrame(vm, nullptr, "com.example.Store", "refill", {}, {})});
  const std::size_t globals = vm.globalReferences();
  eachCallOf([&] {
    fake::object* const monitor = vm.makeObject(vm.makeClass("com.example.Fresh"));
    fake::object* const fair = vm.makeObject(types.fairLock);
    vm.setField(fair, types.owner, static_cast<fake::object*>(holder));
    vm.setOwner(monitor, holder);
    enter(worker, monitor);
    fake::javaThread* const other = vm.makeThread("worker-2");
    park(other, fair);
    for (int i = 0; i < 3; ++i) {
      now += 1'000 * kMilli;
      step(now);
    }
    entered(worker);
    unpark(other);
    EXPECT_FALSE(contentionReport(now).empty());
  });
  vm.native([&](JNIEnv* jni) { recorder->threads().dropAll(jni); });
  EXPECT_EQ(vm.globalReferences(), globals);
}

}  // namespace
