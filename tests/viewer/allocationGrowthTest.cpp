#include "allocationGrowth.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace viewer {
namespace {

constexpr std::uint64_t kMegabyte = 1'000'000;
constexpr std::uint64_t kMinutes = 8 * 60'000;  // of a session

aliveEvidence bornIn(std::vector<std::uint64_t> megabytes, std::uint64_t samples = 1000,
                     std::optional<double> most = {}) {
  for (std::uint64_t& one : megabytes) {
    one *= kMegabyte;
  }
  return {megabytes, samples, kMinutes, most};
}

TEST(allocationGrowth, ofALeakIsWhatItLosesByMinute) {
  EXPECT_EQ(growsBy(bornIn({3, 3, 3, 3, 3, 3, 3, 3})), 3 * kMegabyte);
}

TEST(allocationGrowth, ofASlowLeakOfThreeSamplesIsSeen) {
  EXPECT_EQ(growsBy(bornIn({1, 0, 0, 0, 1, 0, 1, 0}, 3)), kMegabyte / 4);
}

TEST(allocationGrowth, ofACacheThatDropsItsOldestEntriesIsNone) {
  EXPECT_EQ(growsBy(bornIn({0, 0, 0, 0, 0, 0, 40, 60})), 0);
  EXPECT_EQ(growsBy(bornIn({0, 0, 0, 0, 0, 0, 1, 2}, 3)), 0);
}

TEST(allocationGrowth, ofWhatWasMadeAtTheStartIsNone) {
  EXPECT_EQ(growsBy(bornIn({90, 20, 0, 0, 0, 0, 0, 0})), 0);
}

TEST(allocationGrowth, countsNeitherTheStartNorWhatIsInUseAtTheEnd) {
  EXPECT_EQ(growsBy(bornIn({90, 0, 0, 0, 0, 0, 0, 30})), 0);
  EXPECT_GT(growsBy(bornIn({9, 0, 0, 0, 0, 0, 0, 3}, kFewSamples - 1)), 0)
      << "few samples do not tell these apart";
}

TEST(allocationGrowth, ofASawtoothIsNoneAlthoughItsCourseRises) {
  // Garbage that no collection of the old generation has looked at is of the last part.
  EXPECT_EQ(growsBy(bornIn({0, 0, 0, 0, 0, 10, 30, 40})), 0);
}

TEST(allocationGrowth, ofALeakThatEndedIsNone) {
  EXPECT_EQ(growsBy(bornIn({8, 8, 8, 8, 0, 0, 0, 0})), 0);
}

// Of a session whose only collection was the last one, the course has one value; born has all.
TEST(allocationGrowth, needsOneCollectionOnly) {
  EXPECT_EQ(growsBy(aliveEvidence{std::vector<std::uint64_t>(8, kMegabyte), 30, 60'000, {}}),
            8 * kMegabyte);
}

TEST(allocationGrowth, isNotKnownWithoutALengthOrParts) {
  EXPECT_EQ(growsBy(aliveEvidence{std::vector<std::uint64_t>(8, 1), 30, 0, {}}), std::nullopt);
  EXPECT_EQ(growsBy(aliveEvidence{{1, 2}, 30, 1000, {}}), std::nullopt);
  EXPECT_EQ(growsBy(aliveEvidence{}), std::nullopt);
}

TEST(allocationGrowth, isNoMoreThanThatOfTheClass) {
  EXPECT_EQ(growsBy(bornIn({3, 3, 3, 3, 3, 3, 3, 3}, 1000, 5e5)), kMegabyte / 2);
  EXPECT_EQ(growsBy(bornIn({3, 3, 3, 3, 3, 3, 3, 3}, 1000, -7.0)), 0);
}

TEST(histogramGrowth, isTheSlope) {
  EXPECT_NEAR(*growsBy({0, 60'000, 120'000, 180'000}, {100, 200, 300, 400}), 100, 1e-6);
}

TEST(histogramGrowth, takesThreeThatKnowTheClass) {
  EXPECT_EQ(growsBy({0, 60'000}, {100, 200}), std::nullopt);
  EXPECT_EQ(growsBy({0, 60'000, 120'000}, {{}, 100, 200}), std::nullopt);
  EXPECT_EQ(growsBy({5, 5, 5}, {1, 2, 3}), std::nullopt) << "all at one time";
}

TEST(histogramGrowth, ofWhatHasStoppedIsNone) {
  EXPECT_NEAR(*growsBy({0, 60'000, 120'000, 180'000, 240'000}, {0, 900, 900, 900, 900}), 0, 1e-6);
}

TEST(histogramGrowth, isSeenWhereTheLastTwoAreCloseTogether) {
  EXPECT_GT(*growsBy({0, 60'000, 60'300}, {100, 300, 300}), 150);
}

TEST(histogramGrowth, ofWhatShrinksIsBelowNone) {
  EXPECT_LT(*growsBy({0, 60'000, 120'000}, {300, 200, 100}), 0);
}

// The exact limits of a Poisson distribution are 0.62 and 8.77 for 3, 80.4 and 119.6 for 100.
TEST(estimateRange, isThatOfRareEvents) {
  const estimateRange few = rangeOf(3000, 3, 3'000'000);
  EXPECT_NEAR(static_cast<double>(few.low), 620, 30);
  EXPECT_NEAR(static_cast<double>(few.high), 8770, 30);
  const estimateRange many = rangeOf(100'000, 100, 100'000'000);
  EXPECT_NEAR(static_cast<double>(many.low), 81'360, 1000);
  EXPECT_NEAR(static_cast<double>(many.high), 121'600, 1000);
}

TEST(estimateRange, isOneFigureWhereEachObjectWasASample) {
  const estimateRange all = rangeOf(5000, 5, 5);
  EXPECT_EQ(all.low, 5000);
  EXPECT_EQ(all.high, 5000);
}

TEST(estimateRange, ofNoSampleIsTheEstimate) {
  EXPECT_EQ(rangeOf(0, 0, 0).high, 0);
  EXPECT_NEAR(static_cast<double>(mostWithoutSample(1000)), 3690, 30);
}

TEST(growthRange, holdsTheFigure) {
  const aliveEvidence leak = bornIn({3, 3, 3, 3, 3, 3, 3, 3}, 24);
  const estimateRange range = growthRangeOf(leak, 24 * kMegabyte, 24'000'000, kMegabyte);
  EXPECT_LT(range.low, 3 * kMegabyte);
  EXPECT_GT(range.high, 3 * kMegabyte);
}

TEST(growthRange, ofNothingSeenIsWhatNoSampleShows) {
  const estimateRange range =
      growthRangeOf(bornIn({60, 0, 0, 0, 0, 0, 0, 0}, 60), 60 * kMegabyte, 600, kMegabyte);
  EXPECT_EQ(range.low, 0);
  EXPECT_NEAR(static_cast<double>(range.high), 3.67e6 / 3, 2e4);
}

}  // namespace
}  // namespace viewer
