#include "exceptions/rateSpread.h"

#include "exceptions/siteCounts.h"

namespace agent {

bool rateSpread::take(const std::string& className, std::int32_t rate, siteRow* site,
                      std::int64_t now) {
  if (rate < 1) {
    return true;
  }
  const support::lockGuard guard(mutex_);
  window& current = of(className, now);
  if (now - current.begin >= kSeconds) {
    current = {0, now};
  }
  const std::int64_t atOnce = (std::int64_t{rate} + 1) / 2;
  const std::int64_t later = rate - atOnce;
  const std::int64_t back = (later * (now - current.begin) + kSeconds / 2) / kSeconds;
  const bool isNew = site != nullptr && !site->isTaken();
  if (current.count >= (isNew ? rate : atOnce + back)) {
    return false;
  }
  if (isNew) {
    site->take();
  }
  ++current.count;
  return true;
}

rateSpread::window& rateSpread::of(const std::string& className, std::int64_t now) {
  const auto known = windows_.find(className);
  if (known != windows_.end()) {
    return known->second;
  }
  if (windows_.size() >= kClasses && swept_ != now) {
    swept_ = now;
    std::erase_if(windows_, [&](const auto& each) { return now - each.second.begin >= kSeconds; });
  }
  const std::string shared;
  return windows_.try_emplace(windows_.size() < kClasses ? className : shared, window{0, now})
      .first->second;
}

}  // namespace agent
