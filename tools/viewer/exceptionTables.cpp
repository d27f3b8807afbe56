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
    return " = null";
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
                  const look& terminal) {
  for (const capturedValue& one : values) {
    tree += endCutLine(std::string(indent, ' '), one.name + ": " + one.type + shownValue(one), "",
                       terminal);
    if (one.fields) {
      appendValues(tree, *one.fields, indent + kStep, terminal);
    }
  }
}

void appendSection(std::string& tree, const char* name, const std::vector<capturedValue>& values,
                   const look& terminal) {
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

// The date that all records have; empty when there is no such.
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

// To the second, and without the date when it is told elsewhere.
std::string shownTime(const std::string& time, bool hasDate) {
  constexpr std::size_t kSeconds = 19;
  return hasDate ? time.substr(kDate + 1, kSeconds - kDate - 1) : time.substr(0, kSeconds);
}

}  // namespace

std::string exceptionLine(const exceptionLog& log) {
  std::string line = fmt::format("Exceptions: {} records", log.size());
  if (log.recorded() && log.dropped()) {
    line +=
        fmt::format(", {} written and {} dropped by the program", *log.recorded(), *log.dropped());
  }
  return line + '\n';
}

std::string topExceptions(const exceptionLog& log, std::size_t rows, const look& terminal) {
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

std::string recordTree(const exceptionLog& log, std::size_t number, const look& terminal) {
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
  for (const std::string& reason : record.ambiguous) {
    tree += endCutLine(indent + "in doubt: ", reason, "", terminal);
  }
  return tree;
}

}  // namespace viewer
