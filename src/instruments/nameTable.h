// Texts by number, 0 being none. Bounded: what has no room is counted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace instruments {

// One thread at a time.
class nameTable {
 public:
  static constexpr std::size_t kMost = 4096;

  explicit nameTable(std::size_t limit = kMost) : limit_(limit) {}

  // From 1 on; 0 when there is no room.
  std::uint32_t idOf(std::string_view name);
  const std::string& at(std::uint32_t id) const { return *order_.at(id - 1); }
  std::size_t size() const { return order_.size(); }
  std::uint64_t dropped() const { return dropped_; }
  void clear();

 private:
  std::size_t limit_;
  std::map<std::string, std::uint32_t, std::less<>> ids_;
  std::vector<const std::string*> order_;
  std::uint64_t dropped_ = 0;
};

}  // namespace instruments
