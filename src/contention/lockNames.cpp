#include "contention/lockNames.h"

#include <array>
#include <charconv>
#include <cstdint>

namespace agent {

std::string_view publicClass(std::string_view name, lockKind kind) {
  constexpr std::string_view kConditionObject = "$ConditionObject";
  const std::size_t last = name.rfind('$');
  if (last != std::string_view::npos && name.substr(last) == kConditionObject) {
    return "java.util.concurrent.locks.Condition";
  }
  constexpr std::string_view kConcurrent = "java.util.concurrent.";
  const bool isInside = (kind == lockKind::lock || kind == lockKind::park) &&
                        name.substr(0, kConcurrent.size()) == kConcurrent;
  return isInside ? name.substr(0, name.find('$')) : name;
}

std::string identityText(jint hash) {
  constexpr int kBase = 16;
  std::array<char, 8> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(),
                                 static_cast<std::uint32_t>(hash), kBase)
                       .ptr;
  return {digits.data(), end};
}

}  // namespace agent
