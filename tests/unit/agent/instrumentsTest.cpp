// What instruments are built from, without one.
#include <sys/mman.h>

#include <algorithm>
#include <memory>

#include "../stoppedClock.h"
#include "agentTest.h"
#include "instruments/boundedMap.h"
#include "instruments/costAccount.h"
#include "instruments/handlerGate.h"
#include "instruments/lastReport.h"
#include "instruments/nameTable.h"
#include "instruments/ownEnvironment.h"
#include "instruments/reservedArray.h"
#include "instruments/stackTable.h"
#include "instruments/windowRing.h"

namespace {

using namespace test;
using instruments::boundedMap;
using instruments::costAccount;
using instruments::handlerGate;
using instruments::ownEnvironment;
using instruments::reservedArray;
using instruments::stackTable;
using instruments::windowRing;
using ::testing::ElementsAre;

constexpr std::int64_t kMillis = 1'000'000;

// --- Gate.

TEST(handlerGateTest, aDepartureIsOverAtOnceWhenNobodyIsInside) {
  const handlerGate gate;
  handlerGate::departure departure;
  EXPECT_TRUE(departure.isOver(gate));
}

TEST(handlerGateTest, aDepartureWaitsForWhoWasInside) {
  handlerGate gate;
  handlerGate::departure departure;
  {
    const handlerGate::pass inside(gate);
    EXPECT_FALSE(departure.isOver(gate));
    const handlerGate::pass within(gate);
    EXPECT_FALSE(departure.isOver(gate));
  }
  EXPECT_TRUE(departure.isOver(gate));
}

TEST(handlerGateTest, aDepartureDoesNotWaitForWhoComesLater) {
  handlerGate gate;
  handlerGate::departure departure;
  EXPECT_TRUE(departure.isOver(gate));
  const handlerGate::pass inside(gate);
  EXPECT_TRUE(departure.isOver(gate));
  handlerGate::departure next;
  EXPECT_FALSE(next.isOver(gate));
}

// --- Cost.

class costAccountTest : public ::testing::Test {
 protected:
  costAccountTest() { account.clear(); }
  // A tick every 20 ms that takes so long when it is taken.
  bool tick(std::int64_t nanos) {
    stoppedClock::advance(20 * kMillis);
    const bool isTaken = account.takeTick(stoppedClock::now());
    stoppedClock::useProcessor(isTaken ? nanos : 0);
    account.endTick();
    return isTaken;
  }

  stoppedClock clock;
  costAccount account;
};

TEST_F(costAccountTest, takesEachTickWithinTheBudget) {
  account.setBudget(1);
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(tick(200'000));
  }
  EXPECT_EQ(account.total().ticks, 100U);
  EXPECT_EQ(account.total().ticksLeftOut, 0U);
  EXPECT_EQ(account.total().processorNanos, 20U * kMillis);
}

TEST_F(costAccountTest, leavesTicksOutUntilTheyArePaidFor) {
  account.setBudget(1);
  tick(2 * kMillis);  // paid by 200 ms
  int left = 0;
  while (!tick(0)) {
    ++left;
  }
  EXPECT_NEAR(left, 8, 1);
  EXPECT_EQ(account.total().ticksLeftOut, static_cast<std::uint64_t>(left));
}

TEST_F(costAccountTest, savesUpTheBudgetOfATenthOfASecondAndNoMore) {
  account.setBudget(1);
  stoppedClock::advance(3'600'000 * kMillis);
  tick(kMillis);
  EXPECT_TRUE(tick(kMillis));
  EXPECT_FALSE(tick(0));
}

TEST_F(costAccountTest, safepointsCountAndHandshakesAreBooked) {
  account.setBudget(1);
  EXPECT_EQ(account.affordable(), 0U);
  stoppedClock::advance(10'000 * kMillis);
  EXPECT_TRUE(account.takeTick(stoppedClock::now()));
  EXPECT_EQ(account.affordable(), 2U) << "1 ms of half a millisecond each";
  EXPECT_EQ(account.safepoint([] {
    stoppedClock::advance(3 * kMillis);
    return 7;
  }),
            7);
  account.handshake([] { stoppedClock::advance(kMillis); });
  EXPECT_EQ(account.affordable(), 1U);
  EXPECT_EQ(account.total().safepoints, 1U);
  EXPECT_EQ(account.total().safepointNanos, 3U * kMillis);
  EXPECT_EQ(account.total().handshakes, 1U);
  EXPECT_EQ(account.total().handshakeNanos, 1U * kMillis);
}

TEST_F(costAccountTest, beginsAnew) {
  tick(50 * kMillis);
  account.clear();
  EXPECT_EQ(account.total().ticks, 0U);
  EXPECT_TRUE(tick(0));
}

TEST(steadyTime, isToldAsTimeOfDay) {
  const std::int64_t now = instruments::steadyNanos();
  const std::int64_t today = instruments::epochMillisOf(now);
  EXPECT_EQ(instruments::epochMillisOf(now - 5'000 * kMillis), today - 5'000);
}

// --- Containers.

TEST(windowRingTest, keepsTheNewestAndCountsTheOthers) {
  windowRing<int> ring(3);
  for (int i = 0; i < 5; ++i) {
    ring.add(i);
  }
  EXPECT_THAT(ring.windows(), ElementsAre(2, 3, 4));
  EXPECT_EQ(ring.dropped(), 2U);
  ring.clear();
  EXPECT_TRUE(ring.windows().empty());
  EXPECT_EQ(ring.dropped(), 0U);
}

TEST(boundedMapTest, givesNoMoreEntriesThanItsLimit) {
  boundedMap<int, int> map(2);
  *map.at(1) = 10;
  *map.at(2) = 20;
  EXPECT_EQ(map.at(3), nullptr);
  ASSERT_NE(map.at(1), nullptr);
  EXPECT_EQ(*map.at(1), 10);
  EXPECT_EQ(map.size(), 2U);
  map.clear();
  EXPECT_NE(map.at(3), nullptr);
}

TEST(reservedArrayTest, isAllZerosAndAgainWhenItIsCleared) {
  reservedArray<int> array(100'000);
  EXPECT_EQ(array[99'999], 0);
  array[99'999] = 5;
  array.clear();
  EXPECT_EQ(array[99'999], 0);
}

// As in a program that keeps all its memory from being paged.
TEST(reservedArrayTest, isClearedInLockedMemoryToo) {
  reservedArray<int> array(512);
  array[3] = 5;
  if (::mlock(&array[0], 512 * sizeof(int)) != 0) {
    GTEST_SKIP() << "the system locks no memory";
  }
  array.clear();
  EXPECT_EQ(array[3], 0);
}

// --- Stacks.

class stackTableTest : public fake::vmTest {
 protected:
  void TearDown() override {
    vm.native([&](JNIEnv*) { table.reset(); });
    vmTest::TearDown();
  }

  std::uint32_t idOf(const std::vector<jvmtiFrameInfo>& frames, bool isCut = false) {
    return vm.native([&](JNIEnv* jni) { return table->idOf(vm.jvmti(), jni, frames, isCut); });
  }
  std::string textOf(fake::method* code, jlocation location) {
    const std::uint32_t id = idOf({{code->id, location}});
    return id == 0 ? "" : table->frame(table->at(id).frames.front());
  }
  fake::method* sell() {
    fake::javaClass* const shop = vm.makeClass("com.example.Shop");
    shop->sourceFile = "Shop.java";
    fake::method* const made = vm.makeMethod(shop, "sell", "()V");
    made->lines = {{0, 31}, {10, 33}, {4, 32}};
    return made;
  }

  std::unique_ptr<stackTable> table = std::make_unique<stackTable>();
};

TEST_F(stackTableTest, framesHaveTheLineOfTheirPlace) {
  fake::method* const code = sell();
  EXPECT_EQ(textOf(code, 0), "com.example.Shop.sell(Shop.java:31)");
  EXPECT_EQ(textOf(code, 3), "com.example.Shop.sell(Shop.java:31)");
  EXPECT_EQ(textOf(code, 4), "com.example.Shop.sell(Shop.java:32)");
  EXPECT_EQ(textOf(code, 500), "com.example.Shop.sell(Shop.java:33)");
}

TEST_F(stackTableTest, framesWithoutALineOrASourceHaveWhatThereIs) {
  fake::method* const code = sell();
  EXPECT_EQ(textOf(code, -1), "com.example.Shop.sell(Shop.java)");
  code->declaringClass->sourceFile.reset();
  table->clear();
  EXPECT_EQ(textOf(code, 0), "com.example.Shop.sell(Unknown Source)");
  fake::method* const native =
      vm.makeMethod(code->declaringClass, "call", "()V", {.isNative = true});
  EXPECT_EQ(textOf(native, -1), "com.example.Shop.call(Native Method)");
}

TEST_F(stackTableTest, aStackIsStoredOnce) {
  fake::method* const code = sell();
  const std::uint32_t id = idOf({{code->id, 0}, {code->id, 4}});
  EXPECT_EQ(id, 1U);
  EXPECT_EQ(idOf({{code->id, 0}, {code->id, 4}}), id);
  EXPECT_EQ(idOf({{code->id, 2}, {code->id, 5}}), id) << "the same lines";
  EXPECT_NE(idOf({{code->id, 4}, {code->id, 0}}), id);
  EXPECT_NE(idOf({{code->id, 0}, {code->id, 4}}, true), id) << "there are more frames";
  EXPECT_EQ(table->size(), 3U);
  EXPECT_EQ(vm.calls("GetLineNumberTable"), 1U);
}

TEST_F(stackTableTest, aMethodIdThatIsUsedAgainIsReadAgain) {
  fake::method* const code = sell();
  EXPECT_EQ(textOf(code, 0), "com.example.Shop.sell(Shop.java:31)");
  // The VM gives the number of a method of an unloaded class to another.
  fake::javaClass* const gone = code->declaringClass;
  fake::javaClass* const next = vm.makeClass("com.example.Next");
  jmethodID const number = code->id;
  vm.collect(gone);
  code->declaringClass = next;
  code->name = "buy";
  EXPECT_EQ(textOf(code, 0), "com.example.Next.buy(Unknown Source)");
  EXPECT_EQ(code->id, number);
}

TEST_F(stackTableTest, framesThatTheVmDoesNotNameAreToldApartFromNothing) {
  fake::method* const code = sell();
  for (const char* const refused :
       {"GetMethodName", "GetMethodDeclaringClass", "GetClassSignature"}) {
    vm.fail(refused);
    EXPECT_EQ(textOf(code, 0), "?(Unknown Source)") << refused;
    vm.succeed(refused);
  }
  EXPECT_EQ(textOf(code, 0), "com.example.Shop.sell(Shop.java:31)") << "asked for again";
}

TEST_F(stackTableTest, stacksWithoutRoomAreCounted) {
  fake::method* const code = sell();
  code->lines.emplace();
  for (int i = 0; i < 5000; ++i) {
    code->lines->push_back({i, i + 1});
  }
  for (int i = 0; i < 4096; ++i) {
    EXPECT_NE(idOf({{code->id, i}}), 0U);
  }
  EXPECT_EQ(idOf({{code->id, 4096}}), 0U);
  EXPECT_EQ(table->dropped(), 1U);
  EXPECT_EQ(idOf({{code->id, 17}}), 18U) << "what is there stays";
  table->clear();
  EXPECT_EQ(table->dropped(), 0U);
  EXPECT_EQ(idOf({{code->id, 4096}}), 1U);
}

TEST_F(stackTableTest, framesWithoutRoomAreCounted) {
  fake::method* const code = sell();
  code->lines.emplace();
  for (int i = 0; i < 20'000; ++i) {
    code->lines->push_back({i, i + 1});
  }
  std::vector<jvmtiFrameInfo> frames;
  for (int i = 0; i < 16'400; ++i) {
    frames.push_back({code->id, i});
  }
  EXPECT_EQ(idOf(frames), 0U);
  EXPECT_EQ(table->dropped(), 1U);
  frames.resize(16'384);
  EXPECT_EQ(idOf(frames), 1U);
}

// --- Environments.

class ownEnvironmentTest : public fake::vmTest {
 protected:
  std::string open(const jvmtiCapabilities& wanted = {}) {
    return environment.open(vm.javaVm(), wanted, {});
  }
  bool run() {
    return vm.native([&](JNIEnv* jni) {
      return environment.run(
          jni, "Instrument",
          [](jvmtiEnv*, JNIEnv*, void* argument) { ++*static_cast<int*>(argument); }, &runs);
    });
  }

  ownEnvironment environment;
  int runs = 0;
};

TEST_F(ownEnvironmentTest, hasTheCapabilitiesThatTheVmCanGive) {
  jvmtiCapabilities potential{};
  potential.can_get_monitor_info = 1;
  vm.setPotentialCapabilities(potential);
  jvmtiCapabilities wanted{};
  wanted.can_get_monitor_info = 1;
  wanted.can_get_line_numbers = 1;
  EXPECT_EQ(open(wanted), "");
  EXPECT_EQ(environment.capabilities().can_get_monitor_info, 1U);
  EXPECT_EQ(environment.capabilities().can_get_line_numbers, 0U);
  EXPECT_NE(environment.jvmti(), vm.jvmti());
  jvmtiEnv* const first = environment.jvmti();
  EXPECT_EQ(open(wanted), "");
  EXPECT_EQ(environment.jvmti(), first) << "opened once";
}

TEST_F(ownEnvironmentTest, givesTheReasonWhenItCannotBeOpened) {
  const std::vector<std::pair<const char*, const char*>> calls{
      {"GetEnv", "the VM gives no JVMTI environment"},
      {"GetPotentialCapabilities",
       "the VM does not name its capabilities: JVMTI_ERROR_OUT_OF_MEMORY"},
      {"AddCapabilities", "the VM refuses the capabilities: JVMTI_ERROR_OUT_OF_MEMORY"},
      {"SetEventCallbacks", "the VM refuses the handlers: JVMTI_ERROR_OUT_OF_MEMORY"}};
  for (const auto& [call, text] : calls) {
    vm.fail(call, {.error = JVMTI_ERROR_OUT_OF_MEMORY});
    EXPECT_EQ(open(), text);
    vm.succeed(call);
  }
  EXPECT_EQ(open(), "");
}

TEST_F(ownEnvironmentTest, enablesAllEventsOrNone) {
  ASSERT_EQ(open(), "");
  vm.fail("SetEventNotificationMode", {.from = 2, .times = 1});
  EXPECT_FALSE(environment.enable({JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED}));
  EXPECT_EQ(vm.calls("SetEventNotificationMode"), 4U) << "two to enable, two to disable";
  EXPECT_TRUE(environment.enable({JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED}));
}

TEST_F(ownEnvironmentTest, runsAThread) {
  ASSERT_EQ(open(), "");
  EXPECT_TRUE(run());
  EXPECT_EQ(runs, 0);
  vm.runAgentThreads();
  EXPECT_EQ(runs, 1);
}

TEST_F(ownEnvironmentTest, runsNoneWhenTheVmRefuses) {
  ASSERT_EQ(open(), "");
  for (const char* const call :
       {"FindClass", "GetMethodID", "NewStringUTF", "NewObject", "RunAgentThread"}) {
    for (const bool throwing : {false, true}) {
      vm.fail(call, {.throwing = throwing && std::string_view(call) != "RunAgentThread"});
      EXPECT_FALSE(run()) << call;
      vm.succeed(call);
    }
  }
  vm.fail("GetTopThreadGroups");
  EXPECT_TRUE(run()) << "in the group of the caller";
  vm.runAgentThreads();
  EXPECT_EQ(runs, 1);
}

// --- Names.

TEST(nameTableTest, namesAreStoredOnceUpToItsLimit) {
  instruments::nameTable names{2};
  EXPECT_EQ(names.idOf("a"), 1U);
  EXPECT_EQ(names.idOf("b"), 2U);
  EXPECT_EQ(names.idOf("a"), 1U);
  EXPECT_EQ(names.idOf("c"), 0U);
  EXPECT_EQ(names.idOf("b"), 2U);
  EXPECT_EQ(names.dropped(), 1U);
  EXPECT_EQ(names.at(2), "b");
  EXPECT_EQ(names.size(), 2U);
  names.clear();
  EXPECT_EQ(names.idOf("c"), 1U);
  EXPECT_EQ(names.dropped(), 0U);
}

// --- Reports.

class lastReportTest : public agentTest {
 protected:
  lastReportTest() { load("logLevel=4"); }
  std::string path() const { return folder() / "report.json"; }
};

TEST_F(lastReportTest, isTakenBackUnlessTheVmEnds) {
  instruments::lastReport report;
  EXPECT_EQ(report.path(), "");
  EXPECT_TRUE(report.takeBack());
  report.order("a", false);
  EXPECT_EQ(report.path(), "a");
  EXPECT_TRUE(report.takeBack());
  EXPECT_EQ(report.path(), "");
  report.order("b", true);
  EXPECT_FALSE(report.takeBack());
  EXPECT_EQ(report.path(), "b");
}

TEST_F(lastReportTest, replacesTheOneBeforeAtOnceOrNotAtAll) {
  writeFile(path(), "before");
  instruments::lastReport::write(path(), "after", "test");
  EXPECT_EQ(readFile(path()), "after");
  EXPECT_FALSE(std::filesystem::exists(path() + ".end"));
  std::filesystem::create_directory(path() + ".end");
  instruments::lastReport::write(path(), "has no place", "test");
  EXPECT_EQ(readFile(path()), "after");
  EXPECT_THAT(messages("Error"), ElementsAre(::testing::HasSubstr("was not written at the end")));
}

TEST_F(lastReportTest, aReportNamesWhatFailed) {
  EXPECT_EQ(instruments::writeReport(path(), "text"), "");
  EXPECT_EQ(readFile(path()), "text");
  const std::string nowhere = folder() / "nowhere" / "report.json";
  EXPECT_THAT(instruments::writeReport(nowhere, "text"), ::testing::HasSubstr(nowhere + ": "));
}

}  // namespace
