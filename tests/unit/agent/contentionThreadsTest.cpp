// Many threads in the handlers of the contention profile at once, among themselves and with its own
// thread and control calls. Meant for a thread sanitizer as much as for what is counted here.
#include <atomic>
#include <barrier>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "contentionProfileTest.h"
#include "contentionTest.h"

namespace {

using namespace test;
using agent::blockedThreads;
using agent::channel;

constexpr int kThreads = 6;
constexpr int kRounds = 150;

// Runs `body(index, thread)` on kThreads attached threads, and `beside` on one more until they are
// done.
void onThreads(fake::virtualMachine& vm, const std::function<void(int, fake::javaThread*)>& body,
               const std::function<void()>& beside) {
  std::latch start(kThreads);
  std::atomic<bool> isOver{false};
  std::vector<std::unique_ptr<fake::attachedThread>> threads;
  for (int i = 0; i < kThreads; ++i) {
    fake::javaThread* const java = vm.makeThread("T" + std::to_string(i));
    threads.push_back(std::make_unique<fake::attachedThread>(vm, java, [&, i, java](JNIEnv*) {
      start.arrive_and_wait();
      body(i, java);
    }));
  }
  fake::attachedThread other(vm, "beside", [&](JNIEnv*) {
    while (!isOver) {
      beside();
      std::this_thread::yield();
    }
  });
  for (const auto& each : threads) {
    each->join();
  }
  isOver = true;
}

class contentionThreads : public contentionTest {
 protected:
  // Looks, with all upkeep each time.
  void lookAtThem() {
    const std::lock_guard hold(samplesMutex);
    now += 100 * kMilli;
    step(std::max(now, instruments::steadyNanos()));
  }
  nlohmann::json written() {
    const std::lock_guard hold(samplesMutex);
    return contentionReport(std::max(now, instruments::steadyNanos()));
  }

  // While no look holds the lock.
  void collect(fake::object* unreachable) {
    const std::lock_guard hold(samplesMutex);
    vm.collect(unreachable);
  }

  std::mutex samplesMutex;  // as the profile's own
  std::int64_t now = instruments::steadyNanos();
};

TEST_F(contentionThreads, fewLocksAreCountedExactly) {
  begin({.budgetPercent = 100, .stuckMillis = 100});
  fake::object* const one = vm.makeObject("com.example.One");
  fake::object* const two = vm.makeObject(types.fairLock);
  vm.setOwner(one, vm.makeThread("holder"));
  onThreads(
      vm,
      [&](int, fake::javaThread* thread) {
        for (int round = 0; round < kRounds; ++round) {
          enter(thread, one);
          entered(thread);
          wait(thread, one);
          waited(thread);
          acquire(thread);
          park(thread, two);
          unpark(thread);
          park(thread, two);
          unpark(thread);
        }
      },
      [&] {
        lookAtThem();
        written();
      });
  constexpr auto kEach = std::uint64_t{kThreads} * kRounds;
  EXPECT_EQ(totalsOf(one).entries, kEach);
  EXPECT_EQ(totalsOf(one, channel::wait).entries, kEach);
  EXPECT_EQ(totalsOf(two, channel::park).entries, kEach);
  const agent::blockTotals totals = totalsOf(two, channel::park);
  EXPECT_EQ(std::accumulate(totals.histogram.begin(), totals.histogram.end(), std::uint64_t{0}),
            kEach);
  EXPECT_EQ(recorder->omitted().startsNotSeen, 0U);
  const nlohmann::json report = written();
  for (const nlohmann::json& each : report.at("locks")) {
    EXPECT_EQ(each.at("stillBlocked"), 0);
  }
}

TEST_F(contentionThreads, locksThatComeAndGoAreCountedExactly) {
  begin({.locks = 64, .budgetPercent = 100});
  std::vector<fake::object*> lasting;
  for (int i = 0; i < 40; ++i) {
    lasting.push_back(vm.makeObject("com.example.Lasting"));
  }
  fake::javaClass* const passing = vm.makeClass("com.example.Passing");
  onThreads(
      vm,
      [&](int index, fake::javaThread* thread) {
        for (int round = 0; round < kRounds; ++round) {
          enter(thread, lasting[static_cast<std::size_t>(index + round) % lasting.size()]);
          entered(thread);
          fake::object* const made = vm.makeObject(passing);
          enter(thread, made);
          entered(thread);
          collect(made);
        }
      },
      [&] { lookAtThem(); });
  EXPECT_EQ(allEntries(), std::uint64_t{2} * kThreads * kRounds);
  EXPECT_EQ(recorder->omitted().startsNotSeen, 0U);
}

// The window sums of all the time are those of the counts.
TEST_F(contentionThreads, windowsAddUpToTheCounts) {
  begin({.locks = 64, .budgetPercent = 100, .windowMillis = 1000});
  fake::javaClass* const passing = vm.makeClass("com.example.Passing");
  onThreads(
      vm,
      [&](int, fake::javaThread* thread) {
        for (int round = 0; round < kRounds; ++round) {
          fake::object* const made = vm.makeObject(passing);
          enter(thread, made);
          entered(thread);
          collect(made);
        }
      },
      [&] { lookAtThem(); });
  const nlohmann::json report = written();
  std::uint64_t entries = 0;
  for (const nlohmann::json& each : report.at("windows")) {
    entries += each.at("entries").get<std::uint64_t>();
  }
  if (report.at("omitted").at("windows") == 0) {
    EXPECT_EQ(entries, std::uint64_t{kThreads} * kRounds);
  }
  EXPECT_EQ(allEntries(), std::uint64_t{kThreads} * kRounds);
}

// Whoever meets a lock at the same time goes on with the same record.
TEST_F(contentionThreads, anAcquisitionOfANewLockCountsOnce) {
  begin({.locks = 65536});
  std::vector<fake::object*> fresh;
  for (int i = 0; i < kRounds; ++i) {
    fresh.push_back(vm.makeObject(types.fairLock));
  }
  // Each thread has looked for the lock in vain when the first one makes its record known.
  std::barrier together(kThreads);
  vm.on("NewWeakGlobalRef", [&](const fake::call& call) {
    if (call.target->type == types.fairLock) {
      together.arrive_and_wait();
    }
  });
  onThreads(
      vm,
      [&](int, fake::javaThread* thread) {
        for (fake::object* const each : fresh) {
          acquire(thread);
          park(thread, each);
          unpark(thread);
          park(thread, each);
          unpark(thread);
          together.arrive_and_wait();
        }
      },
      [] {});
  EXPECT_EQ(allEntries(), std::uint64_t{kThreads} * kRounds);
}

// --- The slots alone.

class blockedThreadsTest : public fake::vmTest {
 protected:
  std::unique_ptr<blockedThreads> slots = std::make_unique<blockedThreads>();
  // What the profile's thread sees: each block, with its thread.
  void readAll(
      const std::function<void(JNIEnv*, std::uint32_t, const agent::blockedThread&)>& see) {
    vm.native([&](JNIEnv* jni) {
      for (std::uint32_t i = 0; i < slots->end(); ++i) {
        agent::blockedThread found{};
        if (slots->read(i, found)) {
          see(jni, i, found);
        }
      }
    });
  }
};

TEST_F(blockedThreadsTest, slotsAndReferencesAreNeverLost) {
  std::atomic<std::uint64_t> wrong{0};
  onThreads(
      vm,
      [&](int index, fake::javaThread* thread) {
        for (int round = 0; round < 20 * kRounds; ++round) {
          vm.native([&](JNIEnv* jni) {
            const auto place = static_cast<std::uint32_t>(index);
            const bool hasReference = round % 3 != 0;
            const blockedThreads::token taken =
                slots->enter({.place = place, .since = round, .before = place},
                             hasReference ? jni->NewGlobalRef(vm.ref(thread)) : nullptr);
            blockedThreads::block found;
            const bool isRead = taken.slot != blockedThreads::kNone && slots->read(taken, found);
            wrong += isRead && found.place == place && found.since == round ? 0 : 1;
            slots->leave(jni, taken);
            wrong += slots->read(taken, found) ? 1 : 0;
          });
        }
      },
      [&] {
        readAll([&](JNIEnv* jni, std::uint32_t slot, const agent::blockedThread& found) {
          wrong += found.place < kThreads ? 0 : 1;
          if (jthread const thread = slots->threadOf(jni, slot, found)) {
            const auto* const seen = static_cast<fake::javaThread*>(vm.target(thread));
            wrong += *seen->name.load() == "T" + std::to_string(found.place) ? 0 : 1;
            slots->adopt(jni, slot, found, thread);
            jni->DeleteLocalRef(thread);
          }
        });
      });
  EXPECT_EQ(wrong, 0U);
  EXPECT_EQ(vm.globalReferences(), 0U);
  readAll([](JNIEnv*, std::uint32_t slot, const agent::blockedThread&) {
    ADD_FAILURE() << "slot " << slot << " is taken";
  });
}

TEST_F(blockedThreadsTest, aThreadMayLeaveWhileItsBlockIsDropped) {
  onThreads(
      vm,
      [&](int index, fake::javaThread* thread) {
        for (int round = 0; round < 20 * kRounds; ++round) {
          vm.native([&](JNIEnv* jni) {
            const blockedThreads::token taken =
                slots->enter({.place = static_cast<std::uint32_t>(index), .since = round},
                             jni->NewGlobalRef(vm.ref(thread)));
            slots->leave(jni, taken);
          });
        }
      },
      [&] {
        readAll([&](JNIEnv* jni, std::uint32_t slot, const agent::blockedThread& found) {
          slots->drop(jni, slot, found);
        });
      });
  EXPECT_EQ(vm.globalReferences(), 0U);
  readAll([](JNIEnv*, std::uint32_t, const agent::blockedThread&) { ADD_FAILURE(); });
}

// --- The whole profile.

class contentionProfileThreads : public contentionProfileTest {};

TEST_F(contentionProfileThreads, sessionsBeginAndEndAmongEvents) {
  std::atomic<bool> isOver{false};
  fake::attachedThread ownThread(vm, "runs agent threads", [&](JNIEnv*) {
    while (!isOver) {
      vm.runAgentThreads();
      std::this_thread::yield();
    }
  });
  fake::object* const waited = vm.makeObject("com.example.Queue");
  const auto blockOnce = [&](fake::javaThread* thread) {
    vm.contendedEnter(thread, lock);
    vm.contendedEntered(thread, lock);
    vm.monitorWait(thread, waited, 0);
    vm.monitorWaited(thread, waited, false);
  };
  int sessions = 0;
  onThreads(
      vm,
      [&](int, fake::javaThread* thread) {
        for (int round = 0; round < 10 * kRounds; ++round) {
          blockOnce(thread);
        }
      },
      [&] {
        EXPECT_EQ(start({.samplesPerSecond = 1000, .budgetPercent = 100}), "");
        snapshot();
        EXPECT_TRUE(stop());
        snapshot();
        ++sessions;
      });
  EXPECT_GT(sessions, 0);
  EXPECT_EQ(start({.samplesPerSecond = 1000, .budgetPercent = 100}), "");
  onThreads(
      vm,
      [&](int, fake::javaThread* thread) {
        for (int round = 0; round < kRounds; ++round) {
          blockOnce(thread);
        }
      },
      [&] { snapshot(); });
  const nlohmann::json report = snapshot();
  for (const char* const cls : {"com.example.Stock", "com.example.Queue"}) {
    std::uint64_t entries = 0;
    for (const nlohmann::json& each : report.at("locks")) {
      entries += each.at("class") == cls ? each.at("entries").get<std::uint64_t>() : 0;
    }
    EXPECT_EQ(entries, std::uint64_t{kThreads} * kRounds) << cls;
  }
  EXPECT_EQ(report.at("omitted").at("startsNotSeen"), 0);
  EXPECT_TRUE(stop());
  isOver = true;
}

}  // namespace
