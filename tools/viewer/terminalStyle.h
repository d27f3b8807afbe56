// How output is styled for the terminal that it goes to. Values without state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace viewer {

struct terminalStyle {
  std::size_t width = 100;  // columns
  bool colour = false;
  bool blocks = false;  // whether block characters can be shown, which need UTF-8

  // The text, which may end in a line feed, in another weight or colour where there is colour.
  std::string strong(std::string_view text) const;
  std::string faint(std::string_view text) const;

  // One character for each value, or for each group of values where there are more than `columns`,
  // as high as the largest value in it is. The lowest is 0 alone.
  std::string sparkline(const std::vector<std::uint64_t>& values, std::size_t columns) const;

 private:
  std::string styled(std::string_view code, std::string_view text) const;
};

}  // namespace viewer
