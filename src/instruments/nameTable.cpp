#include "instruments/nameTable.h"

namespace instruments {

std::uint32_t nameTable::idOf(std::string_view name) {
  const auto known = ids_.find(name);
  if (known != ids_.end()) {
    return known->second;
  }
  if (ids_.size() == limit_) {
    ++dropped_;
    return 0;
  }
  const auto id = static_cast<std::uint32_t>(ids_.size() + 1);
  order_.push_back(&ids_.emplace(name, id).first->first);
  return id;
}

void nameTable::clear() {
  ids_.clear();
  order_.clear();
  dropped_ = 0;
}

}  // namespace instruments
