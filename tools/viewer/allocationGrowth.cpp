#include "allocationGrowth.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <utility>

namespace viewer {
namespace {

constexpr double kMillisOfAMinute = 60'000;
constexpr double kDeviations = 1.96;  // of 19 in 20 cases
constexpr std::size_t kLeastHistograms = 3;
constexpr std::size_t kHalf = kParts / 2;

std::uint64_t rounded(double value) {
  constexpr double kMost = 9.2e18;
  return value > 0 ? static_cast<std::uint64_t>(std::llround(std::min(value, kMost))) : 0;
}

double sumOf(std::span<const std::uint64_t> parts) {
  double sum = 0;
  for (std::uint64_t one : parts) {
    sum += static_cast<double>(one);
  }
  return sum;
}

// Of each half of the session the part at its end does not count, unless there are few samples.
std::size_t partsNotCounted(const aliveEvidence& alive) {
  return alive.samples < kFewSamples ? 0 : 1;
}

// The bytes that were allocated in that half of which fewer are alive.
double fewerBytes(const aliveEvidence& alive) {
  const std::size_t ends = partsNotCounted(alive);
  const std::span<const std::uint64_t> born(alive.born);
  const std::size_t parts = kHalf - ends;
  return std::min(sumOf(born.subspan(ends, parts)), sumOf(born.subspan(kHalf, parts)));
}

// The length of what counts of a half.
double minutesOf(const aliveEvidence& alive) {
  return static_cast<double>(alive.millis) / kMillisOfAMinute *
         static_cast<double>(kHalf - partsNotCounted(alive)) / static_cast<double>(kParts);
}

// Bytes per minute.
double rateOf(const aliveEvidence& alive) {
  if (alive.parts.empty()) {
    return alive.born.size() == kParts ? fewerBytes(alive) / minutesOf(alive) : 0;
  }
  double sum = 0;
  for (const aliveEvidence& part : alive.parts) {
    sum += rateOf(part);
  }
  return sum;
}

// The limits of the mean of a Poisson distribution that gave `count` (Byar's approximation).
double lowest(double count) {
  return count == 0
             ? 0
             : count * std::pow(1 - 1 / (9 * count) - kDeviations / (3 * std::sqrt(count)), 3);
}
double highest(double count) {
  const double next = count + 1;
  return next * std::pow(1 - 1 / (9 * next) + kDeviations / (3 * std::sqrt(next)), 3);
}

using point = std::pair<double, double>;  // minutes and bytes

// The slope of the line with the least squares; none of points at one time.
std::optional<double> slopeOf(std::span<const point> points) {
  double meanX = 0;
  double meanY = 0;
  for (const auto& [x, y] : points) {
    meanX += x / static_cast<double>(points.size());
    meanY += y / static_cast<double>(points.size());
  }
  double products = 0;
  double squares = 0;
  for (const auto& [x, y] : points) {
    products += (x - meanX) * (y - meanY);
    squares += (x - meanX) * (x - meanX);
  }
  return squares > 0 ? std::optional(products / squares) : std::nullopt;
}

}  // namespace

std::optional<std::uint64_t> growsBy(const aliveEvidence& alive) {
  if (alive.millis == 0 || alive.born.size() != kParts) {
    return {};
  }
  const double rate = rateOf(alive);
  return rounded(alive.mostBytesPerMinute ? std::min(rate, *alive.mostBytesPerMinute) : rate);
}

std::optional<double> growsBy(const std::vector<std::uint64_t>& at,
                              const std::vector<std::optional<std::uint64_t>>& bytes) {
  std::vector<point> points;
  for (std::size_t i = 0; i < std::min(at.size(), bytes.size()); i++) {
    if (bytes[i]) {
      points.emplace_back(static_cast<double>(at[i]) / kMillisOfAMinute,
                          static_cast<double>(*bytes[i]));
    }
  }
  if (points.size() < kLeastHistograms) {
    return {};
  }
  const std::span<const point> all(points);
  const std::optional<double> whole = slopeOf(all);
  const double least = (all.back().first - all.front().first) / 4;
  std::size_t first = (points.size() - 1) / 2;
  while (first > 0 && all.back().first - all[first].first < least) {
    first--;
  }
  const std::optional<double> latter = slopeOf(all.subspan(first));
  return whole && latter ? std::optional(std::min(*whole, *latter)) : std::nullopt;
}

estimateRange rangeOf(std::uint64_t bytes, std::uint64_t samples, std::uint64_t objects) {
  if (samples == 0) {
    return {bytes, bytes};
  }
  const auto count = static_cast<double>(samples);
  const double drawn = objects > samples ? count / static_cast<double>(objects) : 1;
  const double byChance = std::sqrt(1 - drawn);
  const auto scaled = [&](double limit) {
    return rounded(static_cast<double>(bytes) * (1 + (limit / count - 1) * byChance));
  };
  return {scaled(lowest(count)), scaled(highest(count))};
}

estimateRange growthRangeOf(const aliveEvidence& alive, std::uint64_t bytes, std::uint64_t objects,
                            std::uint64_t interval) {
  if (alive.millis == 0 || alive.born.size() != kParts) {
    return {};
  }
  const double ofSample = alive.samples == 0
                              ? static_cast<double>(interval)
                              : static_cast<double>(bytes) / static_cast<double>(alive.samples);
  const double fewer = rateOf(alive) * minutesOf(alive);
  const std::uint64_t samples = ofSample > 0 ? rounded(fewer / ofSample) : 0;
  const double share =
      alive.samples == 0 ? 1 : static_cast<double>(samples) / static_cast<double>(alive.samples);
  const estimateRange range =
      samples == 0
          ? estimateRange{0, mostWithoutSample(std::max(rounded(ofSample), interval))}
          : rangeOf(rounded(fewer), samples, rounded(static_cast<double>(objects) * share));
  const auto byMinute = [&](std::uint64_t limit) {
    const double rate = static_cast<double>(limit) / minutesOf(alive);
    return rounded(alive.mostBytesPerMinute ? std::min(rate, *alive.mostBytesPerMinute) : rate);
  };
  return {byMinute(range.low), byMinute(range.high)};
}

std::uint64_t mostWithoutSample(std::uint64_t interval) {
  return rounded(static_cast<double>(interval) * highest(0));
}

}  // namespace viewer
