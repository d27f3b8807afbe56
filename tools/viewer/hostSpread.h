// How a sum spreads over hosts, in memory that does not grow with their number. One thread at a
// time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace viewer {

class hostSpread {
 public:
  // Up to so many hosts the median is exact.
  static constexpr std::size_t kExact = 128;
  // Beyond them it is off by so many percent at most.
  static constexpr std::size_t kPercent = 4;

  // Adds what one host has; hosts are numbered in the order in which they are to win a tie. Each
  // host once.
  void add(std::size_t host, std::uint64_t value);

  std::uint64_t sum() const { return sum_; }
  std::size_t hosts() const { return hosts_; }
  std::uint64_t worst() const { return worst_; }
  std::size_t worstHost() const { return worstHost_; }

  // Half of the hosts have as much or less: the lower one of two in the middle. 0 without hosts.
  std::uint64_t median() const;
  bool isMedianRounded() const { return hosts_ > kExact; }

 private:
  void count(std::uint64_t value);

  std::uint64_t sum_ = 0;
  std::uint64_t worst_ = 0;
  std::size_t worstHost_ = 0;
  std::size_t hosts_ = 0;
  std::vector<std::uint64_t> values_;  // up to kExact
  // Beyond: how many hosts have a value in a range, by the number of the range.
  std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges_;
};

}  // namespace viewer
