// What tests of the contention profile share: its parts on the fake VM, where the test plays the
// profile, its events and its thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agentTest.h"
#include "contention/blockRecorder.h"
#include "contention/contentionReport.h"
#include "contention/contentionSampler.h"
#include "contention/contentionSamples.h"
#include "instruments/costAccount.h"

namespace test {

inline constexpr std::int64_t kMicro = 1'000;
inline constexpr std::int64_t kMilli = 1'000'000;

// The classes by which locks are told from other parks, in the VM.
struct parkTypes {
  explicit parkTypes(fake::virtualMachine& vm);

  fake::javaClass* synchronizer;
  fake::javaClass* latch;
  fake::javaClass* stampedLock;
  fake::javaClass* pool;
  fake::javaClass* unfairLock;
  fake::javaClass* fairLock;
  fake::javaClass* semaphore;
  fake::javaClass* condition;
  fake::javaClass* virtualThread;
  fake::field* owner;
};

inline parkTypes::parkTypes(fake::virtualMachine& vm) {
  const std::string concurrent = "java.util.concurrent.";
  synchronizer = vm.makeClass(concurrent + "locks.AbstractOwnableSynchronizer");
  latch = vm.makeClass(concurrent + "CountDownLatch$Sync", synchronizer);
  stampedLock = vm.makeClass(concurrent + "locks.StampedLock");
  pool = vm.makeClass(concurrent + "ForkJoinPool");
  unfairLock = vm.makeClass(concurrent + "locks.ReentrantLock$NonfairSync", synchronizer);
  fairLock = vm.makeClass(concurrent + "locks.ReentrantLock$FairSync", synchronizer);
  semaphore = vm.makeClass(concurrent + "Semaphore$NonfairSync", synchronizer);
  condition = vm.makeClass(concurrent + "locks.AbstractQueuedSynchronizer$ConditionObject");
  virtualThread = vm.makeClass("java.lang.BaseVirtualThread", vm.classNamed("java.lang.Thread"));
  owner = vm.makeField(synchronizer, "exclusiveOwnerThread", "Ljava/lang/Thread;");
}

class contentionTest : public agentTest {
 protected:
  contentionTest();
  void TearDown() override;

  // A session. It is ended, and all its references are deleted, at the end of the test.
  void begin(const agent::contentionSettings& settings = {}, bool canCheck = true);

  // Runs `body` on the calling thread as this Java thread, as a handler of an event.
  void as(fake::javaThread* thread, std::function<void(JNIEnv*)> body);

  // The events of a thread.
  void enter(fake::javaThread* thread, fake::object* lock) {
    begins(thread, agent::channel::enter, lock);
  }
  void entered(fake::javaThread* thread) { ends(thread, agent::channel::enter); }
  void wait(fake::javaThread* thread, fake::object* lock) {
    begins(thread, agent::channel::wait, lock);
  }
  void waited(fake::javaThread* thread, bool timedOut = false) {
    as(thread, [&](JNIEnv* jni) { recorder->waitEnds(vm.jvmti(), jni, timedOut); });
  }
  void acquire(fake::javaThread* thread) {
    as(thread, [&](JNIEnv*) { recorder->acquisitionBegins(vm.jvmti()); });
  }
  void park(fake::javaThread* thread, fake::object* blocker) {
    begins(thread, agent::channel::park, blocker);
  }
  void unpark(fake::javaThread* thread) { ends(thread, agent::channel::park); }

  // What the profile's thread does at this time.
  void step(std::int64_t now) {
    as(samplerThread, [&, now](JNIEnv* jni) { sampler->step(vm.jvmti(), jni, now); });
  }

  // The counts of a lock that has records, and those of its class.
  agent::blockTotals totalsOf(fake::object* lock, agent::channel by = agent::channel::enter) const;
  agent::blockTotals totalsOf(fake::javaClass* cls,
                              agent::channel by = agent::channel::enter) const;
  // The blocks of all locks, with and without record.
  std::uint64_t allEntries() const;
  std::size_t recordCount() const;

  // The report as of `now`.
  nlohmann::json contentionReport(std::int64_t now);
  // The only lock of that class in a report's member; null when there is none.
  static nlohmann::json lockIn(const nlohmann::json& report, std::string_view cls,
                               const char* member = "locks");

  fake::javaThread* makeVirtual(std::string_view name) {
    fake::javaThread* const made = vm.makeVirtualThread(name);
    made->type = types.virtualThread;
    return made;
  }

  const parkTypes types{vm};
  fake::javaThread* const samplerThread = vm.makeThread("sampler");
  std::unique_ptr<agent::blockRecorder> recorder = std::make_unique<agent::blockRecorder>();
  std::unique_ptr<agent::contentionSamples> samples = std::make_unique<agent::contentionSamples>();
  std::unique_ptr<agent::contentionSampler> sampler =
      std::make_unique<agent::contentionSampler>(*recorder, *samples);
  agent::contentionSession session;

 private:
  void begins(fake::javaThread* thread, agent::channel by, fake::object* lock) {
    as(thread, [&](JNIEnv* jni) {
      const bool isPark = by == agent::channel::park;
      recorder->blockBegins(vm.jvmti(), jni, isPark ? vm.ref(thread) : nullptr, vm.ref(thread), by,
                            vm.ref(lock));
    });
  }
  void ends(fake::javaThread* thread, agent::channel by) {
    as(thread, [&](JNIEnv* jni) { recorder->blockEnds(vm.jvmti(), jni, nullptr, by); });
  }

  static inline thread_local std::function<void(JNIEnv*)> body_;
  agent::parkClasses parks_;
  agent::ownerClasses owners_;
};

inline contentionTest::contentionTest() {
  jvmtiEventCallbacks callbacks{};
  callbacks.ThreadEnd = [](jvmtiEnv*, JNIEnv* jni, jthread) { body_(jni); };
  vm.jvmti()->SetEventCallbacks(&callbacks, sizeof callbacks);
  vm.jvmti()->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_THREAD_END, nullptr);
  const auto global = [&](fake::javaClass* cls) {
    return static_cast<jclass>(vm.env()->NewGlobalRef(vm.ref(cls)));
  };
  parks_ = {global(types.synchronizer), global(types.latch), global(types.stampedLock),
            global(types.pool)};
  owners_ = {parks_.synchronizer, types.owner->id, global(types.virtualThread)};
}

inline void contentionTest::TearDown() {
  vm.native([&](JNIEnv* jni) {
    recorder->end();
    recorder->threads().dropAll(jni);
    recorder->locks().begin(jni, agent::contentionSettings::kFewestLocks);
    sampler.reset();
    samples.reset();
    for (jclass const each : {parks_.synchronizer, parks_.latch, parks_.stampedLock, parks_.pool,
                              owners_.virtualThread}) {
      jni->DeleteGlobalRef(each);
    }
  });
  agentTest::TearDown();
}

inline void contentionTest::begin(const agent::contentionSettings& settings, bool canCheck) {
  vm.native([&](JNIEnv* jni) {
    session = {settings, instruments::steadyNanos(), 0, "exact"};
    sampler->begin(settings, owners_, canCheck, session.started);
    recorder->begin(jni, settings.locks, parks_);
  });
}

inline void contentionTest::as(fake::javaThread* thread, std::function<void(JNIEnv*)> body) {
  body_ = std::move(body);
  vm.threadEnd(thread);
}

inline agent::blockTotals contentionTest::totalsOf(fake::object* lock, agent::channel by) const {
  agent::blockTotals sum;
  const agent::lockTable& locks = recorder->locks();
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    const agent::lockRecord& record = locks.at(i);
    if (locks.isLive(i) && record.by == by && record.hash == lock->hash) {
      sum.add(record.counts.read());
    }
  }
  return sum;
}

inline agent::blockTotals contentionTest::totalsOf(fake::javaClass* cls, agent::channel by) const {
  agent::blockTotals sum;
  const agent::lockTable& locks = recorder->locks();
  for (std::uint32_t i = 1; i < agent::lockTable::kClasses; ++i) {
    if (locks.isClass(i) && locks.classAt(i).hash == cls->hash) {
      sum.add(locks.classAt(i).sums.at(static_cast<std::size_t>(by)).read());
    }
  }
  return sum;
}

inline std::uint64_t contentionTest::allEntries() const {
  std::uint64_t sum = 0;
  const agent::lockTable& locks = recorder->locks();
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    sum += locks.isLive(i) ? locks.at(i).counts.entries() : 0;
  }
  for (std::uint32_t i = 0; i < agent::lockTable::kClasses; ++i) {
    for (const agent::blockCounts& each : locks.classAt(i).sums) {
      sum += each.entries();
    }
  }
  return sum;
}

inline std::size_t contentionTest::recordCount() const {
  std::size_t count = 0;
  for (std::uint32_t i = 0; i < recorder->locks().end(); ++i) {
    count += recorder->locks().isLive(i) ? 1 : 0;
  }
  return count;
}

inline nlohmann::json contentionTest::contentionReport(std::int64_t now) {
  support::jsonWriter json;
  vm.native([&](JNIEnv* jni) {
    sampler->catchUp(vm.jvmti(), jni, now);
    writeContentionReport(json, jni, session, *recorder, *samples, *sampler, now);
  });
  return nlohmann::json::parse(json.text());
}

inline nlohmann::json contentionTest::lockIn(const nlohmann::json& report, std::string_view cls,
                                             const char* member) {
  nlohmann::json found;
  for (const nlohmann::json& each : report.at(member)) {
    if (each.at("class") == cls) {
      EXPECT_TRUE(found.is_null()) << "more than one " << cls;
      found = each;
    }
  }
  return found;
}

}  // namespace test
