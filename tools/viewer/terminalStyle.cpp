#include "terminalStyle.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace viewer {
namespace {

constexpr std::array<const char*, 8> kBlocks = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, 8> kAscii = {"_", ".", ":", "-", "=", "+", "*", "#"};

// 0 for 0 alone, the rest spread over the other steps.
std::size_t stepOf(std::uint64_t value, std::uint64_t largest) {
  const auto highest = static_cast<double>(kBlocks.size() - 1);
  const double share = largest == 0 ? 0 : static_cast<double>(value) / static_cast<double>(largest);
  return value == 0 ? 0 : std::max<std::size_t>(1, static_cast<std::size_t>(share * highest));
}

}  // namespace

std::string terminalStyle::strong(std::string_view text) const {
  return styled("1", text);
}

std::string terminalStyle::faint(std::string_view text) const {
  return styled("2", text);
}

std::string terminalStyle::sparkline(const std::vector<std::uint64_t>& values,
                                     std::size_t columns) const {
  if (values.empty() || columns == 0) {
    return "";
  }
  const std::uint64_t largest = *std::max_element(values.begin(), values.end());
  const std::size_t shown = std::min(columns, values.size());
  std::string result;
  for (std::size_t i = 0; i < shown; i++) {
    const auto from = values.begin() + static_cast<std::ptrdiff_t>(i * values.size() / shown);
    const auto to = values.begin() + static_cast<std::ptrdiff_t>((i + 1) * values.size() / shown);
    result += (blocks ? kBlocks : kAscii)[stepOf(*std::max_element(from, to), largest)];
  }
  return result;
}

std::string terminalStyle::styled(std::string_view code, std::string_view text) const {
  if (!colour) {
    return std::string(text);
  }
  const std::size_t size = text.ends_with('\n') ? text.size() - 1 : text.size();
  return fmt::format("\x1b[{}m{}\x1b[0m{}", code, text.substr(0, size), text.substr(size));
}

}  // namespace viewer
