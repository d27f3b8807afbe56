// Windows of sessions that are over, until they are fetched. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

namespace pprof {

class keptWindows {
 public:
  static constexpr std::size_t kMost = 8;

  // Nothing for an empty one. The oldest makes room.
  void put(std::string window) {
    if (window.empty()) {
      return;
    }
    if (windows_.size() == kMost) {
      windows_.pop_front();
      ++dropped_;
    }
    windows_.push_back(std::move(window));
  }
  // The oldest; empty when there is none.
  std::string take() {
    if (windows_.empty()) {
      return {};
    }
    std::string window = std::move(windows_.front());
    windows_.pop_front();
    return window;
  }
  std::uint64_t dropped() const { return dropped_; }

 private:
  std::deque<std::string> windows_;
  std::uint64_t dropped_ = 0;
};

}  // namespace pprof
