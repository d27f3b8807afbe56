// The support code that threads share: the map that only grows, shared places, turns, caches of
// classes and their names, limits for a second.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <latch>
#include <limits>
#include <optional>
#include <thread>

#include "agentTest.h"
#include "support/classCache.h"
#include "support/insertOnlyMap.h"
#include "support/javaClasses.h"
#include "support/jniRef.h"
#include "support/rateLimit.h"
#include "support/sharedSlot.h"
#include "support/vmTurn.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

// Runs `body(number)` on so many threads that start at once, and waits for them.
template <typename Body>
void onThreads(int count, Body&& body) {
  std::latch start(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      body(i);
    });
  }
  for (std::thread& each : threads) {
    each.join();
  }
}

// --- The map that only grows -----------------------------------------------------------------

using numbers = support::insertOnlyMap<int>;

int& put(numbers& map, std::uint64_t key, int value) {
  return map.insert(std::make_unique<numbers::node>(key, value));
}

TEST(insertOnlyMap, findsWhatWasInserted) {
  numbers map;
  EXPECT_EQ(map.find(1), nullptr);
  EXPECT_EQ(map.size(), 0U);
  int& value = put(map, 1, 10);
  put(map, 2, 20);
  EXPECT_EQ(map.find(1), &value);
  EXPECT_EQ(*map.find(2), 20);
  EXPECT_EQ(map.find(3), nullptr);
  EXPECT_EQ(map.size(), 2U);
}

TEST(insertOnlyMap, keepsSeveralUnderOneKey) {
  numbers map;
  put(map, 7, 1);
  put(map, 7, 2);
  put(map, 7, 3);
  for (int wanted = 1; wanted <= 3; ++wanted) {
    const int* found = map.find(7, [&](int each) { return each == wanted; });
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(*found, wanted);
  }
  EXPECT_EQ(map.find(7, [](int) { return false; }), nullptr);
  EXPECT_EQ(map.find(8, [](int) { return true; }), nullptr);
}

TEST(insertOnlyMap, keepsItsEntriesInPlaceWhileItGrows) {
  numbers map;
  std::vector<const int*> places;
  for (int i = 0; i < 10000; ++i) {
    places.push_back(&put(map, static_cast<std::uint64_t>(i), i));
    ASSERT_EQ(map.find(static_cast<std::uint64_t>(i + 1)), nullptr);
  }
  for (int i = 0; i < 10000; ++i) {
    ASSERT_EQ(map.find(static_cast<std::uint64_t>(i)), places[static_cast<std::size_t>(i)]);
    ASSERT_EQ(*places[static_cast<std::size_t>(i)], i);
  }
  EXPECT_EQ(map.size(), 10000U);
}

TEST(insertOnlyMap, keepsManyUnderOneKeyWhileItGrows) {
  numbers map;
  for (int i = 0; i < 1000; ++i) {
    put(map, 7, i);
  }
  put(map, 8, -1);
  for (int wanted = 0; wanted < 1000; ++wanted) {
    const int* found = map.find(7, [&](int each) { return each == wanted; });
    ASSERT_NE(found, nullptr);
    ASSERT_EQ(*found, wanted);
  }
  EXPECT_EQ(map.find(7, [](int each) { return each < 0; }), nullptr);
  EXPECT_EQ(*map.find(8), -1);
}

TEST(insertOnlyMap, visitsTheNewestFirst) {
  numbers map;
  for (int i = 0; i < 4; ++i) {
    put(map, static_cast<std::uint64_t>(100 + i), i);
  }
  std::vector<std::pair<std::uint64_t, int>> visited;
  map.forEach([&](std::uint64_t key, int value) { visited.emplace_back(key, value); });
  EXPECT_THAT(visited, ElementsAre(std::pair(103, 3), std::pair(102, 2), std::pair(101, 1),
                                   std::pair(100, 0)));
}

TEST(insertOnlyMap, destroysItsEntries) {
  const auto counted = std::make_shared<int>(0);
  {
    support::insertOnlyMap<std::shared_ptr<int>> map;
    for (std::uint64_t key = 0; key < 10; ++key) {
      map.insert(
          std::make_unique<support::insertOnlyMap<std::shared_ptr<int>>::node>(key, counted));
    }
    EXPECT_EQ(counted.use_count(), 11);
  }
  EXPECT_EQ(counted.use_count(), 1);
}

TEST(insertOnlyMap, extremeKeysAreKeys) {
  numbers map;
  put(map, 0, 1);
  put(map, ~std::uint64_t{0}, 2);
  EXPECT_EQ(*map.find(0), 1);
  EXPECT_EQ(*map.find(~std::uint64_t{0}), 2);
}

// An entry that is found is complete; one that was found once is found again.
TEST(insertOnlyMap, isReadWhileItGrows) {
  constexpr int kReaders = 4;
  constexpr std::uint64_t kEntries = 5000;
  support::insertOnlyMap<std::string> map;
  std::atomic<std::uint64_t> inserted{0};
  onThreads(kReaders + 1, [&](int number) {
    if (number == 0) {
      for (std::uint64_t key = 0; key < kEntries; ++key) {
        map.insert(std::make_unique<support::insertOnlyMap<std::string>::node>(
            key, std::to_string(key) + " is a text of some length"));
        inserted.store(key + 1);
      }
      return;
    }
    for (std::uint64_t known = 0; known < kEntries; known = inserted.load()) {
      if (known > 0) {
        const std::string* found = map.find(known - 1);
        ASSERT_NE(found, nullptr);
        ASSERT_EQ(*found, std::to_string(known - 1) + " is a text of some length");
      }
      std::size_t visited = 0;
      map.forEach([&](std::uint64_t key, const std::string& value) {
        visited += value.starts_with(std::to_string(key)) ? 1U : 0U;
      });
      ASSERT_GE(visited, known);
    }
  });
  EXPECT_EQ(map.size(), kEntries);
}

// Inserting threads take turns by a mutex of theirs.
TEST(insertOnlyMap, growsFromManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kEach = 500;
  numbers map;
  std::mutex turn;
  onThreads(kThreads, [&](int number) {
    for (int i = 0; i < kEach; ++i) {
      const int value = number * kEach + i;
      auto entry = std::make_unique<numbers::node>(static_cast<std::uint64_t>(value), value);
      const std::lock_guard hold(turn);
      map.insert(std::move(entry));
    }
  });
  EXPECT_EQ(map.size(), static_cast<std::size_t>(kThreads * kEach));
  for (int value = 0; value < kThreads * kEach; ++value) {
    ASSERT_NE(map.find(static_cast<std::uint64_t>(value)), nullptr) << value;
  }
}

// --- The shared slot -------------------------------------------------------------------------

TEST(sharedSlot, isEmptyAtFirst) {
  support::sharedSlot<int> slot;
  EXPECT_EQ(slot.load(), nullptr);
}

TEST(sharedSlot, givesTheObjectStored) {
  support::sharedSlot<int> slot;
  const auto stored = std::make_shared<int>(5);
  slot.store(stored);
  EXPECT_EQ(slot.load().get(), stored.get());
  slot.store(nullptr);
  EXPECT_EQ(slot.load(), nullptr);
}

TEST(sharedSlot, lastOneOutDestroys) {
  support::sharedSlot<int> slot;
  auto stored = std::make_shared<int>(5);
  const std::weak_ptr<int> watched = stored;
  slot.store(stored);
  stored.reset();
  EXPECT_FALSE(watched.expired());
  auto reader = slot.load();
  slot.store(std::make_shared<int>(6));
  EXPECT_EQ(*reader, 5);
  EXPECT_FALSE(watched.expired());
  reader.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(*slot.load(), 6);
}

TEST(sharedSlot, dropsWhatItHoldsAtItsEnd) {
  const auto stored = std::make_shared<int>(5);
  {
    support::sharedSlot<int> slot;
    slot.store(stored);
  }
  EXPECT_EQ(stored.use_count(), 1);
}

TEST(sharedSlot, everyThreadSeesTheObject) {
  support::sharedSlot<int> slot;
  const auto stored = std::make_shared<int>(5);
  slot.store(stored);
  onThreads(64, [&](int) { EXPECT_EQ(slot.load().get(), stored.get()); });
  slot.store(nullptr);
  onThreads(64, [&](int) { EXPECT_EQ(slot.load(), nullptr); });
  EXPECT_EQ(stored.use_count(), 1);
}

// Counts its living instances, and tells one that is gone by its mark.
struct marked {
  static inline std::atomic<int> living{0};
  static constexpr int kAlive = 0x600D;
  std::atomic<int> mark{kAlive};
  marked() { ++living; }
  ~marked() {
    mark = 0;
    --living;
  }
};

TEST(sharedSlot, isReadByManyWhileItChanges) {
  constexpr int kReaders = 8;
  constexpr int kChanges = 500;
  {
    support::sharedSlot<marked> slot;
    std::atomic<bool> done{false};
    onThreads(kReaders + 1, [&](int number) {
      if (number == 0) {
        for (int i = 0; i < kChanges; ++i) {
          slot.store(i % 5 == 0 ? nullptr : std::make_shared<marked>());
        }
        done = true;
        return;
      }
      while (!done) {
        if (const auto found = slot.load()) {
          ASSERT_EQ(found->mark, marked::kAlive);
        }
      }
    });
    EXPECT_EQ(marked::living, 1);
  }
  EXPECT_EQ(marked::living, 0);
}

// --- Turns ------------------------------------------------------------------------------------

class vmTurn : public ::testing::Test {
 protected:
  // Whether another thread gets its turn now.
  bool otherGetsIt() {
    bool gotten = false;
    std::thread([&] { gotten = support::vmTurn(turns_).isMine(); }).join();
    return gotten;
  }

  support::vmTurns turns_;
};

TEST_F(vmTurn, isOneThreadsAtATime) {
  {
    const support::vmTurn turn(turns_);
    EXPECT_TRUE(turn.isMine());
    EXPECT_FALSE(otherGetsIt());
  }
  EXPECT_TRUE(otherGetsIt());
}

// As when a debugger has suspended the thread whose turn it is.
TEST_F(vmTurn, onlyTheFirstWaitsForAThreadThatKeepsIt) {
  std::optional<support::vmTurn> kept(std::in_place, turns_);
  EXPECT_FALSE(otherGetsIt());
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    EXPECT_FALSE(otherGetsIt());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5))
      << "each of them waited";
  kept.reset();
  EXPECT_TRUE(otherGetsIt());
}

TEST_F(vmTurn, onceGivenBackItIsWaitedForAgain) {
  {
    const support::vmTurn kept(turns_);
    EXPECT_FALSE(otherGetsIt());
  }
  std::optional<support::vmTurn> mine(std::in_place, turns_);
  std::latch asked(1);
  bool gotten = false;
  std::thread other([&] {
    asked.count_down();
    gotten = support::vmTurn(turns_).isMine();
  });
  asked.wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  mine.reset();
  other.join();
  EXPECT_TRUE(gotten) << "it did not wait";
}

// --- The class cache -------------------------------------------------------------------------

class classCaches : public fake::vmTest {
 protected:
  using cache = support::classCache<std::string>;

  void TearDown() override {
    cache_.reset();
    vmTest::TearDown();
  }
  cache::entryPtr find(fake::javaClass* cls) {
    return vm.native([&](JNIEnv* jni) {
      jclass const ref = vm.ref(cls);
      return cache_->find(jni, cache::keyOf(vm.jvmti(), ref), ref);
    });
  }
  cache::entryPtr keep(fake::javaClass* cls, const std::string& value) {
    return vm.native([&](JNIEnv* jni) {
      jclass const ref = vm.ref(cls);
      return cache_->keep(jni, cache::keyOf(vm.jvmti(), ref), ref, value);
    });
  }

  std::optional<cache> cache_{std::in_place};
};

TEST_F(classCaches, findWhatWasKept) {
  fake::javaClass* const cls = vm.makeClass("a.B");
  EXPECT_EQ(find(cls), nullptr);
  const auto kept = keep(cls, "value");
  EXPECT_EQ(kept->value, "value");
  EXPECT_EQ(find(cls), kept);
  EXPECT_EQ(cache_->size(), 1U);
}

TEST_F(classCaches, tellClassesOfOneNameApart) {
  fake::javaClass* const one = vm.makeClass("a.B");
  fake::javaClass* const other = vm.makeClass("a.B");
  keep(one, "one");
  EXPECT_EQ(find(other), nullptr);
  keep(other, "other");
  EXPECT_EQ(find(one)->value, "one");
  EXPECT_EQ(find(other)->value, "other");
}

TEST_F(classCaches, tellClassesOfOneHashCodeApart) {
  std::vector<fake::javaClass*> classes;
  for (const char* name : {"a.A", "a.B", "a.C"}) {
    classes.push_back(vm.makeClass(name));
    classes.back()->hash = 4711;
    keep(classes.back(), name);
  }
  for (fake::javaClass* each : classes) {
    EXPECT_EQ(find(each)->value, each->name);
  }
  EXPECT_EQ(cache_->size(), 3U);
}

TEST_F(classCaches, workWithoutHashCodes) {
  vm.fail("GetObjectHashCode");
  fake::javaClass* const one = vm.makeClass("a.A");
  fake::javaClass* const other = vm.makeClass("a.B");
  keep(one, "one");
  keep(other, "other");
  EXPECT_EQ(find(one)->value, "one");
  EXPECT_EQ(find(other)->value, "other");
}

TEST_F(classCaches, keepNoClassAlive) {
  fake::javaClass* const cls = vm.makeClass("a.B");
  keep(cls, "value");
  EXPECT_EQ(vm.globalReferencesTo(cls), 0U);
  vm.unload(cls);  // reports what would hold it
}

TEST_F(classCaches, doNotGiveAnUnloadedClassToItsSuccessor) {
  fake::javaClass* const old = vm.makeClass("a.B");
  keep(old, "old");
  vm.unload(old);
  fake::javaClass* const successor = vm.makeClass("a.B");
  successor->hash = old->hash.load();
  EXPECT_EQ(find(successor), nullptr);
  keep(successor, "new");
  EXPECT_EQ(find(successor)->value, "new");
}

TEST_F(classCaches, dropUnloadedClasses) {
  std::vector<fake::javaClass*> classes;
  for (int i = 0; i < 60; ++i) {
    classes.push_back(vm.makeClass("a.C" + std::to_string(i)));
    keep(classes.back(), "value");
  }
  for (std::size_t i = 0; i < 50; ++i) {
    vm.unload(classes[i]);
  }
  // Twice as many as there were at first are enough to have them swept.
  for (int i = 0; i < 70; ++i) {
    keep(vm.makeClass("b.C" + std::to_string(i)), "value");
  }
  EXPECT_LE(cache_->size(), 80U);
  EXPECT_EQ(vm.weakReferences(), cache_->size());
  for (std::size_t i = 50; i < 60; ++i) {
    EXPECT_NE(find(classes[i]), nullptr);
  }
}

TEST_F(classCaches, stayBoundedWhileClassesComeAndGo) {
  for (int i = 0; i < 2000; ++i) {
    fake::javaClass* const cls = vm.makeClass("a.Transient");
    keep(cls, "value");
    vm.unload(cls);
  }
  EXPECT_LE(cache_->size(), 128U);
  EXPECT_EQ(vm.weakReferences(), cache_->size());
}

TEST_F(classCaches, giveEntriesThatOutliveThem) {
  const auto kept = keep(vm.makeClass("a.B"), "value");
  cache_.reset();
  EXPECT_EQ(kept->value, "value");
}

TEST_F(classCaches, withoutMemoryForAReferenceFindNothing) {
  fake::javaClass* const cls = vm.makeClass("a.B");
  vm.fail("NewWeakGlobalRef", {.throwing = true});
  EXPECT_EQ(keep(cls, "value")->value, "value");
  EXPECT_EQ(find(cls), nullptr);
}

TEST_F(classCaches, areReadAndFilledByManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 300;
  std::vector<fake::javaClass*> classes;
  for (int i = 0; i < 100; ++i) {
    classes.push_back(vm.makeClass("a.C" + std::to_string(i)));
  }
  std::latch start(kThreads);
  std::vector<std::unique_ptr<fake::attachedThread>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<fake::attachedThread>(vm, "worker", [&, t](JNIEnv* jni) {
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        fake::javaClass* const cls = classes[static_cast<std::size_t>((round * 7 + t) % 100)];
        jobject const ref = jni->NewLocalRef(vm.ref(cls));
        jclass const asClass = static_cast<jclass>(ref);
        const jint key = cache::keyOf(vm.jvmti(), asClass);
        auto found = cache_->find(jni, key, asClass);
        if (!found) {
          found = cache_->keep(jni, key, asClass, cls->name);
        }
        ASSERT_EQ(found->value, cls->name);
        jni->DeleteLocalRef(ref);
      }
    }));
  }
  threads.clear();
  for (fake::javaClass* each : classes) {
    EXPECT_EQ(find(each)->value, each->name);
  }
}

// --- Names of classes ------------------------------------------------------------------------

class classNames : public fake::vmTest {
 protected:
  void TearDown() override {
    names_.reset();
    vmTest::TearDown();
  }
  support::classNameResult nameOf(fake::object* object) {
    return vm.native([&](JNIEnv* jni) {
      const support::localRef<jclass> cls(jni, jni->GetObjectClass(vm.ref(object)));
      return names_->of(vm.jvmti(), jni, vm.ref(object), cls.get());
    });
  }
  std::optional<support::javaClasses> names_{std::in_place};
};

using support::classNameFailure;

TEST_F(classNames, areThoseThatJavaGives) {
  for (const char* name : {"com.example.Lock", "Top", "a.B$1", "[I", "[Ljava.lang.String;",
                           "a.\xc3\xa4\xed\xa0\xbd\xed\xb8\x80", "a.\"q\"\t"}) {
    const auto result = nameOf(vm.makeObject(vm.makeClass(name)));
    ASSERT_EQ(result.failure, classNameFailure::none) << name;
    EXPECT_EQ(result.found->value, name);
  }
}

TEST_F(classNames, areReadOnce) {
  fake::javaClass* const cls = vm.makeClass("com.example.Lock");
  const auto first = nameOf(vm.makeObject(cls));
  vm.resetCalls();
  EXPECT_EQ(nameOf(vm.makeObject(cls)).found, first.found);
  EXPECT_EQ(vm.calls("CallObjectMethod"), 0U);
  EXPECT_EQ(vm.calls("GetMethodID"), 0U);
  EXPECT_EQ(names_->size(), 1U);
}

TEST_F(classNames, methodsAreLookedUpOnce) {
  nameOf(vm.makeObject("a.A"));
  vm.resetCalls();
  nameOf(vm.makeObject("a.B"));
  EXPECT_EQ(vm.calls("GetMethodID"), 0U);
  EXPECT_EQ(vm.calls("CallObjectMethod"), 2U);
}

TEST_F(classNames, twoClassesOfOneNameAreTwo) {
  const auto one = nameOf(vm.makeObject(vm.makeClass("a.B")));
  const auto other = nameOf(vm.makeObject(vm.makeClass("a.B")));
  EXPECT_NE(one.found, other.found);
  EXPECT_EQ(one.found->value, other.found->value);
}

TEST_F(classNames, surviveTheUnloadingOfAClass) {
  fake::javaClass* const old = vm.makeClass("a.Old");
  nameOf(vm.makeObject(old));
  vm.unload(old);
  fake::javaClass* const successor = vm.makeClass("a.New");
  successor->hash = old->hash.load();
  EXPECT_EQ(nameOf(vm.makeObject(successor)).found->value, "a.New");
}

struct nameFailureCase {
  const char* function;
  const char* member;
  classNameFailure expected;
};
void PrintTo(const nameFailureCase& one, std::ostream* out) {
  *out << one.function << " of " << one.member;
}

class classNameFailures : public classNames,
                          public ::testing::WithParamInterface<nameFailureCase> {};

// A failure is told, nothing is kept of it, and the next time is as good as the first.
TEST_P(classNameFailures, areToldAndForgotten) {
  fake::object* const object = vm.makeObject("com.example.Lock");
  for (const bool throwing : {false, true}) {
    vm.fail(GetParam().function, {.name = GetParam().member, .throwing = throwing});
    const auto result = nameOf(object);
    EXPECT_EQ(result.failure, GetParam().expected);
    EXPECT_EQ(result.found, nullptr);
    EXPECT_EQ(names_->size(), 0U);
    vm.succeed(GetParam().function);
  }
  EXPECT_EQ(nameOf(object).found->value, "com.example.Lock");
}

INSTANTIATE_TEST_SUITE_P(
    calls, classNameFailures,
    ::testing::Values(nameFailureCase{"GetMethodID", "getClass", classNameFailure::noGetClass},
                      nameFailureCase{"GetMethodID", "getName", classNameFailure::noGetName},
                      nameFailureCase{"CallObjectMethod", "getClass", classNameFailure::empty},
                      nameFailureCase{"CallObjectMethod", "getName", classNameFailure::empty},
                      nameFailureCase{"GetStringUTFChars", "", classNameFailure::empty}));

TEST_F(classNames, thatAreEmptyAreNotKept) {
  EXPECT_EQ(nameOf(vm.makeObject(vm.makeClass(""))).failure, classNameFailure::empty);
  EXPECT_EQ(names_->size(), 0U);
}

TEST_F(classNames, leaveAPendingExceptionAsItWas) {
  fake::object* const thrown = vm.makeObject("java.lang.IllegalStateException");
  fake::object* const object = vm.makeObject("com.example.Lock");
  vm.native([&](JNIEnv* jni) {
    jobject const ref = vm.ref(object);
    const support::localRef<jclass> cls(jni, jni->GetObjectClass(ref));
    vm.throwInJava(thrown);
    EXPECT_EQ(names_->of(vm.jvmti(), jni, ref, cls.get()).found->value, "com.example.Lock");
    EXPECT_EQ(vm.pendingException(), thrown);
    vm.clearException();
  });
}

TEST_F(classNames, areReadByManyThreads) {
  constexpr int kThreads = 8;
  std::vector<fake::object*> objects;
  for (int i = 0; i < 40; ++i) {
    objects.push_back(vm.makeObject("a.C" + std::to_string(i)));
  }
  std::latch start(kThreads);
  std::vector<std::unique_ptr<fake::attachedThread>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<fake::attachedThread>(vm, "worker", [&](JNIEnv*) {
      start.arrive_and_wait();
      for (fake::object* each : objects) {
        const auto result = nameOf(each);
        ASSERT_NE(result.found, nullptr);
        ASSERT_EQ(result.found->value, each->type->name);
      }
    }));
  }
  threads.clear();
  EXPECT_GE(names_->size(), objects.size());
}

// --- Limits for a second ---------------------------------------------------------------------

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kStart = 5 * kSecond;

// How many of `tries` at one time are taken.
int takenOf(int tries, support::rateLimit& limit, std::int64_t now) {
  int taken = 0;
  for (int i = 0; i < tries; ++i) {
    taken += limit.take(now) ? 1 : 0;
  }
  return taken;
}

TEST(rateLimit, withoutANumberThereIsNone) {
  support::rateLimit limit;
  EXPECT_EQ(limit.perSecond(), 0);
  EXPECT_EQ(takenOf(1000, limit, kStart), 1000);
}

class rateLimits : public ::testing::TestWithParam<std::int32_t> {
 protected:
  rateLimits() { limit.set(most); }

  const std::int32_t most = GetParam();
  const std::int32_t atOnce = (most + 9) / 10;
  const std::int64_t gap = kSecond / (most - atOnce + 1) + 1;  // until one comes back
  support::rateLimit limit;
};

TEST_P(rateLimits, allowATenthOfASecondsNumberAtOnce) {
  EXPECT_EQ(limit.perSecond(), most);
  EXPECT_EQ(takenOf(2 * most, limit, kStart), atOnce);
}

TEST_P(rateLimits, comeBackOneByOne) {
  takenOf(most, limit, kStart);
  EXPECT_EQ(takenOf(most, limit, kStart + gap - 2), 0);
  EXPECT_EQ(takenOf(most, limit, kStart + gap), 1);
}

TEST_P(rateLimits, areNotSavedUp) {
  takenOf(most, limit, kStart);
  EXPECT_EQ(takenOf(3 * most, limit, kStart + 100 * kSecond), atOnce);
}

TEST_P(rateLimits, holdInAnySecond) {
  std::vector<std::int64_t> taken;
  for (std::int64_t now = kStart; now < kStart + 10 * kSecond; now += kSecond / 1000) {
    while (limit.take(now)) {
      taken.push_back(now);
    }
  }
  EXPECT_GE(taken.size(), 9U * static_cast<unsigned>(most));
  for (auto first = taken.begin(); first != taken.end(); ++first) {
    const auto end = std::lower_bound(first, taken.end(), *first + kSecond);
    ASSERT_LE(end - first, most) << "from " << *first - kStart << " ns on";
  }
}

INSTANTIATE_TEST_SUITE_P(numbers, rateLimits, ::testing::Values(1, 2, 3, 7, 11, 100));

TEST(rateLimit, oneOfAllNumbersIsNoLess) {
  support::rateLimit limit;
  limit.set(std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(takenOf(1000, limit, kStart), 1000);
}

TEST(rateLimit, earlierTimesTakeNoMore) {
  support::rateLimit limit;
  limit.set(20);
  EXPECT_EQ(takenOf(3, limit, kStart), 2);
  EXPECT_EQ(takenOf(3, limit, kStart - kSecond), 0);
  EXPECT_EQ(takenOf(3, limit, 0), 0);
  EXPECT_EQ(takenOf(3, limit, kStart + kSecond), 2);
}

TEST(rateLimit, holdsForManyThreadsTogether) {
  constexpr int kThreads = 8;
  support::rateLimit limit;
  limit.set(1000);
  std::atomic<int> taken{0};
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      taken += takenOf(1000, limit, kStart);
    });
  }
  for (std::thread& each : threads) {
    each.join();
  }
  EXPECT_EQ(taken, 100);
}

}  // namespace
