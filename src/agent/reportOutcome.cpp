#include "agent/reportOutcome.h"

#include <exception>

namespace agent {

void reportOutcomes::begin(std::int32_t kind) {
  const support::lockGuard guard(mutex_);
  outcomes_.erase(kind);
}

void reportOutcomes::end(std::int32_t kind, const std::string& path, const std::string& problem,
                         std::uint64_t bytes,
                         std::optional<ownerLookupCounts> ownerLookups) noexcept {
  try {
    auto ended =
        std::make_shared<const reportOutcome>(reportOutcome{path, problem, bytes, ownerLookups});
    const support::lockGuard guard(mutex_);
    outcomes_[kind].swap(ended);
  } catch (const std::exception&) {
    // Whoever asks finds none, as after begin().
  }
}

std::shared_ptr<const reportOutcome> reportOutcomes::last(std::int32_t kind) const {
  const support::lockGuard guard(mutex_);
  const auto found = outcomes_.find(kind);
  return found == outcomes_.end() ? nullptr : found->second;
}

reportOutcomes& reportOutcomes::ofProcess() {
  static reportOutcomes& outcomes = *new reportOutcomes;
  return outcomes;
}

}  // namespace agent
