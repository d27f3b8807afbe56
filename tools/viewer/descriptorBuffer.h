// A stream's way to a file descriptor, which keeps the reason why writing failed. One thread at a
// time.
#pragma once

#include <array>
#include <streambuf>

namespace viewer {

class descriptorBuffer : public std::streambuf {
 public:
  // The descriptor stays the caller's, who flushes the stream before the end of the buffer.
  explicit descriptorBuffer(int descriptor);

  // The errno of the first write that failed, and 0 while none has.
  int problem() const { return problem_; }

 protected:
  int_type overflow(int_type next) override;
  int sync() override;

 private:
  bool writeAll();

  int descriptor_;
  int problem_ = 0;
  std::array<char, 64 * 1024> bytes_;
};

}  // namespace viewer
