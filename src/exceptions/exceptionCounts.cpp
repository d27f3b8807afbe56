#include "exceptions/exceptionCounts.h"

#include "support/text.h"

namespace agent {

bool lossLines::take(std::string_view className, exceptionCount reason, std::int64_t now) {
  const std::uint64_t key =
      support::fnv1a64(className) * kExceptionCounts + static_cast<std::uint64_t>(reason);
  const support::lockGuard guard(mutex_);
  entry* free = nullptr;
  for (entry& each : entries_) {
    if (each.until > now) {
      if (each.key == key) {
        return false;
      }
    } else if (free == nullptr) {
      free = &each;
    }
  }
  if (free == nullptr) {
    return false;
  }
  *free = {key, now + kSeconds};
  return true;
}

}  // namespace agent
