#include "comparisonTables.h"

#include <fmt/format.h>

#include <array>

#include "contentionWords.h"
#include "tableParts.h"
#include "textTable.h"

namespace viewer {
namespace {

constexpr std::array kChanges = {change::worse, change::came, change::better, change::went,
                                 change::same};

std::string sumText(const std::optional<std::uint64_t>& sum) {
  return sum ? std::to_string(*sum) : "-";
}

std::string differenceText(const comparedSum& row) {
  const std::uint64_t before = row.before.value_or(0);
  const std::uint64_t after = row.after.value_or(0);
  return after >= before ? fmt::format("+{}", after - before) : fmt::format("-{}", before - after);
}

std::string percentText(const comparedSum& row) {
  if (!row.before || !row.after || *row.before == 0) {
    return "-";
  }
  const double ratio = static_cast<double>(*row.after) / static_cast<double>(*row.before);
  return fmt::format("{:+.0f} %", 100 * (ratio - 1));
}

std::string countsLine(const comparedTable& table, const threshold& limit) {
  if (table.notRecordedIn) {
    return fmt::format("{}, by {}: not recorded in {}\n", table.name, table.measure,
                       *table.notRecordedIn);
  }
  std::string counts;
  for (change what : kChanges) {
    const auto number =
        std::count_if(table.rows.begin(), table.rows.end(),
                      [&](const comparedSum& row) { return changeOf(row, limit) == what; });
    counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", number, nameOf(what));
  }
  return fmt::format("{}, by {}: {}\n", table.name, table.measure, counts);
}

// Sums over more sessions are larger for that alone.
std::string sessionsLine(const comparedTable& table) {
  return table.notRecordedIn || (table.sessionsBefore <= 1 && table.sessionsAfter <= 1)
             ? ""
             : fmt::format("Summed over the sessions of each run: {} before, {} after.\n",
                           table.sessionsBefore, table.sessionsAfter);
}

std::string changesOf(const comparedTable& table, const threshold& limit, std::size_t rows,
                      const terminalStyle& terminal) {
  std::vector<const comparedSum*> changed;
  for (const comparedSum& row : table.rows) {
    if (changeOf(row, limit) != change::same) {
      changed.push_back(&row);
    }
  }
  if (changed.empty()) {
    return "";
  }
  textTable text({{"Change"},
                  {"Name", align::left, shorten::name},
                  {"Before", align::right},
                  {"After", align::right},
                  {"Difference", align::right},
                  {"%", align::right}});
  for (const comparedSum* row : first(changed, rows)) {
    text.addRow({nameOf(changeOf(*row, limit)), row->name, sumText(row->before),
                 sumText(row->after), differenceText(*row), percentText(*row)});
  }
  return text.render(terminal) + moreLine(changed.size(), rows, 0);
}

}  // namespace

std::string comparisonTables(const comparison& both, std::size_t rows,
                             const terminalStyle& terminal) {
  std::string result = fmt::format("A difference counts from {} % and {} on.\n", both.limit.percent,
                                   both.limit.least);
  for (const comparedTable& table : both.tables) {
    result += '\n' + terminal.strong(countsLine(table, both.limit)) + sessionsLine(table) +
              sentenceLines(table.notes, terminal) + changesOf(table, both.limit, rows, terminal);
  }
  return result;
}

}  // namespace viewer
