#include "hostSpread.h"

#include <algorithm>
#include <bit>

#include "contentionReport.h"

namespace viewer {
namespace {

// Values below kSteps are ranges of their own; above, each power of two has kSteps ranges.
constexpr unsigned kBits = 4;
constexpr std::uint64_t kSteps = 1U << kBits;

std::uint32_t rangeOf(std::uint64_t value) {
  if (value < kSteps) {
    return static_cast<std::uint32_t>(value);
  }
  const auto shift = static_cast<unsigned>(std::bit_width(value)) - 1 - kBits;
  return static_cast<std::uint32_t>((shift + 1) * kSteps + ((value >> shift) - kSteps));
}

// The middle of a range.
std::uint64_t valueOf(std::uint32_t range) {
  if (range < kSteps) {
    return range;
  }
  const std::uint64_t shift = range / kSteps - 1;
  return ((kSteps + range % kSteps) << shift) + ((1ULL << shift) - 1) / 2;
}

}  // namespace

void hostSpread::add(std::size_t host, std::uint64_t value) {
  sum_ = plus(sum_, value);
  if (hosts_ == 0 || value > worst_ || (value == worst_ && host < worstHost_)) {
    worst_ = value;
    worstHost_ = host;
  }
  if (++hosts_ <= kExact) {
    values_.push_back(value);
    return;
  }
  std::for_each(values_.begin(), values_.end(), [this](std::uint64_t one) { count(one); });
  std::vector<std::uint64_t>().swap(values_);
  count(value);
}

std::uint64_t hostSpread::median() const {
  if (hosts_ == 0) {
    return 0;
  }
  const std::size_t middle = (hosts_ - 1) / 2;
  if (!isMedianRounded()) {
    std::vector<std::uint64_t> sorted = values_;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(middle),
                     sorted.end());
    return sorted[middle];
  }
  std::size_t before = 0;
  const auto found = std::find_if(ranges_.begin(), ranges_.end(), [&](const auto& range) {
    before += range.second;
    return before > middle;
  });
  return std::min(valueOf(found->first), worst_);
}

void hostSpread::count(std::uint64_t value) {
  const std::uint32_t range = rangeOf(value);
  const auto found =
      std::lower_bound(ranges_.begin(), ranges_.end(), range,
                       [](const auto& one, std::uint32_t number) { return one.first < number; });
  if (found != ranges_.end() && found->first == range) {
    found->second++;
  } else {
    ranges_.insert(found, {range, 1});
  }
}

}  // namespace viewer
