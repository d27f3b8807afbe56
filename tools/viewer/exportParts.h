// What the exports of all kinds of reports have in common. One thread at a time.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace viewer {

// Stands in a stack for one that the report does not have.
constexpr const char* kNoStack = "(no stack recorded)";

// One line of collapsed stacks: `below` stands under the frames, which go from the bottom up.
void collapsedLine(std::ostream& out, std::initializer_list<std::string> below,
                   const std::vector<std::string>& frames, std::uint64_t weight);

// A spreadsheet would take a name that begins like a formula for one, also after blanks.
std::string csvCell(const std::string& text);

inline std::string csvCell(const char* text) {
  return csvCell(std::string(text));
}

std::string csvCell(std::integral auto number) {
  return std::to_string(number);
}

template <typename... cells>
void csvRow(std::ostream& out, const cells&... content) {
  const char* separator = "";
  ((out << separator << csvCell(content), separator = ","), ...);
  out << "\r\n";
}

// The samples of one metric. Those of the same labels are added up: a name must not come twice.
class gauge {
 public:
  gauge(const std::string& name, const char* help);

  using labels = std::vector<std::pair<const char*, std::string>>;
  void add(const labels& of, std::uint64_t value);

  void write(std::ostream& out) const;

 private:
  std::string name_;
  const char* help_;
  std::map<std::string, std::uint64_t> samples_;
};

}  // namespace viewer
