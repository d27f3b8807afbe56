#include "locks/ownerLookup.h"

#include <chrono>
#include <utility>

#include "support/vmTurn.h"

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
  constexpr std::chrono::seconds kPatience{1};
  std::unique_lock guard(mutex_);
  if (!done_.wait_until(guard, support::patienceClock::now() + kPatience,
                        [this] { return published_; })) {
    begun_.store(true);  // nobody else is to wait for it
  }
  return found_;
}

}  // namespace agent
