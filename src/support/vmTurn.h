// Taking turns in asking the VM for a global safepoint: one gets dearer with every thread that
// queues for it inside the VM.
#pragma once

#include <chrono>
#include <mutex>

namespace support {

// Held around one such call and nothing else: together with no other lock, and across no call into
// Java. The wait is bounded: a debugger may have suspended the thread whose turn it is, and then
// everybody goes on without one.
class vmTurn {
 public:
  // The system clock, since ThreadSanitizer does not see waits on the steady one.
  explicit vmTurn(std::timed_mutex& mutex)
      : lock_(mutex, std::chrono::system_clock::now() + kPatience) {}

 private:
  static constexpr std::chrono::seconds kPatience{10};
  std::unique_lock<std::timed_mutex> lock_;
};

}  // namespace support
