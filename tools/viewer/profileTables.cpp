#include "profileTables.h"

#include <fmt/format.h>

#include "allocationTables.h"
#include "contentionTables.h"
#include "contentionWords.h"
#include "exceptionTables.h"
#include "findings.h"
#include "memoryTables.h"
#include "runFolders.h"
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
  const std::string command = run.command.value_or("");
  const std::string before = command.empty() ? "Run" : "Run of ";
  if (displayColumns(before + printable(command) + facts) > terminal.width && !command.empty()) {
    return textLine(before, command, "", terminal) + textLine("  ", facts.substr(2), "", terminal);
  }
  return textLine(before, command, facts, terminal);
}

std::string findingLines(const profile& all, thrownIn where, const terminalStyle& terminal) {
  std::string lines;
  for (const finding& one : findingsOf(all, where)) {
    lines += sentenceLines({fmt::format("{}: {}", one.question, one.text)}, terminal);
  }
  return lines;
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
  const std::string reason = reasonForNoEnd(all.run ? all.run->pid : std::nullopt);
  std::string lines;
  for (const std::string& file : all.unfinished) {
    lines += printable(file) + ": not finished: " + reason + ".\n";
  }
  return lines;
}

// Commands are not broken, so that they can be copied.
std::string noteLines(const std::vector<std::string>& notes, const terminalStyle& terminal) {
  std::string lines;
  for (const std::string& note : notes) {
    for (std::size_t start = 0; start <= note.size();) {
      const std::size_t end = std::min(note.find('\n', start), note.size());
      const std::string line = printable(note.substr(start, end - start));
      lines += line.starts_with("  ") ? line + '\n' : sentenceLines({line}, terminal);
      start = end + 1;
    }
  }
  return lines;
}

// A session without settings or tags that could give it anything to report.
bool isUntracked(const profile& all, const memoryReport& report) {
  return report.classes.empty() && all.run && isOn(all, "memory") &&
         optionOf(all, "memory.track").value_or("").empty();
}

std::string memoryPart(const profile& all, const memoryReport& report, std::size_t rows,
                       const terminalStyle& terminal) {
  return isUntracked(all, report)
             ? fmt::format(
                   "Memory session {}: nothing was tracked. Name classes, as in "
                   "--memory=track=com.example.Session.\n",
                   report.sessionId)
             : memoryTables(report, rows, terminal);
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
    parts.push_back(findingLines(all, options.exceptions.where, terminal));
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
    parts.push_back(memoryPart(all, report, options.limits.rows, terminal));
  }
  if (!all.unfinished.empty()) {
    parts.push_back(unfinishedLines(all));
  }
  if (!all.notes.empty()) {
    parts.push_back(noteLines(all.notes, terminal));
  }
  return fmt::format("{}", fmt::join(parts, "\n"));
}

}  // namespace viewer
