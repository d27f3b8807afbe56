// The last windows of a time line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

namespace instruments {

// Holds the newest `limit` windows and counts those that went. One thread at a time.
template <typename Window>
class windowRing {
 public:
  explicit windowRing(std::size_t limit) : limit_(limit) {}

  void add(Window window) {
    if (windows_.size() == limit_) {
      windows_.pop_front();
      ++dropped_;
    }
    windows_.push_back(std::move(window));
  }
  void clear() {
    windows_.clear();
    dropped_ = 0;
  }

  const std::deque<Window>& windows() const { return windows_; }
  std::uint64_t dropped() const { return dropped_; }

 private:
  std::size_t limit_;
  std::deque<Window> windows_;
  std::uint64_t dropped_ = 0;
};

}  // namespace instruments
