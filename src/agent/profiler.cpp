#include "agent/profiler.h"

#include <array>
#include <cstddef>

namespace agent {

namespace {

constexpr std::size_t kMostKinds = 8;

// By kind. There before any constructor of this library runs.
constinit std::array<profilerKind::maker, kMostKinds> makers{};

}  // namespace

profilerKind::profilerKind(std::int32_t kind, maker function) noexcept {
  makers.at(static_cast<std::size_t>(kind)) = function;
}

std::shared_ptr<profiler> profilerKind::make(std::int32_t kind) {
  const auto place = static_cast<std::size_t>(kind);
  return place < makers.size() && makers[place] != nullptr ? makers[place]() : nullptr;
}

std::vector<std::int32_t> profilerKind::all() {
  std::vector<std::int32_t> kinds;
  for (std::size_t i = 0; i < makers.size(); ++i) {
    if (makers[i] != nullptr) {
      kinds.push_back(static_cast<std::int32_t>(i));
    }
  }
  return kinds;
}

}  // namespace agent
