// Many threads in the handlers at once, among themselves and with control calls. Meant for a thread
// sanitizer as much as for what is counted here.
#include <atomic>
#include <barrier>
#include <functional>
#include <latch>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "lockTest.h"

namespace {

using namespace test;
using ::testing::IsSubsetOf;

constexpr int kThreads = 8;
constexpr int kRounds = 200;

class lockThreads : public lockTest {
 protected:
  // Runs `body(index, thread)` on kThreads attached threads "T0", "T1", ... and waits for them.
  void onThreads(const std::function<void(int, fake::javaThread*)>& body) {
    std::latch start(kThreads);
    std::vector<std::unique_ptr<fake::attachedThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
      fake::javaThread* const java = vm.makeThread(nameOfThread(i));
      threads.push_back(std::make_unique<fake::attachedThread>(vm, java, [&, i, java](JNIEnv*) {
        start.arrive_and_wait();
        body(i, java);
      }));
    }
    for (const auto& each : threads) {
      each->join();
    }
  }
  static std::string nameOfThread(int i) { return "T" + std::to_string(i); }

  std::vector<fake::object*> makeLocks(int count) {
    std::vector<fake::object*> made;
    for (int i = 0; i < count; ++i) {
      made.push_back(vm.makeObject("L" + std::to_string(i) + ".Lock"));
    }
    return made;
  }
};

TEST_F(lockThreads, summaryCountsEveryEntryOfKnownAndNewLocks) {
  load();
  const std::vector<fake::object*> all = makeLocks(4);
  beginSummary();
  onThreads([&](int, fake::javaThread* thread) {
    for (int round = 0; round < kRounds; ++round) {
      for (fake::object* const each : all) {
        contend(thread, each);
      }
    }
  });
  for (fake::object* const each : all) {
    EXPECT_EQ(lockBeanOf(each)->count, static_cast<std::uint32_t>(kThreads * kRounds));
  }
}

TEST_F(lockThreads, detailCountsEveryEntryByLockThreadMinuteAndStack) {
  load("logLevel=1");
  const std::vector<fake::object*> all = makeLocks(3);
  beginDetail(all);
  onThreads([&](int index, fake::javaThread* thread) {
    setStack(thread, {"a.B.m" + std::to_string(index)});
    for (int round = 0; round < kRounds; ++round) {
      for (fake::object* const each : all) {
        contend(thread, each);
      }
    }
  });
  for (fake::object* const each : all) {
    EXPECT_EQ(lockBeanOf(each)->count, static_cast<std::uint32_t>(kThreads * kRounds));
    EXPECT_EQ(minuteOf(each, 0), static_cast<std::uint32_t>(kThreads * kRounds));
    for (int i = 0; i < kThreads; ++i) {
      ASSERT_NE(threadOf(each, nameOfThread(i)), nullptr);
      EXPECT_EQ(threadOf(each, nameOfThread(i))->count, static_cast<std::uint32_t>(kRounds));
      const agent::stackTraceBeans traces = tracesOf(each, nameOfThread(i));
      ASSERT_EQ(traces.size(), 1U);
      EXPECT_EQ(traces.begin()->second.count, static_cast<std::uint32_t>(kRounds));
    }
  }
}

TEST_F(lockThreads, threadsOfOneNameShareExactCounts) {
  load("logLevel=1");
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock});
  onThreads([&](int, fake::javaThread* thread) {
    vm.rename(thread, "shared");
    setStack(thread, {"a.B.m"});
    for (int round = 0; round < kRounds; ++round) {
      contend(thread, lock);
    }
  });
  EXPECT_EQ(threadOf(lock, "shared")->count, static_cast<std::uint32_t>(kThreads * kRounds));
  EXPECT_EQ(tracesOf(lock, "shared").begin()->second.count,
            static_cast<std::uint32_t>(kThreads * kRounds));
}

TEST_F(lockThreads, blockAndWaitTimesAddUpExactly) {
  load("logLevel=1");
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock});
  std::barrier together(kThreads);
  const jlong began = vm.time();
  onThreads([&](int, fake::javaThread* thread) {
    for (int round = 0; round < 20; ++round) {
      vm.contendedEnter(thread, lock);
      together.arrive_and_wait();
      vm.setTime(began + (2 * round + 1) * kSecond);
      together.arrive_and_wait();
      vm.contendedEntered(thread, lock);
      vm.monitorWait(thread, lock, 0);
      together.arrive_and_wait();
      vm.setTime(began + (2 * round + 2) * kSecond);
      together.arrive_and_wait();
      vm.monitorWaited(thread, lock, false);
      together.arrive_and_wait();
    }
  });
  const auto total = static_cast<std::uint64_t>(kThreads * 20 * kSecond);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, total);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, total);
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(threadOf(lock, nameOfThread(i))->totalBlockTime, total / kThreads);
    EXPECT_EQ(threadOf(lock, nameOfThread(i))->totalWaitTime, total / kThreads);
  }
}

TEST_F(lockThreads, ownersAreCountedExactly) {
  load("logLevel=1");
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock});
  vm.setOwner(lock, vm.makeThread("owner"));
  onThreads([&](int, fake::javaThread* thread) {
    for (int round = 0; round < kRounds; ++round) {
      contend(thread, lock);
    }
  });
  EXPECT_EQ(ownerOf(lock, "owner")->blockingCount, static_cast<std::uint32_t>(kThreads * kRounds));
}

TEST_F(lockThreads, budgetOfLocksIsNeverOverdrawn) {
  load("logLevel=1");
  constexpr int kBudget = 10;
  const std::vector<fake::object*> all = makeLocks(100);
  beginSummary({.locks = kBudget});
  onThreads([&](int index, fake::javaThread* thread) {
    for (int i = 0; i < 100; ++i) {
      vm.contendedEnter(thread, all[static_cast<std::size_t>((i * 7 + index * 13) % 100)]);
    }
  });
  EXPECT_EQ(lockCount(), static_cast<std::size_t>(kBudget));
}

TEST_F(lockThreads, budgetOfThreadsIsNeverOverdrawn) {
  load("logLevel=1");
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock}, {.threadsPerLock = 3});
  onThreads([&](int, fake::javaThread* thread) {
    for (int round = 0; round < kRounds; ++round) {
      contend(thread, lock);
    }
  });
  std::uint32_t threads = 0;
  for (int i = 0; i < kThreads; ++i) {
    threads += threadOf(lock, nameOfThread(i)) != nullptr ? 1 : 0;
  }
  EXPECT_EQ(threads, 3U);
  EXPECT_EQ(lockBeanOf(lock)->count, static_cast<std::uint32_t>(3 * kRounds));
}

TEST_F(lockThreads, threadsThatMeetANewLockAtOnceMakeItOnce) {
  load("logLevel=1");
  constexpr int kNew = 100;
  const std::vector<fake::object*> all = makeLocks(kNew);
  beginSummary({.locks = 1000});
  std::barrier together(kThreads);
  onThreads([&](int, fake::javaThread* thread) {
    for (fake::object* const each : all) {
      together.arrive_and_wait();
      vm.contendedEnter(thread, each);
    }
  });
  EXPECT_EQ(lockCount(), static_cast<std::size_t>(kNew));
  for (fake::object* const each : all) {
    EXPECT_EQ(lockBeanOf(each)->count, static_cast<std::uint32_t>(kThreads));
  }
}

TEST_F(lockThreads, everyStackTraceReachesTheFileOnceAndWhole) {
  load("logLevel=1");
  constexpr int kTraces = 25;
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock}, {.stackTraces = 1000000});
  onThreads([&](int index, fake::javaThread* thread) {
    for (int i = 0; i < kTraces; ++i) {
      setDeepStack(thread, 100, 1000 * index + i);  // full: each event writes the file
      contend(thread, lock);
      setStack(thread, {"a.B.m" + std::to_string(1000 * index + i)});
      contend(thread, lock);
    }
  });
  stopProfiling();
  std::set<std::string> hashes;
  for (const std::string& line : stackLines()) {
    EXPECT_TRUE(hashes.insert(line.substr(0, line.find('='))).second) << line;
    EXPECT_NE(line.find("=[at "), std::string::npos) << line;
    EXPECT_TRUE(line.ends_with("()]")) << line;
  }
  EXPECT_EQ(hashes.size(), static_cast<std::size_t>(2 * kThreads * kTraces));
}

// --- Events and control calls.

TEST_F(lockThreads, sessionsRunThroughAllPhasesUnderLiveContention) {
  load("logLevel=1");
  const std::vector<fake::object*> all = makeLocks(4);
  fake::javaThread* const owner = vm.makeThread("owner");
  for (fake::object* const each : all) {
    vm.setOwner(each, owner);
  }
  std::atomic<bool> done{false};
  std::thread contenders([&] {
    onThreads([&](int index, fake::javaThread* thread) {
      setStack(thread, {"a.B.m" + std::to_string(index)});
      for (std::size_t i = 0; !done; ++i) {
        fake::object* const lock = all[i % all.size()];
        vm.contendedEnter(thread, lock, fake::delivery::ifEnabled);
        vm.contendedEntered(thread, lock, fake::delivery::ifEnabled);
        vm.monitorWait(thread, lock, 0);
        vm.monitorWaited(thread, lock, false);
        vm.advance(1000);
      }
    });
  });
  for (int session = 1; session <= 50; ++session) {
    EXPECT_EQ(startProfiling({.id = session}), 1);
    startSummary();
    startDetail();
    if (session % 2 == 0) {
      startDetail();
    }
    stopDetail();
    stopSummary();
    EXPECT_EQ(stopProfiling(), 1);
    const std::string text = readFile(reportPath());
    EXPECT_TRUE(nlohmann::ordered_json::accept(text)) << text;
  }
  done = true;
  contenders.join();

  beginDetail({all.front()}, {.id = 1000});
  onThreads([&](int, fake::javaThread* thread) {
    for (int round = 0; round < kRounds; ++round) {
      contend(thread, all.front());
    }
  });
  EXPECT_EQ(lockBeanOf(all.front())->count, static_cast<std::uint32_t>(kThreads * kRounds))
      << "and the next session counts exactly";
}

TEST_F(lockThreads, newSettingsDuringEventsLoseNothingOfTheLastSession) {
  load("logLevel=1");
  const std::vector<fake::object*> all = makeLocks(4);
  beginSummary();
  std::atomic<bool> done{false};
  std::thread contenders([&] {
    onThreads([&](int, fake::javaThread* thread) {
      for (std::size_t i = 0; !done; ++i) {
        vm.contendedEnter(thread, all[i % all.size()]);
        vm.contendedEntered(thread, all[i % all.size()]);
      }
    });
  });
  for (int session = 0; session < 100; ++session) {
    beginSummary({.id = session, .locks = 2});
  }
  done = true;
  contenders.join();
  EXPECT_LE(lockCount(), 2U);
}

TEST_F(lockThreads, rankingDuringEventsKeepsCountsWithinWhatHappened) {
  load("logLevel=1");
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock});
  std::atomic<bool> done{false};
  std::thread ranker([&] {
    vm.attach();
    while (!done) {
      locks()->sortData();
      takeRanked();
    }
    vm.detach();
  });
  onThreads([&](int, fake::javaThread* thread) {
    for (int round = 0; round < kRounds; ++round) {
      contend(thread, lock);
    }
  });
  done = true;
  ranker.join();
  EXPECT_LE(lockBeanOf(lock)->count, static_cast<std::uint32_t>(kThreads * kRounds));
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(threadOf(lock, nameOfThread(i))->count, static_cast<std::uint32_t>(kRounds))
        << "the ranking does not touch threads";
  }
}

TEST_F(lockThreads, switchingTheProfilerDuringEventsIsSafe) {
  load("logLevel=1");
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock});
  std::atomic<bool> done{false};
  std::thread contenders([&] {
    onThreads([&](int, fake::javaThread* thread) {
      while (!done) {
        vm.contendedEnter(thread, lock);
        vm.contendedEntered(thread, lock);
      }
    });
  });
  for (int i = 0; i < 300; ++i) {
    agent::getRegistry()->switchProfiler(agent::kMutexLockProfiler, i % 2 == 0);
    locks()->setState(1 + i % 4);
  }
  done = true;
  contenders.join();
}

TEST_F(lockThreads, unloadingDuringEventsIsSafe) {
  load("logLevel=1");
  fake::object* const lock = makeLocks(1).front();
  beginDetail({lock});
  std::atomic<bool> done{false};
  std::latch running(kThreads);
  std::thread contenders([&] {
    onThreads([&](int, fake::javaThread* thread) {
      contend(thread, lock);
      running.count_down();
      while (!done) {
        vm.contendedEnter(thread, lock);
        vm.contendedEntered(thread, lock);
      }
    });
  });
  running.wait();
  unload();
  done = true;
  contenders.join();
  EXPECT_EQ(locks(), nullptr);
}

// --- A handler that is stuck in the VM, as threads are for good when the VM ends.

class lockThreadsStuck : public lockThreads, public ::testing::WithParamInterface<const char*> {
 protected:
  // Has a contended entry get stuck in the call of the parameter, runs `control`, then lets the
  // entry go on. A control call that waited for the handler would never return.
  void whileAnEntryIsStuck(const std::function<void()>& control) {
    std::latch reached(1);
    std::latch release(1);
    fake::javaThread* const stuck = vm.makeThread("stuck");
    setStack(stuck, {"a.B.m", "a.B.n"});
    std::atomic<bool> once{false};
    vm.on(GetParam(), [&](const fake::call&) {
      if (vm.currentThread() != stuck || once.exchange(true)) {
        return;
      }
      reached.count_down();
      release.wait();
    });
    fake::attachedThread handler(vm, stuck, [&](JNIEnv*) {
      vm.contendedEnter(stuck, lock);
      vm.contendedEntered(stuck, lock);
      if (!once) {
        reached.count_down();
        ADD_FAILURE() << "the handlers make no such call";
      }
    });
    reached.wait();
    control();
    release.count_down();
    handler.join();
    vm.off(GetParam());
  }

  fake::object* lock = vm.makeObject("a.Lock");
};

TEST_P(lockThreadsStuck, unloadingDoesNotWaitForIt) {
  load("logLevel=1");
  beginDetailWithOwner(lock, vm.makeThread("stuck"), vm.makeThread("other"));
  whileAnEntryIsStuck([&] {
    unload();
    EXPECT_EQ(locks(), nullptr);
  });
  vm.checkNothingHeld();
}

TEST_P(lockThreadsStuck, newSettingsDoNotWaitForIt) {
  load("logLevel=1");
  beginDetailWithOwner(lock, vm.makeThread("stuck"), vm.makeThread("other"));
  whileAnEntryIsStuck([&] { EXPECT_EQ(startProfiling({.id = 43}), 1); });
  EXPECT_EQ(config().sessionId, 43);
}

TEST_P(lockThreadsStuck, aWholeSessionEndAndStartDoNotWaitForIt) {
  load("logLevel=1");
  beginDetailWithOwner(lock, vm.makeThread("stuck"), vm.makeThread("other"));
  whileAnEntryIsStuck([&] {
    stopDetail();
    stopSummary();
    EXPECT_EQ(stopProfiling(), 1);
    EXPECT_TRUE(report().contains("lockmap"));
    beginDetail({lock}, {.id = 43});
  });
  EXPECT_EQ(config().sessionId, 43);
}

TEST_P(lockThreadsStuck, otherThreadsGoOn) {
  load("logLevel=1");
  beginDetailWithOwner(lock, vm.makeThread("stuck"), vm.makeThread("other"));
  whileAnEntryIsStuck([&] {
    contend(vm.makeThread("free"), lock);
    ASSERT_NE(threadOf(lock, "free"), nullptr);
    EXPECT_EQ(threadOf(lock, "free")->count, 1U);
  });
}

INSTANTIATE_TEST_SUITE_P(lockThreads, lockThreadsStuck,
                         ::testing::Values("GetTime", "SetThreadLocalStorage", "GetObjectClass",
                                           "GetObjectHashCode", "GetThreadInfo",
                                           "GetObjectMonitorUsage", "GetStackTrace",
                                           "GetMethodName", "GetMethodDeclaringClass",
                                           "GetClassSignature", "GetThreadLocalStorage",
                                           "Deallocate", "DeleteLocalRef"));

}  // namespace
