// One look for a monitor's owner that several events share.
//
// Each look is a global safepoint, and while threads queue for one, more threads come to wait for
// the same monitor. Those that come before a look has begun need none of their own: it will tell
// them who owns the monitor at a moment when they wait for it, which is all that their own would.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace agent {

// What a look has found.
struct foundOwner {
  bool isNamed = false;  // false when no thread owns the monitor, or none that the VM names
  std::string name;
};

class ownerLookup {
 public:
  // Whether the calling thread may wait for this look: it has not begun yet. Any thread.
  bool join() const { return !begun_.load(); }

  // The look begins now; nobody joins any more. By the thread that makes it, who may be holding a
  // lock: takes none.
  void begin() { begun_.store(true); }

  // Tells those who wait; nothing when the look came to no result. Exactly once.
  void publish(std::optional<foundOwner> found);

  // What the look has found; nothing when it came to no result, or to none within a second (a
  // debugger may have suspended the thread that looks): then nobody joins it any more.
  std::optional<foundOwner> wait();

 private:
  std::atomic<bool> begun_{false};
  std::mutex mutex_;  // guards the two below
  std::condition_variable done_;
  bool published_ = false;
  std::optional<foundOwner> found_;
};

}  // namespace agent
