#include "ownerLookup.h"

#include <chrono>
#include <utility>

namespace agent {

void ownerLookup::publish(std::optional<foundOwner> found) {
  {
    const std::lock_guard guard(mutex_);
    found_ = std::move(found);
    published_ = true;
  }
  done_.notify_all();
}

std::optional<foundOwner> ownerLookup::wait() {
  constexpr std::chrono::seconds kPatience{10};
  std::unique_lock guard(mutex_);
  // The system clock, since ThreadSanitizer does not see waits on the steady one.
  done_.wait_until(guard, std::chrono::system_clock::now() + kPatience,
                   [this] { return published_; });
  return found_;
}

}  // namespace agent
