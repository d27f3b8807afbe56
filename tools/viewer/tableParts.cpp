#include "tableParts.h"

#include <fmt/format.h>

#include <array>

namespace viewer {

std::string title(const std::string& name, std::size_t all, std::size_t shown,
                  const look& terminal) {
  return terminal.strong(shown < all ? fmt::format("{} ({} of {})\n", name, shown, all)
                                     : fmt::format("{} ({})\n", name, all));
}

std::string moreLine(std::size_t all, std::size_t shown, std::size_t indent) {
  return shown < all ? fmt::format("{:{}}... {} more\n", "", indent, all - shown) : "";
}

std::string percentage(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? "-" : fmt::format("{:.0f} %", 100.0 * double(part) / double(whole));
}

std::string sizeText(std::uint64_t bytes) {
  constexpr std::array<const char*, 7> kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; size >= 1024 && unit + 1 < kUnits.size(); unit++) {
    size /= 1024;
  }
  return fmt::format("{:.{}f} {}", size, size < 10 && unit > 0 ? 1 : 0, kUnits[unit]);
}

}  // namespace viewer
