#include "fleetTables.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "contentionWords.h"
#include "hostSpread.h"
#include "tableParts.h"
#include "textTable.h"
#include "utf8.h"

namespace viewer {
namespace {

// A value with its unit, which is that of the table.
std::string valueText(const fleetTable& table, std::uint64_t value) {
  const std::string_view measure = table.kind->measure;
  return measure == "blocked nanoseconds" ? milliText(value)
         : measure.starts_with("bytes")   ? sizeText(value)
                                          : grouped(value);
}

std::string measureText(const fleetTable& table) {
  const std::string_view measure = table.kind->measure;
  return measure == "blocked nanoseconds" ? "blocked ms" : std::string(measure);
}

std::string countsLine(const fleet& all) {
  std::string text = fmt::format("{} of {}: {} read", counted(all.runs, "run", "runs"),
                                 counted(all.hosts, "host", "hosts"), grouped(all.complete));
  const auto add = [&text](std::size_t count, const char* what) {
    text += count > 0 ? fmt::format(", {} {}", grouped(count), what) : "";
  };
  add(all.partly, "in part");
  add(all.withoutReport, "without a report");
  add(all.notRead, "not read");
  return text + '.';
}

std::vector<std::string> notesOn(const fleet& all) {
  std::vector<std::string> notes;
  if (all.unknownHosts > 0) {
    notes.push_back(fmt::format(
        "Host not known: {} as a host of its own, by its folder or archive.",
        all.unknownHosts == 1 ? "1 run counts"
                              : fmt::format("each of {} runs counts", grouped(all.unknownHosts))));
  }
  if (all.longestMillis > 0) {
    notes.push_back(fmt::format(
        "Profiles ran for {}; sums are not scaled.",
        all.shortestMillis == all.longestMillis
            ? durationText(all.longestMillis)
            : durationText(all.shortestMillis) + " to " + durationText(all.longestMillis)));
  }
  for (const fleetSetting& one : all.settings) {
    if (one.runs.size() > 1) {
      std::string values;
      for (const auto& [value, runs] : one.runs) {
        values += fmt::format("{}{} in {}", values.empty() ? "" : ", ", printable(value),
                              counted(runs, "run", "runs"));
      }
      notes.push_back(fmt::format("Runs differ in this: {}: {}.", one.name, values));
    }
  }
  for (const auto& [what, runs] : all.omissions) {
    notes.push_back(fmt::format("In {}: {}.", counted(runs, "run", "runs"), what));
  }
  return notes;
}

// What did not become part of the answer.
std::string omittedLines(const fleet& all) {
  std::string lines;
  for (const std::string& file : all.unfinished) {
    lines += printable(file) + ": not finished, not read.\n";
  }
  if (all.moreUnfinished > 0) {
    lines += fmt::format("{} more reports are not finished.\n", grouped(all.moreUnfinished));
  }
  return lines;
}

std::string tableText(const fleetTable& table, std::size_t limit, std::size_t rows,
                      const terminalStyle& terminal) {
  std::string result = title(fmt::format("{}, {}{}", table.kind->what, measureText(table),
                                         table.kind->isEstimated ? ", estimated from samples" : ""),
                             table.rows.size(), std::min(rows, table.rows.size()), terminal);
  result += fmt::format("{} of {} have such reports.\n", counted(table.runs, "run", "runs"),
                        counted(table.hosts, "host", "hosts"));
  if (table.rows.empty()) {
    return result;
  }
  const bool hasSites = std::any_of(table.rows.begin(), table.rows.end(),
                                    [](const spreadSum& one) { return !one.key.site.empty(); });
  std::vector<column> columns = {{"Name", align::left, shorten::name}};
  if (hasSites) {
    columns.push_back({"Site", align::left, shorten::name});
  }
  for (const char* heading : {"Sum", "Median", "Worst"}) {
    columns.push_back({heading, align::right});
  }
  columns.push_back({"Worst host", align::left, shorten::name});
  columns.push_back({"Hosts", align::right});
  textTable text(columns);
  const auto addRow = [&](const std::string& name, const spreadSum& one) {
    std::vector<std::string> cells = {name};
    if (hasSites) {
      cells.push_back(printable(one.key.site));
    }
    for (const std::string& cell :
         {valueText(table, one.sum),
          fmt::format("{}{}", one.isMedianRounded ? "~" : "", valueText(table, one.median)),
          valueText(table, one.worst), printable(one.worstHost), grouped(one.hosts)}) {
      cells.push_back(cell);
    }
    text.addRow(cells);
  };
  for (const spreadSum& one : first(table.rows, rows)) {
    addRow(printable(one.key.name), one);
  }
  if (table.others) {
    addRow("(other names)", *table.others);
  }
  result += text.render(terminal) + moreLine(table.rows.size(), rows, 0);
  if (table.others) {
    result += sentenceLines({fmt::format("There was room for {} (--names): those that came later "
                                         "are added up as (other names), where some of the names "
                                         "with a row may have a part.",
                                         counted(limit, "name", "names"))},
                            terminal);
  }
  return result;
}

}  // namespace

std::string fleetTables(const fleet& all, std::size_t rows, const terminalStyle& terminal) {
  std::string result = terminal.strong(countsLine(all) + '\n') +
                       sentenceLines(notesOn(all), terminal) + omittedLines(all);
  bool isRounded = false;
  for (const fleetTable& table : all.tables) {
    result += '\n' + tableText(table, all.names, rows, terminal);
    isRounded = isRounded || std::any_of(table.rows.begin(), table.rows.end(),
                                         [](const spreadSum& one) { return one.isMedianRounded; });
  }
  if (!all.tables.empty()) {
    result += '\n' + sentenceLines({"Median and worst are over the hosts that have the name, each "
                                    "with the sum of its runs."},
                                   terminal);
    if (isRounded) {
      result += fmt::format("~: within {} %, of more than {} hosts\n", hostSpread::kPercent,
                            hostSpread::kExact);
    }
  }
  return result;
}

}  // namespace viewer
