#include "exportParts.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "utf8.h"

namespace viewer {
namespace {

std::string collapsedName(const std::string& name) {
  std::string result = printable(name);
  std::replace(result.begin(), result.end(), ';', ':');
  return result;
}

std::string escaped(const std::string& text) {
  std::string result;
  for (char c : printable(text)) {
    result += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
  }
  return result;
}

}  // namespace

void collapsedLine(std::ostream& out, std::initializer_list<std::string> below,
                   const std::vector<std::string>& frames, std::uint64_t weight) {
  const char* separator = "";
  const auto write = [&](const std::string& name) {
    out << separator << collapsedName(name);
    separator = ";";
  };
  std::for_each(below.begin(), below.end(), write);
  std::for_each(frames.begin(), frames.end(), write);
  out << ' ' << weight << '\n';
}

std::string csvCell(const std::string& text) {
  std::string cell = printable(text);
  const std::string_view start = afterBlanks(text).substr(0, 1);
  if (!start.empty() && std::string_view("=+-@").find(start) != std::string_view::npos) {
    cell.insert(0, 1, '\'');
  }
  if (cell.find_first_of(",\"") == cell.npos) {
    return cell;
  }
  for (std::size_t at = cell.find('"'); at != cell.npos; at = cell.find('"', at + 2)) {
    cell.insert(at, 1, '"');
  }
  return '"' + cell + '"';
}

gauge::gauge(const std::string& name, const char* help)
    : name_("javanativeagent_" + name), help_(help) {}

void gauge::add(const labels& of, std::uint64_t value) {
  std::string text;
  for (const auto& [name, content] : of) {
    text += fmt::format("{}{}=\"{}\"", text.empty() ? "" : ",", name, escaped(content));
  }
  samples_[text] += value;
}

void gauge::write(std::ostream& out) const {
  if (samples_.empty()) {
    return;
  }
  out << fmt::format("# HELP {0} {1}\n# TYPE {0} gauge\n", name_, help_);
  for (const auto& [of, value] : samples_) {
    out << fmt::format("{}{{{}}} {}\n", name_, of, value);
  }
}

}  // namespace viewer
