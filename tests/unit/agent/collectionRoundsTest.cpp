// What counts as a collection, whatever events a collector sends.
#include "allocations/collectionRounds.h"

#include "fakevm/fakeVm.h"
#include "instruments/costAccount.h"

namespace {

using agent::collectionRounds;

class collectionRoundsTest : public fake::vmTest {
 protected:
  void SetUp() override {
    jvmtiEventCallbacks callbacks{};
    callbacks.GarbageCollectionFinish = [](jvmtiEnv*) { current_->collectionFinished(); };
    vm.jvmti()->SetEventCallbacks(&callbacks, sizeof callbacks);
    vm.jvmti()->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_GARBAGE_COLLECTION_FINISH,
                                         nullptr);
    current_ = &rounds;
    vm.native([&](JNIEnv* jni) { rounds.begin(jni); });
  }
  void TearDown() override {
    vm.native([&](JNIEnv* jni) { rounds.end(jni); });
    vmTest::TearDown();
  }

  bool look() {
    return vm.native([&](JNIEnv* jni) { return rounds.look(jni); });
  }
  bool renew() {
    return vm.native([&](JNIEnv* jni) { return rounds.renew(jni); });
  }

  collectionRounds rounds;

 private:
  static inline collectionRounds* current_ = nullptr;
};

TEST_F(collectionRoundsTest, severalEventsAreOneRound) {
  for (const unsigned events : {1U, 2U, 4U}) {
    vm.setEventsPerCollection(events);
    const std::uint32_t before = rounds.ended();
    vm.collectGarbage();
    EXPECT_TRUE(look());
    EXPECT_FALSE(look());
    EXPECT_EQ(rounds.ended(), before + 1);
  }
}

TEST_F(collectionRoundsTest, severalCollectionsBetweenTwoLooksAreOneRound) {
  vm.collectGarbage();
  vm.collectGarbage();
  EXPECT_TRUE(look());
  EXPECT_EQ(rounds.ended(), 1U);
}

// Events of pauses within a collection that goes on, and of collections that leave the canary.
TEST_F(collectionRoundsTest, eventsWithoutADeadCanaryAreNone) {
  vm.garbageCollectionFinish();
  EXPECT_FALSE(look());
  EXPECT_EQ(rounds.ended(), 0U);
  vm.collectGarbage();
  EXPECT_TRUE(look());
}

TEST_F(collectionRoundsTest, asksNothingWithoutAnEvent) {
  vm.resetCalls();
  EXPECT_FALSE(look());
  EXPECT_EQ(vm.calls("IsSameObject"), 0U);
  EXPECT_EQ(vm.calls("NewByteArray"), 0U);
}

TEST_F(collectionRoundsTest, whatIsAllocatedAfterTheCanaryCountsFromTheNextOne) {
  const std::int64_t before = rounds.canaryAt() - 1;
  const std::int64_t after = instruments::steadyNanos();
  EXPECT_EQ(rounds.roundOf(before), 0U);
  EXPECT_EQ(rounds.roundOf(after), 1U);
  vm.collectGarbage();
  look();
  EXPECT_EQ(rounds.roundOf(after), 1U) << "before the second canary";
  EXPECT_EQ(rounds.roundOf(instruments::steadyNanos()), 2U);
}

TEST_F(collectionRoundsTest, aRenewedCanaryIsYoungerThanAllThereIs) {
  const std::int64_t now = instruments::steadyNanos();
  EXPECT_EQ(rounds.roundOf(now), 1U);
  EXPECT_TRUE(renew());
  EXPECT_EQ(rounds.ended(), 0U) << "no round";
  EXPECT_EQ(rounds.roundOf(now), 0U);
  EXPECT_EQ(vm.weakReferences(), 1U);
}

TEST_F(collectionRoundsTest, withoutMemoryForACanaryNothingIsClaimed) {
  for (const char* const call : {"NewByteArray", "NewWeakGlobalRef"}) {
    vm.fail(call, {.throwing = true});
    EXPECT_FALSE(renew());
    EXPECT_EQ(rounds.roundOf(0), rounds.ended() + 1) << "nothing is known to be older";
    vm.collectGarbage();
    EXPECT_FALSE(look());
    vm.succeed(call);
    EXPECT_EQ(rounds.ended(), 0U);
    EXPECT_FALSE(look()) << "makes the next one";
    EXPECT_EQ(vm.weakReferences(), 1U);
  }
  vm.collectGarbage();
  EXPECT_TRUE(look());
}

TEST_F(collectionRoundsTest, theNextCanaryMayFailToo) {
  vm.collectGarbage();
  vm.fail("NewByteArray", {.throwing = true});
  EXPECT_TRUE(look());
  EXPECT_EQ(vm.weakReferences(), 0U);
  vm.succeed("NewByteArray");
  EXPECT_FALSE(look());
  vm.collectGarbage();
  EXPECT_TRUE(look());
  EXPECT_EQ(rounds.ended(), 2U);
}

TEST_F(collectionRoundsTest, beginsFromZeroWithOneCanary) {
  vm.collectGarbage();
  look();
  vm.native([&](JNIEnv* jni) { rounds.begin(jni); });
  EXPECT_EQ(rounds.ended(), 0U);
  EXPECT_EQ(vm.weakReferences(), 1U);
}

}  // namespace
