// Lookups for a monitor's owner that several events share.
#include <atomic>
#include <deque>
#include <latch>
#include <thread>

#include "lockTest.h"

namespace test {

namespace {

class sharedLooks : public lockTest {
 protected:
  void SetUp() override {
    load();
    lock = vm.makeObject("com.example.Inventory");
    vm.setOwner(lock, vm.makeThread("holder"));
    beginDetail({lock});
    vm.resetCalls();
  }

  fake::object* lock = nullptr;
};

}  // namespace

TEST_F(sharedLooks, eventsThatComeBeforeALookHasBegunShareIt) {
  constexpr int kLater = 5;
  std::latch firstAsks(1);
  std::latch goOn(1);
  std::atomic<int> asked{0};
  vm.on("GetObjectMonitorUsage", [&] {
    if (asked.fetch_add(1) != 0) {
      return;
    }
    firstAsks.count_down();
    goOn.wait();
  });
  fake::attachedThread first(vm, "first",
                             [&](JNIEnv*) { vm.contendedEnter(vm.currentThread(), lock); });
  firstAsks.wait();

  std::deque<fake::attachedThread> later;
  for (int i = 0; i < kLater; ++i) {
    later.emplace_back(vm, "later " + std::to_string(i),
                       [&](JNIEnv*) { vm.contendedEnter(vm.currentThread(), lock); });
  }
  // All of them have come while the first look was under way, which they cannot use.
  while (usersOfPendingLookup(lock) < kLater) {
    std::this_thread::yield();
  }
  goOn.count_down();
  first.join();
  later.clear();

  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 2U);
  EXPECT_EQ(blockingCountOf(lock, "holder"), 1U + kLater);
}

TEST_F(sharedLooks, anEventAfterALookAsksAnew) {
  vm.contendedEnter(vm.makeThread("a"), lock);
  vm.setOwner(lock, vm.makeThread("another holder"));
  vm.contendedEnter(vm.makeThread("b"), lock);
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 2U);
  EXPECT_EQ(blockingCountOf(lock, "holder"), 1U);
  EXPECT_EQ(blockingCountOf(lock, "another holder"), 1U);
}

TEST(ownerLookup, isJoinedUntilItBegins) {
  agent::ownerLookup lookup;
  EXPECT_TRUE(lookup.join());
  lookup.begin();
  EXPECT_FALSE(lookup.join());
}

TEST(ownerLookup, tellsThoseWhoWait) {
  agent::ownerLookup lookup;
  std::thread looking([&] {
    lookup.begin();
    lookup.publish(agent::foundOwner{true, "holder"});
  });
  const std::optional<agent::foundOwner> found = lookup.wait();
  looking.join();
  ASSERT_TRUE(found.has_value());
  EXPECT_TRUE(found->isNamed);
  EXPECT_EQ(found->name, "holder");
}

TEST(ownerLookup, tellsThatItCameToNoResult) {
  agent::ownerLookup lookup;
  lookup.begin();
  lookup.publish(std::nullopt);
  EXPECT_FALSE(lookup.wait().has_value());
}

// As when a debugger has suspended the thread that looks.
TEST(ownerLookup, nobodyJoinsALookThatWasWaitedForInVain) {
  agent::ownerLookup lookup;
  ASSERT_TRUE(lookup.join());
  EXPECT_FALSE(lookup.wait().has_value());
  EXPECT_FALSE(lookup.join());
}

}  // namespace test
