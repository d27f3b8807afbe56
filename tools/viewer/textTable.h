// A table of text in aligned columns, fitted to a terminal. Not for use by two threads at once.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "terminalStyle.h"

namespace viewer {

enum class align { left, right };

// Where a cell loses text when the table is wider than the terminal: `name` is for what names a
// class, a method, a lock or a thread.
enum class shorten { never, name, end };

struct column {
  std::string heading;
  align side = align::left;
  shorten where = shorten::never;
};

class textTable {
 public:
  explicit textTable(std::vector<column> columns);

  // Adds a row with one UTF-8 text for each column (std::invalid_argument otherwise).
  void addRow(std::vector<std::string> cells);

  // The heading, a line below it and the rows, each indented by `indent` blanks and ended by a line
  // feed. No line is longer than the width of the terminal as long as the columns that may be
  // shortened can give way.
  std::string render(const terminalStyle& terminal, std::size_t indent = 0) const;

 private:
  std::vector<std::size_t> fittedWidths(std::size_t width) const;
  std::string line(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths,
                   std::size_t indent) const;
  std::string cell(const column& place, const std::string& text, std::size_t width) const;

  std::vector<column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace viewer
