// Samples on their way to the profile's thread.
#include "allocations/sampleQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using agent::sampleQueue;
using agent::takenSample;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::int64_t> sizesIn(sampleQueue& queue) {
  std::vector<std::int64_t> sizes;
  queue.take([&](const sampleQueue::entry& each) { sizes.push_back(each.sample.size); });
  return sizes;
}

TEST(sampleQueueTest, givesSamplesOnceAndInTheirOrder) {
  sampleQueue queue;
  EXPECT_EQ(queue.add({.size = 1}, {}, false), 1U);
  EXPECT_EQ(queue.add({.size = 2}, {}, false), 2U);
  EXPECT_THAT(sizesIn(queue), ElementsAre(1, 2));
  EXPECT_THAT(sizesIn(queue), IsEmpty());
  EXPECT_EQ(queue.add({.size = 3}, {}, false), 1U);
  EXPECT_THAT(sizesIn(queue), ElementsAre(3));
}

TEST(sampleQueueTest, keepsAllOfASample) {
  sampleQueue queue;
  const auto object = reinterpret_cast<jweak>(8);
  const auto method = reinterpret_cast<jmethodID>(16);
  const std::vector<jvmtiFrameInfo> frames(64, {method, 7});
  queue.add({object, 2, 3, 4, 5, 6}, frames, true);
  queue.take([&](const sampleQueue::entry& each) {
    EXPECT_EQ(each.sample.object, object);
    EXPECT_EQ(each.sample.at, 2);
    EXPECT_EQ(each.sample.size, 3);
    EXPECT_EQ(each.sample.interval, 4);
    EXPECT_EQ(each.sample.cls, 5U);
    EXPECT_EQ(each.sample.thread, 6U);
    EXPECT_EQ(each.depth, 64);
    EXPECT_TRUE(each.isCut);
    EXPECT_EQ(each.frames.at(63).method, method);
    EXPECT_EQ(each.frames.at(63).location, 7);
  });
}

TEST(sampleQueueTest, refusesWhatHasNoRoomUntilItIsEmptied) {
  sampleQueue queue;
  for (int turn = 0; turn < 3; ++turn) {
    for (std::size_t i = 0; i < sampleQueue::kMost; ++i) {
      EXPECT_EQ(queue.add({.size = static_cast<std::int64_t>(i)}, {}, false), i + 1);
    }
    EXPECT_EQ(queue.add({.size = -1}, {}, false), 0U);
    const std::vector<std::int64_t> sizes = sizesIn(queue);
    ASSERT_EQ(sizes.size(), sampleQueue::kMost);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      ASSERT_EQ(sizes[i], static_cast<std::int64_t>(i));
    }
  }
}

TEST(sampleQueueTest, takesSamplesWhileItIsRead) {
  sampleQueue queue;
  queue.add({.size = 1}, {}, false);
  std::vector<std::int64_t> seen;
  queue.take([&](const sampleQueue::entry& each) {
    for (std::size_t i = 0; i < sampleQueue::kMost; ++i) {
      EXPECT_NE(queue.add({.size = 2}, {}, false), 0U);
    }
    seen.push_back(each.sample.size);
  });
  EXPECT_THAT(seen, ElementsAre(1));
  EXPECT_EQ(sizesIn(queue).size(), sampleQueue::kMost);
}

}  // namespace
