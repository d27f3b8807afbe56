#include "exceptionTables.h"

#include <fmt/format.h>

#include <algorithm>

#include "contentionWords.h"
#include "tableParts.h"
#include "textTable.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kStep = 2;
constexpr std::size_t kWidthOfTimes = 120;  // of a terminal that has room for them
constexpr const char* kNotRead = "\u2026";

bool isText(const capturedValue& one) {
  return one.type == "String" || one.type == "StringBuilder";
}

// A record does not have the type of what is redacted.
std::string typeOf(const capturedValue& one) {
  return one.redacted ? "" : ": " + one.type;
}

std::string shownValue(const capturedValue& one) {
  if (one.redacted) {
    return fmt::format(" = <redacted:{}>", *one.redacted);
  }
  if (one.isNotRead || one.isNotAvailable) {
    return one.isNotRead ? fmt::format(" = {}", kNotRead) : " = not available";
  }
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

// A record in the making.
class tree {
 public:
  tree(const exceptionDetails& details, const terminalStyle& terminal)
      : details_(details), terminal_(terminal) {}

  void add(const std::string& line) { text_ += line; }

  void add(const exceptionFrame& frame) {
    add(terminal_.strong(nameLine(std::string(kStep, ' ') + "at ", placeOf(frame), "", terminal_)));
    addSection("arguments", frame.arguments);
    addSection("locals", frame.locals);
    addSection("fields of this", frame.fields);
    addSection("thread locals", frame.threadLocals);
  }

  // Neighbours in the JDK are one line: it is the program's own frames that one looks for.
  void add(const std::vector<exceptionFrame>& frames) {
    for (std::size_t i = 0; i < frames.size();) {
      const auto end = std::find_if(frames.begin() + std::ptrdiff_t(i), frames.end(),
                                    [](const exceptionFrame& one) { return !isOfJdk(one.method); });
      const auto ofJdk = static_cast<std::size_t>(end - frames.begin()) - i;
      if (ofJdk == 0 || details_.jdkFrames) {
        add(frames[i++]);
      } else {
        addFolded(kStep, ofJdk, "frame", " of the JDK", "--jdk-frames");
        i += ofJdk;
      }
    }
  }

  std::string text() && {
    if (hasNotRead_) {
      add(fmt::format("{:{}}{} is not read (depth limit)\n", "", kStep, kNotRead));
    }
    return std::move(text_);
  }

 private:
  void addFolded(std::size_t indent, std::size_t count, const char* one, const char* what,
                 const char* option) {
    add(terminal_.faint(fmt::format("{:{}}{} {}{}{} ({} shows {})\n", "", indent, count, one,
                                    count == 1 ? "" : "s", what, option,
                                    count == 1 ? "it" : "them")));
  }

  void addSection(const char* name, const std::vector<capturedValue>& values) {
    if (!values.empty()) {
      add(terminal_.faint(fmt::format("{:{}}{}\n", "", 2 * kStep, name)));
      addValues(values, 3 * kStep);
    }
  }

  void addValues(const std::vector<capturedValue>& values, std::size_t indent) {
    std::size_t statics = 0;
    for (const capturedValue& one : values) {
      statics += one.isStatic ? 1 : 0;
      if (!one.isStatic) {
        addValue(one, indent);
      }
    }
    if (statics > 0 && !details_.statics) {
      addFolded(indent, statics, "static field", "", "--statics");
      return;
    }
    for (const capturedValue& one : values) {
      if (one.isStatic) {
        addValue(one, indent);
      }
    }
  }

  void addValue(const capturedValue& one, std::size_t indent) {
    hasNotRead_ = hasNotRead_ || one.isNotRead;
    add(textLine(std::string(indent, ' '),
                 (one.isStatic ? "static " : "") + one.name + typeOf(one) + shownValue(one), "",
                 terminal_));
    if (one.fields) {
      addValues(*one.fields, indent + kStep);
    }
  }

  const exceptionDetails& details_;
  const terminalStyle& terminal_;
  std::string text_;
  bool hasNotRead_ = false;
};

// All of a text, with its lines below each other after `before`.
std::string wholeText(const std::string& before, const std::string& text) {
  std::string lines;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    lines += (start == 0 ? before : std::string(before.size(), ' ')) +
             printable(text.substr(start, end - start)) + '\n';
    start = end + 1;
  }
  return lines;
}

std::string caughtText(const std::optional<bool>& caught) {
  return !caught ? "" : *caught ? ", caught" : ", not caught";
}

std::string countText(const std::optional<std::uint64_t>& count) {
  return count ? grouped(*count) : "-";
}

// Of those that were thrown, else of the records. "-" where it is not known.
std::string groupCaught(const exceptionGroup& group) {
  if (group.counts) {
    return countText(group.counts->caught);
  }
  return group.caught + group.uncaught == 0 ? "-" : grouped(group.caught);
}

constexpr std::size_t kDate = 10;  // "2026-11-21" of "2026-11-21T14:35:15.123Z"

// The date that all records have; empty when they differ.
std::string commonDate(const std::vector<exceptionGroup>& groups) {
  const auto dateOf = [](const std::string& time) {
    return time.size() > kDate && time[kDate] == 'T' ? time.substr(0, kDate) : "";
  };
  const std::string date = groups.empty() ? "" : dateOf(groups.front().first);
  const bool isCommon = std::all_of(groups.begin(), groups.end(), [&](const exceptionGroup& group) {
    return group.first.empty() || (dateOf(group.first) == date && dateOf(group.last) == date);
  });
  return isCommon ? date : "";
}

// To the second, and without the date when that is printed elsewhere.
std::string shownTime(const std::string& time, bool hasDate) {
  constexpr std::size_t kSeconds = 19;
  if (time.empty()) {
    return "-";  // nobody knows of exceptions that are counted without their classes
  }
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
  add(counts.rethrown, "thrown again, with a record of the first time only");
  add(underWay(counts), "under way when capture ended");
  const std::string cut =
      counts.cut == 0 ? "" : fmt::format(" Records that were cut: {}.", grouped(counts.cut));
  return fmt::format("The agent saw {} exceptions{}.{}\n", grouped(counts.seen), parts, cut);
}

// "12,238 thrown (12,200 caught, 38 not caught), 3 of them again".
std::string thrownText(const exceptionCounts& counts) {
  const throwCounts& total = counts.total;
  std::string text =
      fmt::format("{} {}", grouped(total.thrown), counts.isOfMade ? "made" : "thrown");
  if (total.caught && total.uncaught) {
    text += fmt::format(" ({} caught, {} not caught)", grouped(*total.caught),
                        grouped(*total.uncaught));
  }
  return text + (total.rethrown == 0
                     ? ""
                     : fmt::format(", {} of them not for the first time", grouped(total.rethrown)));
}

constexpr const char* kOnlyRecords =
    "Only records are known of each class and site: the agent's counts (exception-counts.json) are "
    "missing. At most a few of a class are recorded in a minute, so there may have been more "
    "exceptions.";

// What the counts do not have, or only in part.
std::vector<std::string> countNotes(const exceptionLog& log) {
  if (!log.counts()) {
    return {kOnlyRecords};
  }
  const exceptionCounts& counts = *log.counts();
  std::uint64_t byClass = 0;
  for (const countedClass& one : counts.classes) {
    byClass += one.counts.thrown;
  }
  std::vector<std::string> notes;
  if (byClass + counts.other.thrown > 0) {
    notes.push_back(fmt::format(
        "Beyond the first {} pairs of class and site, {} counted by class, and {} without their "
        "class{}.",
        grouped(counts.maxSites),
        fmt::format("{} exception{}", grouped(byClass), byClass == 1 ? " is" : "s are"),
        grouped(counts.other.thrown),
        counts.isFiltered && counts.other.thrown > 0 ? ", which are not in this selection" : ""));
  }
  if (counts.runs > 1) {
    notes.push_back(fmt::format("The counts are the sum of {} runs.", counts.runs));
  }
  if (counts.isOfMade) {
    notes.push_back(fmt::format("Note: {}.", kOnlyMade));
  }
  return notes;
}

// A clause for what the program's end line has.
std::string writtenText(const captureEnd& end) {
  std::string text = fmt::format(", {} written and {} dropped by the program",
                                 grouped(end.recorded), grouped(end.dropped));
  if (end.own > 0) {
    text += fmt::format("; {} more, of the agent's own threads, not written", grouped(end.own));
  }
  return text;
}

textTable emptyTable(const exceptionLog& log, bool hasRethrown, const terminalStyle& terminal) {
  std::vector<column> columns;
  if (log.counts()) {
    columns.push_back({log.counts()->isOfMade ? "Made" : "Thrown", align::right});
  }
  columns.push_back({"Records", align::right});
  columns.push_back({"Caught", align::right});
  if (hasRethrown) {
    columns.push_back({"Again", align::right});
  }
  columns.push_back({"Exception", align::left, shorten::name});
  columns.push_back({"Thrown in", align::left, shorten::name});
  columns.push_back({"Message", align::left, shorten::end});
  if (terminal.width >= kWidthOfTimes) {
    columns.push_back({"First", align::left, shorten::end});
    columns.push_back({"Last", align::left, shorten::end});
  }
  columns.push_back({"Record", align::right});
  return textTable(std::move(columns));
}

std::string messageOf(const exceptionLog& log, const exceptionGroup& group) {
  return group.records.empty() ? "-" : log.record(group.records.front()).message.value_or("-");
}

// Why a number may be of more than the place next to it.
std::vector<std::string> placeNotes(std::span<const exceptionGroup> groups) {
  const bool any = std::any_of(groups.begin(), groups.end(), [](const exceptionGroup& group) {
    return group.isIndirect && group.counts && group.counts->thrown > group.records.size();
  });
  if (!any) {
    return {};
  }
  return {
      "Where the JDK throws, the place is the one that called it, by the records; those without "
      "a record may have come from elsewhere (--jdk-sites shows what is counted)."};
}

}  // namespace

std::string exceptionLine(const exceptionLog& log, const terminalStyle& terminal) {
  const std::optional<captureEnd>& counted = log.counted();
  const std::optional<exceptionCounts>& counts = log.counts();
  std::string line = fmt::format("Exceptions: {} records", grouped(log.size()));
  line += counts ? " of " + thrownText(*counts) : "";
  line += counted ? writtenText(*counted) : "";
  line += '\n';
  if (counted && counted->agent) {
    line += agentLine(*counted->agent);
  }
  line += sentenceLines(countNotes(log), terminal);
  for (const std::string& loss : lossesOf(log)) {
    line += "Incomplete: " + printable(loss) + ".\n";
  }
  return line;
}

std::string topExceptions(const exceptionLog& log, std::size_t rows,
                          const exceptionDetails& details, const terminalStyle& terminal) {
  const std::vector<exceptionGroup> groups = groupsOf(log, details.where);
  if (groups.empty()) {
    return log.counts() ? "No exception was thrown.\n" : "No exception was recorded.\n";
  }
  const std::string date = commonDate(groups);
  const std::string name =
      "Exceptions by class and site" + (date.empty() ? "" : ", " + printable(date));
  const bool hasRethrown = log.counts() && log.counts()->total.rethrown > 0;
  textTable table = emptyTable(log, hasRethrown, terminal);
  const auto shown = first(groups, rows);
  for (const exceptionGroup& group : shown) {
    std::vector<std::string> cells;
    if (log.counts()) {
      cells.push_back(group.counts ? grouped(group.counts->thrown) : "-");
    }
    cells.push_back(grouped(group.records.size()));
    cells.push_back(groupCaught(group));
    if (hasRethrown) {
      cells.push_back(group.counts ? grouped(group.counts->rethrown) : "-");
    }
    cells.push_back(group.className);
    cells.push_back(placeOf(group));
    cells.push_back(messageOf(log, group));
    if (terminal.width >= kWidthOfTimes) {
      cells.push_back(shownTime(group.first, !date.empty()));
      cells.push_back(shownTime(group.last, !date.empty()));
    }
    cells.push_back(group.records.empty() ? "-" : std::to_string(group.records.front() + 1));
    table.addRow(std::move(cells));
  }
  return title(name, groups.size(), rows, terminal) + table.render(terminal) +
         sentenceLines(placeNotes(shown), terminal);
}

std::string recordTree(const exceptionLog& log, std::size_t number, const exceptionDetails& details,
                       const terminalStyle& terminal) {
  const exceptionRecord record = log.record(number - 1);
  tree shown(details, terminal);
  shown.add(terminal.strong(nameLine(fmt::format("Record {} of {}: ", number, log.size()),
                                     record.className, "", terminal)));
  const std::string indent(kStep, ' ');
  if (record.message) {
    shown.add(wholeText(indent + "message: ", *record.message));
  }
  shown.add(textLine(indent, fmt::format("{}, thread \"{}", record.time, record.thread),
                     '"' + caughtText(record.caught), terminal));
  shown.add(record.frames);
  if (record.isCut) {
    shown.add(indent + "cut: the record was too long, values or frames are missing\n");
  }
  for (const std::string& reason : record.ambiguous) {
    shown.add(textLine(indent + "in doubt: ", reason, "", terminal));
  }
  if (details.raw) {
    shown.add(wholeText(indent + "as the agent wrote it: ", record.raw));
  }
  return std::move(shown).text();
}

}  // namespace viewer
