#include "exceptionTables.h"

#include <fmt/format.h>

#include <algorithm>

#include "tableParts.h"
#include "textTable.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kStep = 2;

bool isText(const capturedValue& one) {
  return one.type == "String" || one.type == "StringBuilder";
}

std::string shownValue(const capturedValue& one) {
  if (one.fields) {
    return "";
  }
  if (!one.value) {
    return one.isUncertain ? " = null (uncertain)" : " = null";
  }
  if (isText(one)) {
    return fmt::format(" = \"{}\"", *one.value);
  }
  if (one.type == "boolean" && (*one.value == "0" || *one.value == "1")) {
    return *one.value == "0" ? " = false" : " = true";
  }
  return " = " + *one.value;
}

void appendValues(std::string& tree, const std::vector<capturedValue>& values, std::size_t indent,
                  const terminalStyle& terminal) {
  for (const capturedValue& one : values) {
    tree += endCutLine(std::string(indent, ' '), one.name + ": " + one.type + shownValue(one), "",
                       terminal);
    if (one.fields) {
      appendValues(tree, *one.fields, indent + kStep, terminal);
    }
  }
}

void appendSection(std::string& tree, const char* name, const std::vector<capturedValue>& values,
                   const terminalStyle& terminal) {
  if (!values.empty()) {
    tree += terminal.faint(fmt::format("{:{}}{}\n", "", 2 * kStep, name));
    appendValues(tree, values, 3 * kStep, terminal);
  }
}

std::string caughtText(const std::optional<bool>& caught) {
  return !caught ? "" : *caught ? ", caught" : ", not caught";
}

// "-" where the agent did not know of any.
std::string groupCaught(const exceptionGroup& group) {
  return group.caught + group.uncaught == 0 ? "-" : std::to_string(group.caught);
}

constexpr std::size_t kDate = 10;  // "2026-11-21" of "2026-11-21T14:35:15.123Z"

// The date that all records have; empty when they differ.
std::string commonDate(const std::vector<exceptionGroup>& groups) {
  const auto dateOf = [](const std::string& time) {
    return time.size() > kDate && time[kDate] == 'T' ? time.substr(0, kDate) : "";
  };
  const std::string date = groups.empty() ? "" : dateOf(groups.front().first);
  const bool isCommon = std::all_of(groups.begin(), groups.end(), [&](const exceptionGroup& group) {
    return dateOf(group.first) == date && dateOf(group.last) == date;
  });
  return isCommon ? date : "";
}

// To the second, and without the date when that is printed elsewhere.
std::string shownTime(const std::string& time, bool hasDate) {
  constexpr std::size_t kSeconds = 19;
  return hasDate ? time.substr(kDate + 1, kSeconds - kDate - 1) : time.substr(0, kSeconds);
}

// What became of all exceptions while capture was on.
std::string agentLine(const agentCounts& counts) {
  const std::uint64_t failed = failuresOf(counts);
  std::string parts;
  const auto add = [&parts](std::uint64_t count, const std::string& what) {
    parts +=
        count == 0 ? "" : fmt::format("{}{} {}", parts.empty() ? ": " : ", ", grouped(count), what);
  };
  add(counts.overRate, "over the rate");
  add(counts.blackListed, "of excluded classes");
  add(counts.filtered, "thrown in packages that are not recorded");
  add(failed, fmt::format("without a record ({})", printable(failureReasons(counts))));
  add(counts.delivered, "handed over as records");
  add(underWay(counts), "under way when capture ended");
  const std::string cut =
      counts.cut == 0 ? "" : fmt::format(" Records that were cut: {}.", grouped(counts.cut));
  return fmt::format("The agent saw {} exceptions{}.{}\n", grouped(counts.seen), parts, cut);
}

}  // namespace

std::string exceptionLine(const exceptionLog& log) {
  const std::optional<captureEnd>& counted = log.counted();
  std::string line = fmt::format("Exceptions: {} records", log.size());
  if (counted) {
    line += fmt::format(", {} written and {} dropped by the program", counted->recorded,
                        counted->dropped);
    if (counted->own > 0) {
      line +=
          fmt::format("; {} more were thrown by the agent's own threads", grouped(counted->own));
    }
  }
  line += '\n';
  if (counted && counted->agent) {
    line += agentLine(*counted->agent);
  }
  for (const std::string& loss : lossesOf(log)) {
    line += "Incomplete: " + printable(loss) + ".\n";
  }
  return line;
}

std::string topExceptions(const exceptionLog& log, std::size_t rows,
                          const terminalStyle& terminal) {
  const std::vector<exceptionGroup> groups = log.groups();
  if (groups.empty()) {
    return "No exception was recorded.\n";
  }
  const std::string date = commonDate(groups);
  const std::string name =
      "Exceptions by class and site" + (date.empty() ? "" : ", " + printable(date));
  textTable table({{"Count", align::right},
                   {"Caught", align::right},
                   {"Exception", align::left, shorten::start},
                   {"Thrown in", align::left, shorten::start},
                   {"First", align::left, shorten::end},
                   {"Last", align::left, shorten::end},
                   {"Record", align::right}});
  for (const exceptionGroup& group : first(groups, rows)) {
    table.addRow({std::to_string(group.records.size()), groupCaught(group), group.className,
                  group.site.value_or("(no frames)"), shownTime(group.first, !date.empty()),
                  shownTime(group.last, !date.empty()), std::to_string(group.records.front() + 1)});
  }
  return title(name, groups.size(), rows, terminal) + table.render(terminal);
}

std::string recordTree(const exceptionLog& log, std::size_t number, const terminalStyle& terminal) {
  const exceptionRecord record = log.record(number - 1);
  std::string tree = terminal.strong(startCutLine(
      fmt::format("Record {} of {}: ", number, log.size()), record.className, "", terminal));
  const std::string indent(kStep, ' ');
  if (record.message) {
    tree += endCutLine(indent + "message: ", *record.message, "", terminal);
  }
  tree += endCutLine(indent, fmt::format("{}, thread \"{}", record.time, record.thread),
                     '"' + caughtText(record.caught), terminal);
  for (const exceptionFrame& frame : record.frames) {
    tree += terminal.strong(startCutLine(indent + "at ", placeOf(frame), "", terminal));
    appendSection(tree, "arguments", frame.arguments, terminal);
    appendSection(tree, "locals", frame.locals, terminal);
    appendSection(tree, "fields of this", frame.fields, terminal);
    appendSection(tree, "thread locals", frame.threadLocals, terminal);
  }
  if (record.isCut) {
    tree += indent + "cut: the record was too long, values or frames are missing\n";
  }
  for (const std::string& reason : record.ambiguous) {
    tree += endCutLine(indent + "in doubt: ", reason, "", terminal);
  }
  return tree;
}

}  // namespace viewer
