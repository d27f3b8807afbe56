// The clocks of the process, at a standstill.
#pragma once

#include <cstdint>

namespace test {

// While one lives, the steady clock and the processor time of threads show what the test sets. Of a
// program with one thread.
class stoppedClock {
 public:
  stoppedClock();
  ~stoppedClock();
  stoppedClock(const stoppedClock&) = delete;
  stoppedClock& operator=(const stoppedClock&) = delete;

  static std::int64_t now();  // steady nanoseconds
  static void advance(std::int64_t nanos);
  static void useProcessor(std::int64_t nanos);
};

}  // namespace test
