#include "agent/reportOutcome.h"

#include <utility>

namespace agent {

void reportOutcomes::begin(std::int32_t kind) {
  const support::lockGuard guard(mutex_);
  outcomes_[kind].reset();
}

void reportOutcomes::end(std::int32_t kind, reportOutcome outcome) {
  const support::lockGuard guard(mutex_);
  outcomes_[kind] = std::move(outcome);
}

std::optional<reportOutcome> reportOutcomes::last(std::int32_t kind) const {
  const support::lockGuard guard(mutex_);
  const auto found = outcomes_.find(kind);
  return found == outcomes_.end() ? std::nullopt : found->second;
}

reportOutcomes& reportOutcomes::ofProcess() {
  static reportOutcomes& outcomes = *new reportOutcomes;
  return outcomes;
}

}  // namespace agent
