// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace control {

class descriptor {
 public:
  descriptor() = default;
  explicit descriptor(int number) : number_(number) {}
  descriptor(descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  descriptor& operator=(descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;
  ~descriptor() {
    if (number_ >= 0) {
      ::close(number_);
    }
  }

  // Negative when nothing is open.
  int get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }

 private:
  int number_ = -1;
};

}  // namespace control
