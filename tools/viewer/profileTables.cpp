#include "profileTables.h"

#include <fmt/format.h>

#include "allocationTables.h"
#include "contentionTables.h"
#include "exceptionTables.h"
#include "memoryTables.h"
#include "tableParts.h"
#include "utf8.h"

namespace viewer {
namespace {

std::string runLine(const runInfo& run, const terminalStyle& terminal) {
  constexpr std::size_t kLongest = 40;  // columns of what is short unless it is wrong
  std::string facts = run.pid ? fmt::format(", process {}", *run.pid) : "";
  const auto add = [&facts](const char* before, const std::optional<std::string>& text) {
    facts += text ? before + cutEnd(printable(*text), kLongest) : "";
  };
  add(", started ", run.started);
  add(", Java ", run.java);
  facts += run.removedReports > 0
               ? fmt::format("; {} of its reports were deleted", run.removedReports)
               : "";
  return endCutLine(run.command ? "Run of " : "Run", run.command.value_or(""), facts, terminal);
}

std::string shownRecord(const profile& all, std::size_t number, const exceptionDetails& details,
                        const terminalStyle& terminal) {
  const std::size_t records = all.exceptions ? all.exceptions->size() : 0;
  if (number > records) {
    throw inputError(
        fmt::format("--show {}: expected the number of a record from 1 to {}, found {}", number,
                    records, number));
  }
  return recordTree(*all.exceptions, number, details, terminal);
}

// Sessions without a report.
std::string unfinishedLines(const profile& all) {
  std::string lines;
  for (const std::string& file : all.unfinished) {
    lines += printable(file) + ": not finished: the JVM was killed or is still running.\n";
  }
  return lines;
}

}  // namespace

std::string profileTables(const profile& all, const tableOptions& options,
                          const terminalStyle& terminal) {
  if (options.record != 0) {
    return shownRecord(all, options.record, options.exceptions, terminal);
  }
  std::vector<std::string> parts;
  if (all.run) {
    parts.push_back(runLine(*all.run, terminal));
  }
  for (const contentionReport& report : all.contentionReports) {
    parts.push_back(contentionTables(report, options.by, options.limits, terminal));
  }
  for (const lockReport& report : all.lockReports) {
    parts.push_back(lockTables(report, all.stacks, options.by, options.limits, terminal));
  }
  if (all.exceptions) {
    parts.push_back(
        exceptionLine(*all.exceptions, terminal) + '\n' +
        topExceptions(*all.exceptions, options.limits.rows, options.exceptions, terminal));
  }
  for (const allocationSession& session : all.allocations) {
    parts.push_back(allocationTables(session, options.limits, terminal));
  }
  for (const memoryReport& report : all.memoryReports) {
    parts.push_back(memoryTables(report, options.limits.rows, terminal));
  }
  if (!all.unfinished.empty()) {
    parts.push_back(unfinishedLines(all));
  }
  return fmt::format("{}", fmt::join(parts, "\n"));
}

}  // namespace viewer
