// The lock profiler when the VM refuses calls, memory runs out, classes go away, arguments are
// missing, and sessions are driven in any order.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "lockTest.h"

// --- Memory that runs out: the n-th allocation of this thread fails while a countdown runs.

namespace {

thread_local long allocationsUntilFailure = -1;  // below 0: none fails
std::atomic<long> blocksHeld{0};                 // by all threads

void* allocate(std::size_t size) {
  if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0) {
    return nullptr;
  }
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block != nullptr) {
    blocksHeld.fetch_add(1, std::memory_order_relaxed);
  }
  return block;
}

void release(void* block) {
  if (block != nullptr) {
    blocksHeld.fetch_sub(1, std::memory_order_relaxed);
  }
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* const block = allocate(size)) {
    return block;
  }
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
  return allocate(size);
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  release(block);
}
void operator delete(void* block, const std::nothrow_t& /*unused*/) noexcept {
  release(block);
}

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class lockFaults : public lockTest {
 protected:
  fake::object* lock = vm.makeObject("a.Lock");
  fake::javaThread* thread = vm.makeThread("T");
  fake::javaThread* other = vm.makeThread("other");
};

// --- Every call refused in turn, for each handler in each phase, on known and unknown locks.

enum class event { enter, entered, wait, waited };
enum class phase { profiling, summary, detail };

struct situation {
  event what;
  phase when;
  bool known;  // whether the lock is recorded already
};

std::string nameOfSituation(const ::testing::TestParamInfo<situation>& info) {
  const char* const what[] = {"enter", "entered", "wait", "waited"};
  const char* const when[] = {"Profiling", "Summary", "Detail"};
  return std::string(what[static_cast<int>(info.param.what)]) +
         when[static_cast<int>(info.param.when)] + (info.param.known ? "Known" : "New");
}

std::vector<situation> allSituations() {
  std::vector<situation> all;
  for (const event what : {event::enter, event::entered, event::wait, event::waited}) {
    for (const phase when : {phase::profiling, phase::summary, phase::detail}) {
      for (const bool known : {false, true}) {
        all.push_back({what, when, known});
      }
    }
  }
  return all;
}

// Calls that cannot fail, or that only end what another one began.
bool cannotFail(const std::string& call) {
  static const std::set<std::string> names = {"Deallocate",
                                              "DeleteLocalRef",
                                              "DeleteWeakGlobalRef",
                                              "ExceptionCheck",
                                              "ExceptionClear",
                                              "ExceptionOccurred",
                                              "GetEnv",
                                              "IsSameObject",
                                              "PopLocalFrame",
                                              "ReleaseStringUTFChars"};
  return names.contains(call);
}

// Calls that leave a Java exception behind when they fail.
bool throwsWhenFailing(const std::string& call) {
  static const std::set<std::string> names = {"CallObjectMethodV", "GetMethodID",
                                              "GetStringUTFChars", "NewWeakGlobalRef",
                                              "PushLocalFrame"};
  return names.contains(call);
}

class lockFaultsOf : public lockFaults, public ::testing::WithParamInterface<situation> {
 protected:
  // A profiler that knows no class yet, in the phase asked for; the thread is a known owner of the
  // selected lock `lock`.
  void begin() {
    agent::getRegistry()->createProfiler(agent::kMutexLockProfiler);
    takeRanked();
    thread->storage = nullptr;
    beginDetailWithOwner(lock, thread, other);
    if (GetParam().when == phase::profiling) {
      locks()->setState(agent::kLockProfiling);
    }
    if (GetParam().when == phase::summary) {
      locks()->setState(agent::kLockSummary);
    }
    setStack(thread, {"a.B.m", "a.B.n"});
    subject = GetParam().known ? lock : vm.makeObject(vm.makeClass("fresh.Lock"));
    if (GetParam().what == event::entered) {
      vm.contendedEnter(thread, subject);
    }
    if (GetParam().what == event::waited) {
      vm.monitorWait(thread, subject, 0);
    }
    vm.resetCalls();
  }

  void run() {
    switch (GetParam().what) {
      case event::enter:
        vm.contendedEnter(thread, subject);
        break;
      case event::entered:
        vm.contendedEntered(thread, subject);
        break;
      case event::wait:
        vm.monitorWait(thread, subject, 0);
        break;
      case event::waited:
        vm.monitorWaited(thread, subject, false);
        break;
    }
  }

  // How often the event makes each call that `wanted` holds for.
  std::map<std::string, unsigned> callsOfEvent(
      const std::function<bool(const std::string&)>& wanted) {
    begin();
    run();
    std::map<std::string, unsigned> calls;
    for (const std::string& each : vm.callNames()) {
      if (wanted(each)) {
        calls[each] = static_cast<unsigned>(vm.calls(each));
      }
    }
    return calls;
  }

  void expectTheNextEventCounts() {
    const std::uint32_t before = lockBeanOf(lock)->count;
    vm.contendedEnter(other, lock);
    EXPECT_EQ(lockBeanOf(lock)->count, before + 1);
    if (GetParam().when == phase::detail) {
      EXPECT_EQ(threadOf(lock, "other")->count, 2U);
    }
  }

  fake::object* subject = nullptr;
};

TEST_P(lockFaultsOf, everyRefusedCallIsSurvived) {
  load("logLevel=4");
  const auto calls = callsOfEvent([](const std::string& name) { return !cannotFail(name); });
  if (GetParam().what == event::waited && GetParam().when != phase::detail) {
    ASSERT_EQ(calls,
              (std::map<std::string, unsigned>{{"GetTime", 1}, {"SetThreadLocalStorage", 1}}))
        << "waits are measured in detail sessions only";
  }
  ASSERT_FALSE(calls.empty());
  for (const auto& [call, count] : calls) {
    for (unsigned from = 1; from <= count; ++from) {
      for (const unsigned times : {1U, fake::failure::kAlways}) {
        SCOPED_TRACE(call + " refused at time " + std::to_string(from) +
                     (times == 1 ? "" : " and ever after"));
        begin();
        vm.fail(call, {.error = times == 1 ? JVMTI_ERROR_OUT_OF_MEMORY : JVMTI_ERROR_WRONG_PHASE,
                       .from = from,
                       .times = times,
                       .throwing = throwsWhenFailing(call)});
        run();
        vm.succeed(call);
        expectTheNextEventCounts();
      }
    }
  }
}

// The same without an exception: some calls give nothing and say nothing.
TEST_P(lockFaultsOf, everyCallThatGivesNothingIsSurvived) {
  load("logLevel=4");
  const auto calls = callsOfEvent([](const std::string& name) { return throwsWhenFailing(name); });
  for (const auto& [call, count] : calls) {
    for (unsigned from = 1; from <= count; ++from) {
      SCOPED_TRACE(call + " gives nothing at time " + std::to_string(from));
      begin();
      vm.fail(call, {.from = from, .times = 1});
      run();
      vm.succeed(call);
      expectTheNextEventCounts();
    }
  }
}

TEST_P(lockFaultsOf, everyExceptionUnderWayEndsTheEventAndIsSaidOnce) {
  load("logLevel=1");
  const auto calls = callsOfEvent([](const std::string& name) {
    return !cannotFail(name) || name == "IsSameObject" || name == "ExceptionOccurred";
  });
  for (const auto& [call, count] : calls) {
    for (unsigned at = 1; at <= count; ++at) {
      SCOPED_TRACE("exception from " + call + " at time " + std::to_string(at));
      begin();
      const std::size_t saidBefore = errors().size();
      unsigned n = 0;
      vm.on(call, [&] {
        if (++n == at) {
          throw std::bad_alloc();
        }
      });
      run();
      vm.off(call);
      const std::vector<std::string> said = errors();
      EXPECT_EQ(said.size(), saidBefore + 1);
      EXPECT_THAT(said.back(), StartsWith("Exception occured in "));
      expectTheNextEventCounts();
    }
  }
}

TEST_P(lockFaultsOf, nullArgumentsAreSurvived) {
  load("logLevel=4");
  for (const bool nullThread : {false, true}) {
    begin();
    fake::javaThread* const wholeThread = thread;
    if (nullThread) {
      thread = nullptr;
    }
    run();
    subject = nullptr;
    run();
    thread = wholeThread;
    expectTheNextEventCounts();
  }
}

TEST_P(lockFaultsOf, deadVmIsSurvived) {
  load("logLevel=4");
  begin();
  vm.setPhase(JVMTI_PHASE_DEAD);
  run();
  vm.setPhase(JVMTI_PHASE_LIVE);
  expectTheNextEventCounts();
}

INSTANTIATE_TEST_SUITE_P(lockFaults, lockFaultsOf, ::testing::ValuesIn(allSituations()),
                         nameOfSituation);

// --- What single failures lead to.

TEST_F(lockFaults, eventWithoutATimeCountsButAddsNoTime) {
  load();
  beginDetail({lock});
  vm.fail("GetTime");
  contend(thread, lock, 500);
  EXPECT_EQ(lockBeanOf(lock)->count, 1U);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
}

TEST_F(lockFaults, entryWithoutATimeLeavesNoStart) {
  load();
  beginDetail({lock});
  vm.fail("GetTime", {.times = 1});
  contend(thread, lock, 500);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U) << "not the time since the machine started";
}

TEST_F(lockFaults, storageThatCannotBeReadIsNoKnownStart) {
  load();
  beginDetail({lock});
  vm.fail("GetThreadLocalStorage");
  contend(thread, lock, 500);
  wait(thread, lock, 500);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 0U);
}

TEST_F(lockFaults, timeThatGoesBackAddsNothing) {
  load();
  beginDetail({lock});
  contend(thread, lock, -500);
  wait(thread, lock, -500);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 0U);
  EXPECT_EQ(lockBeanOf(lock)->totalWaitTime, 0U);
}

TEST_F(lockFaults, javaExceptionFromGetNameIsClearedAndTheClassIsNamedNextTime) {
  load("logLevel=1");
  beginSummary();
  vm.fail("CallObjectMethod", {.name = "getName", .times = 1, .throwing = true});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(vm.pendingException(), nullptr);
  EXPECT_THAT(errors(), ElementsAre("object class is empty"));
  vm.contendedEnter(thread, lock);
  EXPECT_NE(lockBeanOf(lock), nullptr);
}

TEST_F(lockFaults, classesAreNamedWithoutWeakReferencesToo) {
  load();
  vm.fail("NewWeakGlobalRef", {.throwing = true});
  fake::object* const twin = vm.makeObject("b.Lock");
  twin->hash = lock->hash.load();
  beginSummary();
  for (int i = 0; i < 300; ++i) {
    contend(thread, lock, 1);
    contend(thread, twin, 2);
  }
  EXPECT_EQ(lockCount(), 2U);
  EXPECT_EQ(lockBeanOf(lock)->totalBlockTime, 300U);
  EXPECT_EQ(lockBeanOf(twin)->totalBlockTime, 600U);
  EXPECT_LT(locks()->classNameCount(), 100U) << "what cannot be found again is not piled up";
}

TEST_F(lockFaults, eventsWithoutWeakReferencesDoNotPileUpMemory) {
  load("logLevel=1");
  beginDetailWithOwner(lock, thread, other);
  setStack(thread, {"a.B.m", "a.B.n"});
  vm.fail("NewWeakGlobalRef");
  const auto heldAfter = [&](int events) {
    for (int i = 0; i < events; ++i) {
      contend(thread, lock, 1);
    }
    return blocksHeld.load();
  };
  const long first = heldAfter(200);
  EXPECT_LT(heldAfter(1000) - first, 500);
}

TEST_F(lockFaults, eventsDoNotPileUpMemory) {
  load("logLevel=1");
  beginDetailWithOwner(lock, thread, other);
  setStack(thread, {"a.B.m", "a.B.n"});
  const auto heldAfter = [&](int events) {
    for (int i = 0; i < events; ++i) {
      contend(thread, lock, 1);
      wait(thread, lock, 1);
    }
    return blocksHeld.load();
  };
  const long first = heldAfter(100);
  EXPECT_LT(heldAfter(1000) - first, 50);
}

// --- Memory that runs out in control calls.

TEST_F(lockFaults, settingsThatFindNoMemoryGive0AndAreSaid) {
  load("logLevel=3");
  bool failed = true;
  for (long n = 0; failed; ++n) {
    auto settings = std::make_unique<agent::LockSessionConfig>(1, "s", 60, 1, 1, 1, 1, 1, 1, "", 1);
    const std::size_t saidBefore = errors().size();
    allocationsUntilFailure = n;
    const std::int32_t result = locks()->setProfileData(std::move(settings));
    failed = allocationsUntilFailure < 0;
    allocationsUntilFailure = -1;
    if (failed && errors().size() > saidBefore) {
      EXPECT_EQ(result, 0) << "allocation " << n;
      EXPECT_EQ(errors().back(), "Exception occured in mutexlockprofiler : setProfileData");
      EXPECT_EQ(log().back().function, "mutexLockProfiler::setProfileData");
    } else {
      EXPECT_EQ(result, 1) << "allocation " << n;  // only a log line was lost
    }
    ASSERT_NE(locks()->store(), nullptr);
  }
  EXPECT_THAT(errors(), Contains("Exception occured in mutexlockprofiler : setProfileData"));
  EXPECT_EQ(startProfiling(), 1);
}

TEST_F(lockFaults, rankingThatFindsNoMemoryIsSaidAndTheNextOneWorks) {
  load("logLevel=1");
  fake::object* const second = vm.makeObject("b.Lock");
  bool failed = true;
  for (long n = 0; failed; ++n) {
    beginSummary();
    contend(thread, lock, 5);
    contend(thread, second, 5);
    const std::size_t saidBefore = errors().size();
    allocationsUntilFailure = n;
    locks()->sortData();
    failed = allocationsUntilFailure < 0;
    allocationsUntilFailure = -1;
    EXPECT_EQ(errors().size() - saidBefore, failed ? 1U : 0U) << "allocation " << n;
    takeRanked();
  }
  EXPECT_THAT(errors(), Contains("Exception occured in mutexlockprofiler : sortData"));
  locks()->sortData();
  EXPECT_TRUE(isSelected(lock));
  EXPECT_TRUE(isSelected(second));
}

TEST_F(lockFaults, reportThatFindsNoMemoryGives0AndIsSaid) {
  load("logLevel=1");
  const char* const said = "Exception occured in  mutexprofiler : dumpJsonObjectFromMapDS";
  bool failed = true;
  for (long n = 0; failed; ++n) {
    beginDetailWithOwner(lock, thread, other);
    contend(thread, lock, 5);
    std::int32_t result = 0;
    const std::size_t saidBefore = errors().size();
    vm.on("ReleaseStringUTFChars", [&] { allocationsUntilFailure = n; });
    vm.native([&](JNIEnv* jni) {
      const jstring path = vm.ref(vm.makeString(reportPath()));
      result = locks()->dumpJsonObjectFromMapDS(jni, path);
      failed = allocationsUntilFailure < 0;
      allocationsUntilFailure = -1;
    });
    vm.off("ReleaseStringUTFChars");
    EXPECT_EQ(result, failed ? 0 : 1) << "allocation " << n;
    EXPECT_EQ(errors().size() - saidBefore, failed ? 1U : 0U) << "allocation " << n;
  }
  EXPECT_THAT(errors(), Contains(said));
  EXPECT_TRUE(report().contains("blockingThreads"));
}

TEST_F(lockFaults, outOfMemoryIsNotSaidAtLevel0) {
  load("logLevel=0");
  beginSummary();
  contend(thread, lock);
  allocationsUntilFailure = 0;
  locks()->sortData();
  allocationsUntilFailure = -1;
  EXPECT_THAT(log(), IsEmpty());
}

// --- Session calls in any order.

TEST_F(lockFaults, sessionCallsInAnyOrderAreSurvived) {
  load("logLevel=1");
  const std::vector<std::function<void()>> calls = {
      [&] { startProfiling(); }, [&] { startSummary(); }, [&] { startDetail(); },
      [&] { stopSummary(); },    [&] { stopDetail(); },   [&] { stopProfiling(); }};
  const auto events = [&] {
    vm.contendedEnter(thread, lock);
    vm.contendedEntered(thread, lock);
    vm.monitorWait(thread, lock, 0);
    vm.monitorWaited(thread, lock, true);
  };
  const std::size_t n = calls.size();
  for (std::size_t order = 0; order < n * n * n * n; ++order) {
    for (std::size_t rest = order, step = 0; step < 4; ++step, rest /= n) {
      calls[rest % n]();
      events();
    }
  }
  beginDetail({lock});
  contend(thread, lock);
  EXPECT_EQ(lockBeanOf(lock)->count, 1U) << "after all that a session counts right";
}

TEST_F(lockFaults, sessionCallsWithoutALockProfilerDoNothing) {
  load("logLevel=1,features=memoryprofiling");
  EXPECT_EQ(startProfiling(), 0);
  startSummary();
  startDetail();
  stopDetail();
  stopSummary();
  EXPECT_EQ(stopProfiling(), 0);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_TRUE(vm.eventModes().empty());
}

TEST_F(lockFaults, sessionCallsAfterUnloadingDoNothing) {
  load("logLevel=1");
  beginDetail({lock});
  unload();
  EXPECT_EQ(startProfiling(), 0);
  startSummary();
  startDetail();
  stopDetail();
  stopSummary();
  EXPECT_EQ(stopProfiling(), 0);
  agent::freeRegistry();
}

TEST_F(lockFaults, twoHundredSessionsHoldNoMoreThanOne) {
  load("logLevel=1");
  for (int i = 0; i < 200; ++i) {
    beginDetailWithOwner(lock, thread, other, {.id = i});
    wait(thread, lock, 5);
    stopDetail();
    stopSummary();
    ASSERT_EQ(stopProfiling(), 1);
    ASSERT_EQ(report()["lockmap"][nameOf(lock)]["count"], 1) << "session " << i;
  }
  EXPECT_LE(vm.weakReferences(), 2U);
  EXPECT_EQ(vm.globalReferences(), 0U);
}

// --- Hostile names, through a whole session with every line logged.

TEST_F(lockFaults, hostileNamesGoThroughAWholeSession) {
  load("logLevel=4");
  std::string odd = "%s%n%99999d|=[]";
  for (char c = 1; c < 32; ++c) {
    odd += c;
  }
  odd += "\"\\\x7F\xC3\xA9\xED\xA0\xB4\xED\xB4\x9E\xC0\x80";
  fake::object* const oddLock = vm.makeObject(vm.makeClass(odd));
  fake::javaThread* const oddThread = vm.makeThread(odd);
  setStack(oddThread, {odd + "." + odd});
  beginDetailWithOwner(oddLock, oddThread, vm.makeThread(odd + "2"), {.name = odd});
  contend(oddThread, oddLock, 5);
  wait(oddThread, oddLock, 5);
  stopDetail();
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_EQ(lockBeanOf(oddLock)->count, 2U);
  EXPECT_EQ(threadOf(oddLock, odd)->count, 1U);
}

TEST_F(lockFaults, veryLongNamesAreKeptWhole) {
  load("logLevel=4");
  const std::string name(50000, 'n');
  fake::object* const longLock = vm.makeObject(vm.makeClass(name));
  beginDetail({longLock});
  contend(vm.makeThread(name), longLock);
  stopDetail();
  ASSERT_EQ(stopProfiling(), 1);
  EXPECT_TRUE(report()["lockmap"][nameOf(longLock)]["threadbean"].contains(name));
}

// --- Classes that are unloaded. The VM reports references that hold one.

class lockFaultsUnloading : public lockFaults {
 protected:
  fake::javaClass* makeClass(const char* name, jint hash) {
    fake::javaClass* const made = vm.makeClass(name);
    made->hash = hash;
    return made;
  }
  fake::object* makeLock(fake::javaClass* type, jint hash) {
    fake::object* const made = vm.makeObject(type);
    made->hash = hash;
    return made;
  }
};

TEST_F(lockFaultsUnloading, profilerHoldsNoClassAlive) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.Lock.m"});
  contend(thread, lock);
  thread->setFrames({});
  vm.unload(lock->type);
  stopDetail();
  ASSERT_EQ(stopProfiling(), 1);
  EXPECT_EQ(report()["lockmap"].size(), 1U) << "what was recorded stays";
}

TEST_F(lockFaultsUnloading, classOfTheSameNameStartsAsALockOfItsOwn) {
  load();
  fake::object* const before = makeLock(makeClass("gone.Lock", 11), 5);
  beginSummary();
  contend(thread, before, 100);
  vm.unload(before->type);
  fake::object* const after = makeLock(makeClass("gone.Lock", 12), 6);
  contend(thread, after, 7);
  EXPECT_EQ(lockBeanOf(before)->totalBlockTime, 100U);
  EXPECT_EQ(lockBeanOf(after)->totalBlockTime, 7U);
  EXPECT_EQ(lockBeanOf(after)->count, 1U);
}

TEST_F(lockFaultsUnloading, objectOfTheSameClassNameAndHashIsTheSameLock) {
  load();
  fake::object* const before = makeLock(makeClass("gone.Lock", 11), 5);
  beginSummary();
  contend(thread, before, 100);
  vm.unload(before->type);
  fake::object* const after = makeLock(makeClass("gone.Lock", 12), 5);
  contend(thread, after, 7);
  EXPECT_EQ(lockCount(), 1U) << "a lock is what its name says";
  EXPECT_EQ(lockBeanOf(after)->count, 2U);
  EXPECT_EQ(lockBeanOf(after)->totalBlockTime, 107U);
}

TEST_F(lockFaultsUnloading, otherClassInThePlaceOfAnUnloadedOneHasItsOwnName) {
  load();
  fake::object* const before = makeLock(makeClass("gone.Lock", 11), 5);
  beginSummary();
  contend(thread, before, 100);
  vm.unload(before->type);
  fake::object* const after = makeLock(makeClass("new.Lock", 11), 5);
  contend(thread, after, 7);
  EXPECT_EQ(lockBeanOf(before)->totalBlockTime, 100U);
  ASSERT_NE(lockBeanOf(after), nullptr);
  EXPECT_EQ(lockBeanOf(after)->totalBlockTime, 7U);
}

TEST_F(lockFaultsUnloading, twoLiveClassesOfOneNameAndHashAreToldApartByTheirLocks) {
  load();
  fake::object* const one = makeLock(makeClass("twin.Lock", 11), 5);
  fake::object* const two = makeLock(makeClass("twin.Lock", 11), 6);
  beginSummary();
  contend(thread, one, 1);
  contend(thread, two, 2);
  contend(thread, one, 4);
  EXPECT_EQ(lockBeanOf(one)->totalBlockTime, 5U);
  EXPECT_EQ(lockBeanOf(two)->totalBlockTime, 2U);
}

TEST_F(lockFaultsUnloading, namesOfUnloadedClassesDoNotPileUp) {
  load("logLevel=1");
  beginSummary({.locks = 0});  // no record holds on to a name
  startDetail();               // and yet it is read
  for (int i = 0; i < 2000; ++i) {
    fake::object* const each = vm.makeObject(vm.makeClass("short.Lived" + std::to_string(i)));
    contend(thread, each);
    vm.unload(each->type);
  }
  EXPECT_LT(locks()->classNameCount(), 300U);
  EXPECT_LT(vm.weakReferences(), 300U);
}

// Who loaded the class of a method on a stack, and whether the class may go before the VM does.
struct stackClass {
  const char* name;
  const char* signature;
  const char* loader;  // its class; null for the bootstrap loader
  bool mayGo;
};
constexpr stackClass kStackClasses[] = {
    {"fromBootstrap", "Ljava/util/Queue;", nullptr, false},
    {"fromTheClassPath", "Lshop/Cart;", "jdk.internal.loader.ClassLoaders$AppClassLoader", false},
    {"fromThePlatform", "Ljava/sql/Row;", "jdk.internal.loader.ClassLoaders$PlatformClassLoader",
     false},
    {"withoutPackage", "LMain;", "jdk.internal.loader.ClassLoaders$AppClassLoader", false},
    {"fromALoaderOfTheProgram", "Lshop/Plugin;", "shop.PluginLoader", true},
    {"hidden", "Lshop/Cart$$Lambda.0x00007f00;", "jdk.internal.loader.ClassLoaders$AppClassLoader",
     true},
    {"hiddenInBootstrap", "Ljava/lang/invoke/LambdaForm$MH.0x01;", nullptr, true},
    {"anonymousOfOldVms", "Ljava/lang/invoke/LambdaForm$MH/1586270964;", nullptr, true},
};

class lockFaultsStackClasses : public lockFaultsUnloading,
                               public ::testing::WithParamInterface<stackClass> {
 protected:
  // The thread's stack becomes one method of the class of the case.
  void enterCode() {
    fake::javaClass* const code = vm.makeClass("stack.Code");
    code->signature = GetParam().signature;
    code->loader = GetParam().loader ? vm.makeObject(vm.makeClass(GetParam().loader)) : nullptr;
    thread->setFrames({{.code = vm.makeMethod(code, "run", "()V")}});
  }
  std::uint64_t comparisonsOfAnEvent() {
    vm.resetCalls();
    contend(thread, lock);
    return vm.calls("IsSameObject");
  }
};

TEST_P(lockFaultsStackClasses, areAskedForOnlyIfTheyMayGo) {
  load();
  beginDetail({lock});
  contend(thread, lock);
  const std::uint64_t withoutStack = comparisonsOfAnEvent();
  enterCode();
  contend(thread, lock);  // the trace is new
  EXPECT_EQ(comparisonsOfAnEvent(), withoutStack + (GetParam().mayGo ? 1U : 0U));
}

TEST_P(lockFaultsStackClasses, mayGoWhenTheVmDoesNotTellTheirLoader) {
  load();
  beginDetail({lock});
  contend(thread, lock);
  const std::uint64_t withoutStack = comparisonsOfAnEvent();
  enterCode();
  vm.fail("GetClassLoader", {.error = JVMTI_ERROR_INTERNAL});
  contend(thread, lock);
  EXPECT_EQ(comparisonsOfAnEvent(), withoutStack + 1);
}

INSTANTIATE_TEST_SUITE_P(allLoaders, lockFaultsStackClasses, ::testing::ValuesIn(kStackClasses),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(lockFaultsUnloading, tracesOfUnloadedClassesStayInTheReports) {
  load();
  beginDetail({lock});
  fake::javaClass* const gone = vm.makeClass("gone.Code");
  thread->setFrames({{.code = vm.makeMethod(gone, "run", "()V")}});
  contend(thread, lock);
  thread->setFrames({});
  vm.unload(gone);
  stopProfiling();
  EXPECT_THAT(stackLines(),
              Contains(std::to_string(fnv1a("at gone.Code.run()\n")) + "=[at gone.Code.run()]"));
}

}  // namespace
