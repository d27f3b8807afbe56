#include "profileTables.h"

#include <fmt/format.h>

#include "exceptionTables.h"
#include "memoryTables.h"
#include "utf8.h"

namespace viewer {
namespace {

std::string runLine(const runInfo& run) {
  std::string line = "Run";
  const auto add = [&line](const char* before, const std::optional<std::string>& text) {
    line += text ? before + printable(*text) : "";
  };
  add(" of ", run.command);
  line += run.pid ? fmt::format(", process {}", *run.pid) : "";
  add(", started ", run.started);
  add(", Java ", run.java);
  return line + '\n';
}

std::string shownRecord(const profile& all, std::size_t number, const look& terminal) {
  const std::size_t records = all.exceptions ? all.exceptions->size() : 0;
  if (number > records) {
    throw inputError(
        fmt::format("--show {}: expected the number of a record from 1 to {}, found {}", number,
                    records, number));
  }
  return recordTree(*all.exceptions, number, terminal);
}

}  // namespace

std::string profileTables(const profile& all, const tableOptions& options, const look& terminal) {
  if (options.record != 0) {
    return shownRecord(all, options.record, terminal);
  }
  std::vector<std::string> parts;
  if (all.run) {
    parts.push_back(runLine(*all.run));
  }
  for (const lockReport& report : all.lockReports) {
    parts.push_back(lockTables(report, all.stacks, options.by, options.limits, terminal));
  }
  if (all.exceptions) {
    parts.push_back(exceptionLine(*all.exceptions) + '\n' +
                    topExceptions(*all.exceptions, options.limits.rows, terminal));
  }
  for (const memoryReport& report : all.memoryReports) {
    parts.push_back(memoryTables(report, options.limits.rows, terminal));
  }
  return fmt::format("{}", fmt::join(parts, "\n"));
}

}  // namespace viewer
