#include "agent/profiler.h"

#include <algorithm>
#include <array>

namespace agent {

namespace {

// There before any constructor of this library runs.
constinit std::array<profilerKind::maker, profilerKind::kMost> makers{};  // by kind
constinit std::array<std::int32_t, profilerKind::kMost> kinds{};  // the known ones, in order
constinit std::size_t known = 0;

}  // namespace

profilerKind::profilerKind(std::int32_t kind, maker function) noexcept {
  makers.at(static_cast<std::size_t>(kind)) = function;
  kinds.at(known++) = kind;
  std::sort(kinds.begin(), kinds.begin() + static_cast<std::ptrdiff_t>(known));
}

std::shared_ptr<profiler> profilerKind::make(std::int32_t kind) {
  const auto place = static_cast<std::size_t>(kind);
  return place < makers.size() && makers[place] != nullptr ? makers[place]() : nullptr;
}

std::span<const std::int32_t> profilerKind::all() {
  return {kinds.data(), known};
}

}  // namespace agent
