#include "hostSpread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

namespace viewer {
namespace {

hostSpread spreadOf(const std::vector<std::uint64_t>& values) {
  hostSpread result;
  for (std::size_t host = 0; host < values.size(); host++) {
    result.add(host, values[host]);
  }
  return result;
}

TEST(hostSpreadTest, hasNothingWithoutHosts) {
  const hostSpread none;
  EXPECT_EQ(none.hosts(), 0U);
  EXPECT_EQ(none.sum(), 0U);
  EXPECT_EQ(none.median(), 0U);
}

TEST(hostSpreadTest, hasTheLowerOfTwoInTheMiddle) {
  EXPECT_EQ(spreadOf({5}).median(), 5U);
  EXPECT_EQ(spreadOf({9, 2}).median(), 2U);
  EXPECT_EQ(spreadOf({9, 2, 4}).median(), 4U);
  EXPECT_EQ(spreadOf({9, 2, 4, 3}).median(), 3U);
}

TEST(hostSpreadTest, namesTheFirstOfEqualHostsAsTheWorst) {
  const hostSpread spread = spreadOf({1, 7, 7, 0});
  EXPECT_EQ(spread.worst(), 7U);
  EXPECT_EQ(spread.worstHost(), 1U);
  EXPECT_EQ(spread.sum(), 15U);
}

TEST(hostSpreadTest, isExactUpToItsLimitAndNearBeyond) {
  std::vector<std::uint64_t> values;
  for (std::uint64_t value = 1; values.size() < hostSpread::kExact; value += value / 20 + 1) {
    values.push_back(value);
  }
  EXPECT_FALSE(spreadOf(values).isMedianRounded());
  EXPECT_EQ(spreadOf(values).median(), values[(values.size() - 1) / 2]);
  for (std::uint64_t value :
       {std::uint64_t(0), std::uint64_t(3), std::uint64_t(1000), std::uint64_t(1) << 40U,
        values.back() + 1, std::numeric_limits<std::uint64_t>::max()}) {
    values.push_back(value);
    const hostSpread spread = spreadOf(values);
    std::vector<std::uint64_t> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const auto exact = static_cast<double>(sorted[(sorted.size() - 1) / 2]);
    EXPECT_TRUE(spread.isMedianRounded());
    EXPECT_NEAR(static_cast<double>(spread.median()), exact, exact * hostSpread::kPercent / 100);
  }
}

TEST(hostSpreadTest, isNearForValuesOfAllSizes) {
  constexpr std::size_t kHosts = 200;
  for (std::uint64_t value = 1; value < std::numeric_limits<std::uint64_t>::max() / 2;
       value += value / 7 + 1) {
    hostSpread spread;
    for (std::size_t host = 0; host < kHosts; host++) {
      spread.add(host, value);
    }
    EXPECT_NEAR(static_cast<double>(spread.median()), static_cast<double>(value),
                static_cast<double>(value) * hostSpread::kPercent / 100);
  }
}

}  // namespace
}  // namespace viewer
