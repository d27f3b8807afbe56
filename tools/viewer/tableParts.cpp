#include "tableParts.h"

#include <fmt/format.h>

#include <array>
#include <ctime>

#include "utf8.h"

namespace viewer {
namespace {

// A name keeps so many columns even where that makes the line wider than the terminal.
std::size_t roomBeside(const std::string& others, const terminalStyle& terminal) {
  constexpr std::size_t kNarrowest = 12;
  const std::size_t taken = std::min(displayColumns(others), terminal.width);
  return std::max(kNarrowest, terminal.width - taken);
}

std::string utcText(std::uint64_t millis, const char* form) {
  constexpr std::uint64_t kLast = 253'402'300'799;  // second of the year 9999
  if (millis / 1000 > kLast) {
    return "?";
  }
  const auto seconds = static_cast<std::time_t>(millis / 1000);
  std::tm parts{};
  std::array<char, 32> text{};
  gmtime_r(&seconds, &parts);
  return {text.data(), std::strftime(text.data(), text.size(), form, &parts)};
}

}  // namespace

std::string nameLine(const std::string& before, const std::string& name, const std::string& after,
                     const terminalStyle& terminal) {
  return before + cutName(printable(name), roomBeside(before + after, terminal)) + after + '\n';
}

std::string textLine(const std::string& before, const std::string& text, const std::string& after,
                     const terminalStyle& terminal) {
  return before + cutEnd(printable(text), roomBeside(before + after, terminal)) + after + '\n';
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

std::string counted(std::uint64_t number, const char* one, const char* more) {
  return fmt::format("{} {}", grouped(number), number == 1 ? one : more);
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

std::string milliText(std::uint64_t nanos) {
  constexpr std::uint64_t kNanos = 1'000'000;
  constexpr std::uint64_t kExactBelow = 100;  // milliseconds
  if (nanos >= kExactBelow * kNanos) {
    return grouped(nanos / kNanos + (nanos % kNanos >= kNanos / 2 ? 1 : 0));
  }
  if (nanos > 0 && nanos < kNanos / 10) {
    return "<0.1";
  }
  return nanos == 0 ? "0" : fmt::format("{:.1f}", double(nanos) / double(kNanos));
}

std::string durationText(std::uint64_t millis) {
  const std::uint64_t seconds = millis / 1000;
  const std::uint64_t minutes = seconds / 60;
  if (minutes == 0) {
    return fmt::format("{}.{} s", seconds, millis % 1000 / 100);
  }
  return minutes < 60 ? fmt::format("{} min {} s", minutes, seconds % 60)
                      : fmt::format("{} h {} min", grouped(minutes / 60), minutes % 60);
}

std::string timeText(std::uint64_t millis) {
  return utcText(millis, "%H:%M:%S");
}

std::string dayAndTimeText(std::uint64_t millis) {
  return utcText(millis, "%Y-%m-%d %H:%M:%S");
}

}  // namespace viewer
