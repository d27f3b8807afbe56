#include "exceptions/undeliveredRecords.h"

#include <utility>

#include "exceptions/exceptionCounts.h"
#include "exceptions/exceptionRecord.h"

namespace agent {

undeliveredRecords& undeliveredRecords::ofProcess() {
  static undeliveredRecords& records = *new undeliveredRecords;
  return records;
}

bool undeliveredRecords::keep(undeliveredRecord record) {
  record.text.shrink_to_fit();  // the record had its whole budget reserved
  const support::lockGuard guard(mutex_);
  if (!isAsked_ || records_.size() == kMost) {
    return false;
  }
  if (bytes_ + record.bytes() > kMostBytes) {
    record.text = record::withoutValues(record.text);
    record.places = {};
    record.facts = 0;
    if (!record.isCut) {
      exceptionCounts::ofProcess().add(exceptionCount::cut);
    }
    record.isCut = true;
  }
  records_.push_back(std::move(record));
  bytes_ += records_.back().bytes();
  return true;
}

std::optional<undeliveredRecord> undeliveredRecords::take() {
  const support::lockGuard guard(mutex_);
  isAsked_ = true;
  if (records_.empty()) {
    return std::nullopt;
  }
  undeliveredRecord oldest = std::move(records_.front());
  records_.pop_front();
  bytes_ -= oldest.bytes();
  return oldest;
}

void undeliveredRecords::putBack(undeliveredRecord record) {
  const support::lockGuard guard(mutex_);
  if (records_.size() == kMost || bytes_ + record.bytes() > kMostBytes) {
    return;
  }
  records_.push_front(std::move(record));
  bytes_ += records_.front().bytes();
}

}  // namespace agent
