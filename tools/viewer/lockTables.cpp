#include "lockTables.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <span>

#include "contentionWords.h"
#include "sites.h"
#include "tableParts.h"
#include "textTable.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kIndent = 3;
constexpr std::size_t kGraphColumns = 30;
constexpr const char* kEstimate = "Estimate";  // the column of scaled counts of owners

// The stacks of all threads of a lock, each with how often it was seen.
std::map<std::uint64_t, std::uint64_t> stacksOf(const lockEntry& lock) {
  std::map<std::uint64_t, std::uint64_t> counts;
  for (const threadEntry& thread : lock.threads) {
    for (const stackUse& use : thread.stacks) {
      counts[use.hash] += use.count;
    }
  }
  return counts;
}

std::string framesOf(std::uint64_t hash, const stackTable& stacks, const tableLimits& limits,
                     const terminalStyle& terminal) {
  const std::string indent(kIndent + 2, ' ');
  const std::vector<frameId>* frames = stacks.find(hash);
  if (frames == nullptr) {
    return fmt::format("{}hash {}, not in a stack file that was given\n", indent, hash);
  }
  const std::size_t room = terminal.width - std::min(terminal.width, indent.size() + 3);
  std::string result;
  for (frameId frame : first(*frames, limits.frames)) {
    result += fmt::format("{}at {}\n", indent, cutName(printable(stacks.method(frame)), room));
  }
  return result + moreLine(frames->size(), limits.frames, indent.size());
}

std::string mostFrequentStack(const lockEntry& lock, const stackTable& stacks,
                              const tableLimits& limits, const terminalStyle& terminal) {
  const auto counts = stacksOf(lock);
  if (counts.empty()) {
    return "";
  }
  const auto top = std::max_element(
      counts.begin(), counts.end(),
      [](const auto& left, const auto& right) { return left.second < right.second; });
  std::uint64_t seen = 0;
  for (const auto& [hash, count] : counts) {
    seen += count;
  }
  return fmt::format("{:{}}Most frequent stack ({} of {} entries, {} distinct):\n", "", kIndent,
                     top->second, seen, counts.size()) +
         framesOf(top->first, stacks, limits, terminal);
}

std::string threadTable(const lockEntry& lock, const tableLimits& limits,
                        const terminalStyle& terminal) {
  textTable table({{"Thread", align::left, shorten::name},
                   {"Entries", align::right},
                   {"Blocked s", align::right},
                   {"Waited s", align::right},
                   {"Stacks", align::right}});
  for (const threadEntry& thread : first(lock.threads, limits.threads)) {
    table.addRow({thread.name, std::to_string(thread.entries),
                  std::to_string(thread.blockedSeconds), std::to_string(thread.waitedSeconds),
                  std::to_string(thread.stacks.size())});
  }
  return table.render(terminal, kIndent) + moreLine(lock.threads.size(), limits.threads, kIndent);
}

std::string graphOf(const lockEntry& lock, const terminalStyle& terminal) {
  return terminal.sparkline({lock.entriesPerMinute.begin(), lock.entriesPerMinute.end()},
                            kGraphColumns);
}

// Of what the owners are a sample; nothing where no owner lookup was skipped.
std::string sampleNote(const lockReport& report) {
  if (!ownersAreSampled(report)) {
    return "";
  }
  const auto& [perSecond, made, skipped] = *report.lookups;
  std::string lookups =
      fmt::format("Owners are a sample: {} owner lookups made, {} skipped, at most {} a second.\n",
                  made, skipped, perSecond);
  if (report.blockers.empty() || report.ownerScale <= 1) {
    return lookups;
  }
  const double percent = 100 / report.ownerScale;
  return lookups +
         fmt::format("About {} % were found; \"{}\" scales the counts, not periods and seconds.\n",
                     percent < 1 ? "<1" : fmt::format("{:.0f}", percent), kEstimate);
}

}  // namespace

std::string sessionLine(const lockReport& report, const terminalStyle& terminal) {
  const lockTotals totals = totalsOf(report);
  return textLine(fmt::format("Lock session {} \"", report.sessionId), report.sessionName,
                  fmt::format("\": {} locks, {} s blocked, {} s waited, {} distinct stacks",
                              report.locks.size(), totals.blockedSeconds, totals.waitedSeconds,
                              report.distinctStacks),
                  terminal);
}

std::string topLocks(const lockReport& report, const tableLimits& limits,
                     const terminalStyle& terminal) {
  if (report.locks.empty()) {
    return report.stacksOfNoLock.empty()
               ? "No lock is in the report: nothing was contended, or no detail session was run.\n"
               : "No lock is in the report, but threads were blocked by some: see below.\n";
  }
  const bool hasGraph =
      std::any_of(report.locks.begin(), report.locks.end(),
                  [](const lockEntry& lock) { return lock.entriesPerMinute.size() > 1; });
  std::vector<column> columns = {{"#", align::right},
                                 {"Lock", align::left, shorten::name},
                                 {"Entries", align::right},
                                 {"Blocked s", align::right},
                                 {"Waited s", align::right},
                                 {"Share", align::right},
                                 {"Top thread", align::left, shorten::name}};
  if (hasGraph) {
    columns.push_back({"By minute"});
  }
  textTable table(std::move(columns));
  const std::uint64_t allBlocked = totalsOf(report).blockedSeconds;
  std::size_t rank = 1;
  for (const lockEntry& lock : first(report.locks, limits.rows)) {
    std::vector<std::string> row = {std::to_string(rank++),
                                    lock.name,
                                    std::to_string(lock.entries),
                                    std::to_string(lock.blockedSeconds),
                                    std::to_string(lock.waitedSeconds),
                                    percentage(lock.blockedSeconds, allBlocked),
                                    lock.threads.empty() ? "" : lock.threads.front().name};
    if (hasGraph) {
      row.push_back(graphOf(lock, terminal));
    }
    table.addRow(std::move(row));
  }
  return title("Top locks", report.locks.size(), limits.rows, terminal) + table.render(terminal);
}

std::string lockDetails(const lockReport& report, const stackTable& stacks,
                        const tableLimits& limits, const terminalStyle& terminal) {
  std::string result;
  std::size_t rank = 1;
  for (const lockEntry& lock : first(report.locks, limits.rows)) {
    result += rank == 1 ? "" : "\n";
    result += terminal.strong(nameLine(fmt::format("{}. ", rank), lock.name, "", terminal));
    result += threadTable(lock, limits, terminal);
    result += mostFrequentStack(lock, stacks, limits, terminal);
    rank++;
  }
  return result;
}

std::string topThreads(const lockReport& report, const tableLimits& limits,
                       const terminalStyle& terminal) {
  const bool isSample = ownersAreSampled(report);
  std::vector<column> columns = {
      {"#", align::right},           {"Thread", align::left, shorten::name},
      {"Locks", align::right},       {"Entries", align::right},
      {"Blocked s", align::right},   {"Waited s", align::right},
      {"Found owning", align::right}};
  if (isSample) {
    columns.push_back({kEstimate, align::right});
  }
  columns.push_back({"Blocking s", align::right});
  textTable table(std::move(columns));
  const std::vector<threadSum> threads = threadsOf(report);
  std::size_t rank = 1;
  for (const threadSum& thread : first(threads, limits.rows)) {
    std::vector<std::string> row = {std::to_string(rank++),
                                    thread.name,
                                    std::to_string(thread.locks),
                                    std::to_string(thread.entries),
                                    std::to_string(thread.blockedSeconds),
                                    std::to_string(thread.waitedSeconds),
                                    std::to_string(thread.asOwner.timesOwner)};
    if (isSample) {
      row.push_back(std::to_string(estimatedTimesOwner(report, thread.asOwner)));
    }
    row.push_back(std::to_string(thread.asOwner.blockingSeconds));
    table.addRow(std::move(row));
  }
  return title("Top threads", threads.size(), limits.rows, terminal) + table.render(terminal) +
         sampleNote(report);
}

std::string topSites(const lockReport& report, const stackTable& stacks, const tableLimits& limits,
                     const terminalStyle& terminal) {
  textTable table({{"#", align::right},
                   {"Method", align::left, shorten::name},
                   {"Entries", align::right},
                   {"Share", align::right},
                   {"Stacks", align::right},
                   {"Locks", align::right},
                   {"First lock", align::left, shorten::name}});
  const std::vector<siteSum> sites = sitesOf(report, stacks);
  std::uint64_t all = 0;
  for (const siteSum& site : sites) {
    all += site.entries;
  }
  std::size_t rank = 1;
  for (const siteSum& site : first(sites, limits.rows)) {
    table.addRow({std::to_string(rank++), site.method.value_or("(not in a stack file)"),
                  std::to_string(site.entries), percentage(site.entries, all),
                  std::to_string(site.stacks), std::to_string(site.locks.size()),
                  report.locks[site.locks.front()].name});
  }
  return title("Top sites", sites.size(), limits.rows, terminal) + table.render(terminal);
}

std::string topLockClasses(const lockReport& report, const tableLimits& limits,
                           const terminalStyle& terminal) {
  struct classSum {
    std::string name;
    std::size_t locks = 0;
    std::uint64_t entries = 0;
    std::uint64_t blockedSeconds = 0;
    std::uint64_t waitedSeconds = 0;
  };
  std::map<std::string, classSum> sums;
  for (const lockEntry& lock : report.locks) {
    classSum& sum = sums[classOf(lock.name)];
    sum.name = classOf(lock.name);
    sum.locks++;
    sum.entries += lock.entries;
    sum.blockedSeconds += lock.blockedSeconds;
    sum.waitedSeconds += lock.waitedSeconds;
  }
  std::vector<classSum> classes;
  classes.reserve(sums.size());
  for (auto& [name, sum] : sums) {
    classes.push_back(std::move(sum));
  }
  std::stable_sort(classes.begin(), classes.end(), [](const classSum& left, const classSum& right) {
    return weight(left) > weight(right);
  });
  textTable table({{"#", align::right},
                   {"Class", align::left, shorten::name},
                   {"Locks", align::right},
                   {"Entries", align::right},
                   {"Blocked s", align::right},
                   {"Waited s", align::right},
                   {"Share", align::right}});
  const std::uint64_t allBlocked = totalsOf(report).blockedSeconds;
  std::size_t rank = 1;
  for (const classSum& one : first(classes, limits.rows)) {
    table.addRow({std::to_string(rank++), one.name, std::to_string(one.locks),
                  std::to_string(one.entries), std::to_string(one.blockedSeconds),
                  std::to_string(one.waitedSeconds), percentage(one.blockedSeconds, allBlocked)});
  }
  return title("Top classes of locks", classes.size(), limits.rows, terminal) +
         table.render(terminal);
}

std::string blockers(const lockReport& report, std::size_t rows, const terminalStyle& terminal) {
  if (report.blockers.empty()) {
    return "No blocking thread is in the report.\n" + sampleNote(report);
  }
  const bool isSample = ownersAreSampled(report);
  std::vector<column> columns = {{"Owner thread", align::left, shorten::name},
                                 {"Found owning", align::right}};
  if (isSample) {
    columns.push_back({kEstimate, align::right});
  }
  columns.push_back({"Blocking periods", align::right});
  columns.push_back({"Blocking s", align::right});
  textTable table(std::move(columns));
  for (const blockerEntry& blocker : first(report.blockers, rows)) {
    std::vector<std::string> row = {blocker.name, std::to_string(blocker.timesOwner)};
    if (isSample) {
      row.push_back(std::to_string(estimatedTimesOwner(report, blocker)));
    }
    row.push_back(std::to_string(blocker.blockingPeriods));
    row.push_back(std::to_string(blocker.blockingSeconds));
    table.addRow(std::move(row));
  }
  return title("Blockers", report.blockers.size(), rows, terminal) + table.render(terminal) +
         sampleNote(report);
}

std::string stacksOfNoLock(const lockReport& report, const stackTable& stacks,
                           const tableLimits& limits, const terminalStyle& terminal) {
  if (report.stacksOfNoLock.empty()) {
    return "";
  }
  const std::size_t count = report.stacksOfNoLock.size();
  std::string result =
      terminal.strong(fmt::format("Blocked, but at no lock of the report: {} {}\n", grouped(count),
                                  count == 1 ? "stack" : "stacks"));
  result +=
      sentenceLines({"They belong to locks that the summary session did not know, or to threads "
                     "that did not fit. How often and how long these were blocked is not known."},
                    terminal);
  std::size_t rank = 1;
  for (std::uint64_t hash : first(report.stacksOfNoLock, limits.rows)) {
    result += fmt::format("{:>{}}.\n", rank++, kIndent) + framesOf(hash, stacks, limits, terminal);
  }
  return result + moreLine(count, limits.rows, 0);
}

std::string lockTables(const lockReport& report, const stackTable& stacks, ranking by,
                       const tableLimits& limits, const terminalStyle& terminal) {
  const std::string head = sessionLine(report, terminal) + '\n';
  const std::string elsewhere = stacksOfNoLock(report, stacks, limits, terminal);
  const std::string end = elsewhere.empty() ? "" : '\n' + elsewhere;
  switch (by) {
    case ranking::thread:
      return head + topThreads(report, limits, terminal) + end;
    case ranking::site:
      return head + topSites(report, stacks, limits, terminal) + end;
    case ranking::lockClass:
      return head + topLockClasses(report, limits, terminal) + end;
    case ranking::owner:
      return head + blockers(report, limits.rows, terminal) + end;
    case ranking::lock:
      break;
  }
  const std::string details =
      report.locks.empty() ? "" : '\n' + lockDetails(report, stacks, limits, terminal);
  return head + topLocks(report, limits, terminal) + details + '\n' +
         blockers(report, limits.threads, terminal) + end;
}

}  // namespace viewer
