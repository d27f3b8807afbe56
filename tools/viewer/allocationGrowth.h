// The one figure by which what grows is ranked, and how far an estimate from samples can be
// trusted. Plain functions without state; no report is needed.
//
// The rule: a site grows by the bytes alive that were allocated in the second to fourth, or in the
// fifth to seventh eighth of the session, whichever are fewer, by minute. A leak has as much from
// both; what was made at the start has nothing from the latter, and a cache that replaces its
// oldest entries nothing from the former. Of fewer than kFewSamples the first and the last eighth
// count as well, as all samples are needed. Where histograms have the class, a site grows by no
// more than the class. A class grows by what its sites grow by, those with few samples taken
// together: what one site made at the start and another one at the end is not growth.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace viewer {

constexpr std::uint64_t kFewSamples = 20;  // below them a figure is marked as uncertain
constexpr std::size_t kParts = 8;          // of a session, in which what is alive was allocated

// What is alive of a site, a class or a group of sites.
struct aliveEvidence {
  std::vector<std::uint64_t> born;  // bytes by the eighth of the session
  std::uint64_t samples = 0;
  std::uint64_t millis = 0;                  // length of the session
  std::optional<double> mostBytesPerMinute;  // by which the class grows; none when not known
  std::vector<aliveEvidence> parts{};        // when there are any, growth is theirs together
};

// Bytes per minute; none for a session without a length or without eighths.
std::optional<std::uint64_t> growsBy(const aliveEvidence& alive);

// The growth of a class by histograms: by the line through all of them or through their latter
// half, whichever is less, so that what has stopped growing does not count. None when fewer than 3
// know the class. That half is a quarter of the whole time at least: the last two may be close
// together.
// `bytes` are live bytes at the times `at` in milliseconds, none where not known.
std::optional<double> growsBy(const std::vector<std::uint64_t>& at,
                              const std::vector<std::optional<std::uint64_t>>& bytes);

// What a figure may be in truth: in 19 of 20 cases it is between the two.
struct estimateRange {
  std::uint64_t low = 0;
  std::uint64_t high = 0;
};

// Of `bytes` that so many samples of so many objects stand for: a sample is drawn by chance, unless
// the objects are large enough for each to be one.
estimateRange rangeOf(std::uint64_t bytes, std::uint64_t samples, std::uint64_t objects);

// The same of what grows, in bytes per minute, where `bytes` in so many objects are alive and a
// sample is drawn every `interval` bytes on average.
estimateRange growthRangeOf(const aliveEvidence& alive, std::uint64_t bytes, std::uint64_t objects,
                            std::uint64_t interval);

// The most bytes that may be there although no sample is, when a sample is drawn every `interval`
// bytes on average.
std::uint64_t mostWithoutSample(std::uint64_t interval);

}  // namespace viewer
