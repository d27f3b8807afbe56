#include "contentionTables.h"

#include <fmt/format.h>

#include <algorithm>

#include "contentionDetails.h"
#include "contentionSites.h"
#include "contentionWords.h"
#include "textTable.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kGraphColumns = 60;
constexpr std::uint64_t kNanosOfAMilli = 1'000'000;
constexpr const char* kGoesOn = "+";  // after the time of a block that has not ended

// As in shownName(), with the field's package left to the details below the table.
std::string tableName(const shownLock& one) {
  if (!one.lock->field) {
    return shownName(one);
  }
  const std::string& field = *one.lock->field;
  const std::size_t name = field.rfind('.');
  const std::size_t start =
      name == field.npos || name == 0 ? field.npos : field.rfind('.', name - 1);
  return nameOf(*one.lock) + ", " + (start == field.npos ? field : field.substr(start + 1));
}

std::string longestText(const longestBlock& longest) {
  return milliText(longest.nanos) + (longest.goesOn ? kGoesOn : "");
}

constexpr const char* kGoesOnNote =
    "Still: threads that were blocked when this was written; +: their time until then\n";

template <typename range, typename predicate>
bool anyOf(const range& all, predicate has) {
  return std::any_of(all.begin(), all.end(), has);
}

std::string topLocks(const contentionReport& report, const std::vector<shownLock>& locks,
                     std::size_t rows, const terminalStyle& terminal) {
  const auto shown = first(locks, rows);
  const bool hasBlocked =
      anyOf(shown, [](const shownLock& one) { return one.lock->stillBlocked > 0; });
  std::vector<column> columns = {
      {"#", align::right},       {"Lock", align::left, shorten::name}, {"Kind"},
      {"Entries", align::right}, {"Total ms", align::right},           {"Longest ms", align::right},
      {"Share", align::right}};
  if (hasBlocked) {
    columns.push_back({"Still", align::right});
  }
  textTable table(std::move(columns));
  const std::uint64_t all = totalsOf(report).nanos;
  std::size_t rank = 1;
  for (const shownLock& one : shown) {
    std::vector<std::string> row = {std::to_string(rank++),
                                    tableName(one),
                                    nameOf(one.lock->kind),
                                    grouped(one.lock->entries),
                                    milliText(totalOf(*one.lock)),
                                    longestText(longestOf(report, *one.lock)),
                                    percentage(totalOf(*one.lock), all)};
    if (hasBlocked) {
      row.push_back(one.lock->stillBlocked == 0 ? "" : grouped(one.lock->stillBlocked));
    }
    table.addRow(std::move(row));
  }
  return title("Locks by blocked time", locks.size(), rows, terminal) + table.render(terminal) +
         (hasBlocked ? kGoesOnNote : "");
}

std::string waitTable(const contentionReport& report, std::size_t rows,
                      const terminalStyle& terminal) {
  const std::vector<shownLock> waits = locksFor(report, [&](const contentionLock& lock) {
    return !isContention(lock.kind) && !isIdle(report, lock);
  });
  const std::vector<shownLock> idle =
      locksFor(report, [&](const contentionLock& lock) { return isIdle(report, lock); });
  std::string result;
  if (!waits.empty()) {
    textTable table({{"Waited for", align::left, shorten::name},
                     {"Kind"},
                     {"Waits", align::right},
                     {"Total ms", align::right},
                     {"Longest ms", align::right},
                     {"Still", align::right},
                     {"Mostly in", align::left, shorten::name}});
    for (const shownLock& one : first(waits, rows)) {
      const std::vector<sitePair> pairs = sitePairsOf(report, *one.lock);
      table.addRow({tableName(one), nameOf(one.lock->kind), grouped(one.lock->entries),
                    milliText(totalOf(*one.lock)), longestText(longestOf(report, *one.lock)),
                    one.lock->stillBlocked == 0 ? "" : grouped(one.lock->stillBlocked),
                    pairs.empty() ? "" : pairs.front().waiterSite.value_or("(stack not known)")});
    }
    result +=
        '\n' + title("Waits by time, which are not contention", waits.size(), rows, terminal) +
        table.render(terminal) +
        (anyOf(first(waits, rows), [](const shownLock& one) { return one.lock->stillBlocked > 0; })
             ? kGoesOnNote
             : "");
  }
  if (!idle.empty()) {
    std::uint64_t nanos = 0;
    for (const shownLock& one : idle) {
      nanos = plus(nanos, totalOf(*one.lock));
    }
    result +=
        '\n' +
        sentenceLines(
            {fmt::format(
                "Not listed: {} ms of waits at {} objects that are idle: threads of pools without "
                "a task, timers, reference queues, cleaners, the agent's own.",
                milliText(nanos), idle.size())},
            terminal);
  }
  return result;
}

// Threads that were blocked on average in a window, in thousandths.
std::uint64_t blockedThreads(const contentionWindow& window) {
  const std::uint64_t millis = window.endedAt - std::min(window.endedAt, window.startedAt);
  return millis == 0 ? 0 : window.blockedNanos / 1000 / millis;
}

std::string timeLine(const contentionReport& report, const terminalStyle& terminal) {
  if (report.windows.size() < 2) {
    return "";
  }
  const std::uint64_t start = report.windows.front().startedAt;
  const std::uint64_t end = std::max_element(report.windows.begin(), report.windows.end(),
                                             [](const auto& left, const auto& right) {
                                               return left.endedAt < right.endedAt;
                                             })
                                ->endedAt;
  const std::size_t size = std::min({kGraphColumns, terminal.width, report.windows.size()});
  if (end <= start || size == 0) {
    return "";
  }
  const auto columnOf = [&](std::uint64_t at) {
    return std::min<std::size_t>(size - 1, (at - start) * size / (end - start));
  };
  std::vector<std::uint64_t> values(size);
  const contentionWindow* most = &report.windows.front();
  for (const contentionWindow& window : report.windows) {
    const std::uint64_t value = blockedThreads(window);
    const std::uint64_t last = std::max(window.endedAt, window.startedAt + 1) - 1;
    for (std::size_t i = columnOf(window.startedAt); i <= columnOf(last); i++) {
      values[i] = std::max(values[i], value);
    }
    most = value > blockedThreads(*most) ? &window : most;
  }
  const std::string from = momentText(report, start);
  const std::string to = momentText(report, end);
  const std::size_t gap = size > from.size() + to.size() ? size - from.size() - to.size() : 1;
  return '\n' + terminal.strong("Blocked threads over time (UTC)\n") +
         terminal.sparkline(values, size) + '\n' + fmt::format("{}{:{}}{}\n", from, "", gap, to) +
         fmt::format("Most: {:.1f} on average from {} to {}\n",
                     static_cast<double>(blockedThreads(*most)) / 1000,
                     momentText(report, most->startedAt), momentText(report, most->endedAt));
}

// What is in the sums and not in the ranking; nothing where all is.
std::string ownLocksNote(const contentionReport& report, const terminalStyle& terminal) {
  const std::vector<shownLock> own =
      locksFor(report, [](const contentionLock& lock) { return isOwn(lock); });
  if (own.empty()) {
    return "";
  }
  std::uint64_t nanos = 0;
  for (const shownLock& one : own) {
    nanos = plus(nanos, totalOf(*one.lock));
  }
  return '\n' + sentenceLines({fmt::format("Not listed: {} ms at {} at which only threads of the "
                                           "agent waited.",
                                           milliText(nanos), counted(own.size(), "lock", "locks"))},
                              terminal);
}

std::string byLock(const contentionReport& report, const tableLimits& limits,
                   const terminalStyle& terminal) {
  const std::vector<shownLock> locks = locksFor(
      report, [](const contentionLock& lock) { return isContention(lock.kind) && !isOwn(lock); });
  const std::string ownNote = ownLocksNote(report, terminal);
  if (locks.empty()) {
    return fmt::format("\nNo {}{} is in the report: no thread was blocked by one{}.\n{}",
                       ownNote.empty() ? "" : "other ",
                       hasParks(report) ? "monitor or lock" : "monitor",
                       report.isFiltered                  ? " that was selected"
                       : report.omitted.startsNotSeen > 0 ? " since the profile began"
                                                          : "",
                       ownNote);
  }
  return '\n' + topLocks(report, locks, limits.rows, terminal) + timeLine(report, terminal) +
         contentionDetails(report, locks, limits, terminal) + ownNote;
}

std::string locksText(const lockClassSum& one) {
  if (one.locks == 0) {
    return "others";
  }
  return grouped(one.locks) + (one.hasOthers ? " and others" : "");
}

std::string classTable(const char* name, const std::vector<lockClassSum>& classes,
                       std::uint64_t all, const tableLimits& limits,
                       const terminalStyle& terminal) {
  textTable table({{"#", align::right},
                   {"Class", align::left, shorten::name},
                   {"Kind"},
                   {"Locks", align::right},
                   {"Entries", align::right},
                   {"Time ms", align::right},
                   {"Longest ms", align::right},
                   {"Share", align::right},
                   {"Still", align::right}});
  std::size_t rank = 1;
  for (const lockClassSum& one : first(classes, limits.rows)) {
    table.addRow({std::to_string(rank++), one.name, nameOf(one.kind), locksText(one),
                  grouped(one.entries), milliText(one.nanos), longestText(one.longest),
                  percentage(one.nanos, all),
                  one.stillBlocked == 0 ? "" : grouped(one.stillBlocked)});
  }
  return '\n' + title(name, classes.size(), limits.rows, terminal) + table.render(terminal) +
         (anyOf(first(classes, limits.rows),
                [](const lockClassSum& one) { return one.stillBlocked > 0; })
              ? kGoesOnNote
              : "");
}

std::string byClass(const contentionReport& report, const tableLimits& limits,
                    const terminalStyle& terminal) {
  const auto waits = lockClassesOf(report, [&](const contentionLock& lock) {
    return !isContention(lock.kind) && !isIdle(report, lock);
  });
  std::uint64_t waited = 0;
  for (const lockClassSum& one : waits) {
    waited = plus(waited, one.nanos);
  }
  return classTable("Classes of locks by blocked time",
                    lockClassesOf(
                        report, [](const contentionLock& lock) { return isContention(lock.kind); }),
                    totalsOf(report).nanos, limits, terminal) +
         (waits.empty() ? ""
                        : classTable("Waits by class, without those that are idle", waits, waited,
                                     {.rows = fewer(limits.rows)}, terminal));
}

// Sites or threads, by one or both of the times that samples stand for.
std::string sampledTable(const char* name, const char* heading, const char* timeHeading,
                         const std::vector<sampledSum>& sums, std::uint64_t sampledSum::*time,
                         const tableLimits& limits, const terminalStyle& terminal) {
  textTable table({{"#", align::right},
                   {heading, align::left, shorten::name},
                   {timeHeading, align::right},
                   {"Share", align::right},
                   {"Samples", align::right},
                   {"Locks", align::right},
                   {"Threads", align::left, shorten::end}});
  std::uint64_t all = 0;
  for (const sampledSum& one : sums) {
    all = plus(all, one.*time);
  }
  std::size_t rank = 1;
  for (const sampledSum& one : first(sums, limits.rows)) {
    table.addRow({std::to_string(rank++), one.name, milliText(one.*time),
                  percentage(one.*time, all), grouped(one.samples),
                  std::to_string(one.locks.size()),
                  one.threads.empty() ? "" : someOf(one.threads)});
  }
  return '\n' + title(name, sums.size(), limits.rows, terminal) + table.render(terminal);
}

std::string byThread(const contentionReport& report, const tableLimits& limits,
                     const terminalStyle& terminal) {
  textTable table({{"#", align::right},
                   {"Thread", align::left, shorten::name},
                   {"Blocked ms", align::right},
                   {"Blocking ms", align::right},
                   {"Locks", align::right}});
  const std::vector<sampledSum> threads = contentionThreadsOf(report);
  std::size_t rank = 1;
  for (const sampledSum& one : first(threads, limits.rows)) {
    table.addRow({std::to_string(rank++), one.name, milliText(one.blockedNanos),
                  milliText(one.blockingNanos), std::to_string(one.locks.size())});
  }
  return '\n' +
         title("Threads by blocked time, from samples", threads.size(), limits.rows, terminal) +
         table.render(terminal);
}

std::string rankingOf(const contentionReport& report, ranking by, const tableLimits& limits,
                      const terminalStyle& terminal) {
  switch (by) {
    case ranking::lockClass:
      return byClass(report, limits, terminal);
    case ranking::site:
      return sampledTable("Sites by blocked time, from samples", "Site", "Blocked ms",
                          waiterSitesOf(report), &sampledSum::blockedNanos, limits, terminal);
    case ranking::owner:
      return sampledTable("Owners by the time that others were blocked, from samples",
                          "Lock was held in", "Blocking ms", ownerSitesOf(report),
                          &sampledSum::blockingNanos, limits, terminal);
    case ranking::thread:
      return byThread(report, limits, terminal);
    case ranking::lock:
      break;
  }
  return byLock(report, limits, terminal) + waitTable(report, fewer(limits.rows), terminal);
}

}  // namespace

std::string contentionTables(const contentionReport& report, ranking by, const tableLimits& limits,
                             const terminalStyle& terminal) {
  std::string result = contentionHead(report, terminal);
  if (const std::string stuck = stuckLines(report, limits, terminal); !stuck.empty()) {
    result += '\n' + stuck;
  }
  std::vector<std::string> sentences = omissionsOf(report);
  sentences.push_back(costText(report));
  return result + rankingOf(report, by, limits, terminal) + '\n' +
         sentenceLines(sentences, terminal);
}

}  // namespace viewer
