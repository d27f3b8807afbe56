#include "textTable.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "utf8.h"

namespace viewer {
namespace {

constexpr std::string_view kGap = "  ";
constexpr std::size_t kNarrowest = 12;

}  // namespace

textTable::textTable(std::vector<column> columns) : columns_(std::move(columns)) {}

void textTable::addRow(std::vector<std::string> cells) {
  if (cells.size() != columns_.size()) {
    throw std::invalid_argument("a row needs one cell for each column");
  }
  std::transform(cells.begin(), cells.end(), cells.begin(), printable);
  rows_.push_back(std::move(cells));
}

std::string textTable::render(const terminalStyle& terminal, std::size_t indent) const {
  const std::vector<std::size_t> widths =
      fittedWidths(terminal.width - std::min(terminal.width, indent));
  std::vector<std::string> headings;
  std::vector<std::string> rules;
  for (std::size_t i = 0; i < columns_.size(); i++) {
    headings.push_back(columns_[i].heading);
    rules.emplace_back(widths[i], '-');
  }
  std::string result =
      terminal.strong(line(headings, widths, indent)) + terminal.faint(line(rules, widths, indent));
  for (const auto& row : rows_) {
    result += line(row, widths, indent);
  }
  return result;
}

// Each column as wide as its widest cell; then the widest column that may be shortened gives way,
// one column at a time, until the line fits.
std::vector<std::size_t> textTable::fittedWidths(std::size_t width) const {
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < columns_.size(); i++) {
    std::size_t widest = displayColumns(columns_[i].heading);
    for (const auto& row : rows_) {
      widest = std::max(widest, displayColumns(row[i]));
    }
    widths.push_back(widest);
  }
  std::size_t total =
      std::accumulate(widths.begin(), widths.end(), kGap.size() * (widths.size() - 1));
  for (; total > width; total--) {
    std::size_t* widest = nullptr;
    for (std::size_t i = 0; i < columns_.size(); i++) {
      const bool mayShrink = columns_[i].where != shorten::never && widths[i] > kNarrowest;
      if (mayShrink && (widest == nullptr || widths[i] > *widest)) {
        widest = &widths[i];
      }
    }
    if (widest == nullptr) {
      break;
    }
    --*widest;
  }
  return widths;
}

std::string textTable::line(const std::vector<std::string>& cells,
                            const std::vector<std::size_t>& widths, std::size_t indent) const {
  std::string result(indent, ' ');
  for (std::size_t i = 0; i < cells.size(); i++) {
    result += i == 0 ? "" : kGap;
    result += cell(columns_[i], cells[i], widths[i]);
  }
  result.erase(result.find_last_not_of(' ') + 1);
  return result + '\n';
}

std::string textTable::cell(const column& place, const std::string& text, std::size_t width) const {
  const std::string shown =
      place.where == shorten::name ? cutName(text, width) : cutEnd(text, width);
  const std::string blanks(width - displayColumns(shown), ' ');
  return place.side == align::right ? blanks + shown : shown + blanks;
}

}  // namespace viewer
