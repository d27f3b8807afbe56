#include "contention/contentionSamples.h"

namespace agent {

std::size_t pairHash::operator()(const pairKey& key) const {
  constexpr std::uint64_t kPrime = 0x100000001b3U;
  std::uint64_t hash = 0;
  for (const std::uint64_t each :
       {std::uint64_t{key.lock}, std::uint64_t{key.waiter}, std::uint64_t{key.waiterStack},
        std::uint64_t{key.owner.thread}, std::uint64_t{key.owner.stack},
        static_cast<std::uint64_t>(key.owner.holdingFrame), std::uint64_t{key.owner.waitsFor},
        static_cast<std::uint64_t>(key.owner.note)}) {
    hash = (hash ^ each) * kPrime;
    hash ^= hash >> 29U;
  }
  return hash;
}

std::string_view contentionSamples::fieldOf(std::uint32_t lock) const {
  const lockField* const known = fields.find(lock);
  return known == nullptr ? std::string_view() : known->name;
}

bool contentionSamples::takeFieldLook(std::uint32_t lock) {
  lockField* const known = fields.at(lock);
  return known != nullptr && known->name.empty() && known->looks++ < kMostFieldLooks;
}

void contentionSamples::clear() {
  stacks.clear();
  names.clear();
  pairs.clear();
  windows.clear();
  current = {};
  stuck.clear();
  deadlocks.clear();
  cost.clear();
  locksNotSampled = 0;
  ownersChanged = 0;
  pairsDropped = 0;
  pairNanosDropped = 0;
  windowLocksDropped = 0;
  stuckDropped = 0;
  fields.clear();
  classNames.assign(lockTable::kClasses, {});
}

}  // namespace agent
