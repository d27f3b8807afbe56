#include "tableParts.h"

#include <fmt/format.h>

#include <array>

#include "utf8.h"

namespace viewer {
namespace {

// A name keeps so many columns even where that makes the line wider than the terminal.
std::size_t roomBeside(const std::string& others, const terminalStyle& terminal) {
  constexpr std::size_t kNarrowest = 12;
  const std::size_t taken = std::min(displayColumns(others), terminal.width);
  return std::max(kNarrowest, terminal.width - taken);
}

}  // namespace

std::string startCutLine(const std::string& before, const std::string& name,
                         const std::string& after, const terminalStyle& terminal) {
  return before + cutStart(printable(name), roomBeside(before + after, terminal)) + after + '\n';
}

std::string endCutLine(const std::string& before, const std::string& name, const std::string& after,
                       const terminalStyle& terminal) {
  return before + cutEnd(printable(name), roomBeside(before + after, terminal)) + after + '\n';
}

std::string title(const std::string& name, std::size_t all, std::size_t shown,
                  const terminalStyle& terminal) {
  return terminal.strong(shown < all ? fmt::format("{} ({} of {})\n", name, shown, all)
                                     : fmt::format("{} ({})\n", name, all));
}

std::string moreLine(std::size_t all, std::size_t shown, std::size_t indent) {
  return shown < all ? fmt::format("{:{}}... {} more\n", "", indent, all - shown) : "";
}

std::string percentage(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? "-" : fmt::format("{:.0f} %", 100.0 * double(part) / double(whole));
}

std::string grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t end = text.size(); end > 3; end -= 3) {
    text.insert(end - 3, 1, ',');
  }
  return text;
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
