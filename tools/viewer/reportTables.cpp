#include "reportTables.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <tuple>

#include "textTable.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kIndent = 3;

// Pointers to the elements, the largest key first and equal keys in the order of the report.
template <typename entry, typename keyOf>
std::vector<const entry*> ranked(const std::vector<entry>& entries, keyOf key) {
  std::vector<const entry*> result;
  for (const entry& one : entries) {
    result.push_back(&one);
  }
  std::stable_sort(result.begin(), result.end(), [&key](const entry* left, const entry* right) {
    return key(*left) > key(*right);
  });
  return result;
}

template <typename entry>
auto weight(const entry& one) {
  return std::tuple(one.blockedSeconds, one.waitedSeconds, one.entries);
}

std::vector<const lockEntry*> rankedLocks(const lockReport& report) {
  return ranked(report.locks, weight<lockEntry>);
}

std::vector<const threadEntry*> rankedThreads(const lockEntry& lock) {
  return ranked(lock.threads, weight<threadEntry>);
}

template <typename entry>
std::vector<const entry*> first(std::vector<const entry*> entries, std::size_t limit) {
  entries.resize(std::min(limit, entries.size()));
  return entries;
}

// "5 of 21" where not all are shown, else "21".
std::string shownOf(std::size_t limit, std::size_t all) {
  return limit < all ? fmt::format("{} of {}", limit, all) : std::to_string(all);
}

std::uint64_t sumOfSeconds(const lockReport& report, std::uint32_t lockEntry::*seconds) {
  std::uint64_t sum = 0;
  for (const lockEntry& lock : report.locks) {
    sum += lock.*seconds;
  }
  return sum;
}

std::string share(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? "-" : fmt::format("{:.0f} %", 100.0 * double(part) / double(whole));
}

// The stacks of all threads of a lock, each with how often it was seen.
std::vector<stackUse> stacksOf(const lockEntry& lock) {
  std::map<std::uint64_t, std::uint32_t> counts;
  for (const threadEntry& thread : lock.threads) {
    for (const stackUse& use : thread.stacks) {
      counts[use.hash] += use.count;
    }
  }
  std::vector<stackUse> result;
  for (const auto& [hash, count] : counts) {
    result.push_back({hash, count});
  }
  return result;
}

std::string framesOf(std::uint64_t hash, const stackTexts& stacks, const tableLimits& limits) {
  const std::string indent(kIndent + 2, ' ');
  const auto found = stacks.find(hash);
  if (found == stacks.end()) {
    return fmt::format("{}hash {}, not in a stack file that was given\n", indent, hash);
  }
  const std::vector<std::string>& frames = found->second;
  const std::size_t shown = std::min(limits.frames, frames.size());
  std::string result;
  for (std::size_t i = 0; i < shown; i++) {
    const std::size_t room = limits.width - std::min(limits.width, indent.size() + 3);
    result += fmt::format("{}at {}\n", indent, cutStart(printable(frames[i]), room));
  }
  if (shown < frames.size()) {
    result += fmt::format("{}... {} more\n", indent, frames.size() - shown);
  }
  return result;
}

std::string mostFrequentStack(const lockEntry& lock, const stackTexts& stacks,
                              const tableLimits& limits) {
  const std::vector<stackUse> uses = stacksOf(lock);
  if (uses.empty()) {
    return "";
  }
  const stackUse* top = ranked(uses, std::mem_fn(&stackUse::count)).front();
  std::uint64_t seen = 0;
  for (const stackUse& use : uses) {
    seen += use.count;
  }
  return fmt::format("{:{}}Most frequent stack ({} of {} entries, {} distinct):\n", "", kIndent,
                     top->count, seen, uses.size()) +
         framesOf(top->hash, stacks, limits);
}

std::string threadTable(const lockEntry& lock, const tableLimits& limits) {
  textTable table({{"Thread", align::left, shorten::end},
                   {"Entries", align::right},
                   {"Blocked s", align::right},
                   {"Waited s", align::right},
                   {"Stacks", align::right}});
  for (const threadEntry* thread : first(rankedThreads(lock), limits.threads)) {
    table.addRow({thread->name, std::to_string(thread->entries),
                  std::to_string(thread->blockedSeconds), std::to_string(thread->waitedSeconds),
                  std::to_string(thread->stacks.size())});
  }
  std::string result = table.render(limits.width, kIndent);
  if (limits.threads < lock.threads.size()) {
    result += fmt::format("{:{}}... {} more\n", "", kIndent, lock.threads.size() - limits.threads);
  }
  return result;
}

}  // namespace

std::string sessionLine(const lockReport& report) {
  return fmt::format(
      "Lock session {} \"{}\": {} locks, {} s blocked, {} s waited, {} distinct stacks\n",
      report.sessionId, printable(report.sessionName), report.locks.size(),
      sumOfSeconds(report, &lockEntry::blockedSeconds),
      sumOfSeconds(report, &lockEntry::waitedSeconds), report.distinctStacks);
}

std::string topLocks(const lockReport& report, const tableLimits& limits) {
  if (report.locks.empty()) {
    return "No lock is in the report: nothing was contended, or no detail session was run.\n";
  }
  textTable table({{"#", align::right},
                   {"Lock", align::left, shorten::start},
                   {"Entries", align::right},
                   {"Blocked s", align::right},
                   {"Waited s", align::right},
                   {"Share", align::right},
                   {"Top thread", align::left, shorten::end}});
  const std::uint64_t allBlocked = sumOfSeconds(report, &lockEntry::blockedSeconds);
  std::size_t rank = 1;
  for (const lockEntry* lock : first(rankedLocks(report), limits.locks)) {
    const auto threads = rankedThreads(*lock);
    table.addRow({std::to_string(rank++), lock->name, std::to_string(lock->entries),
                  std::to_string(lock->blockedSeconds), std::to_string(lock->waitedSeconds),
                  share(lock->blockedSeconds, allBlocked),
                  threads.empty() ? "" : threads.front()->name});
  }
  return fmt::format("Top locks ({})\n", shownOf(limits.locks, report.locks.size())) +
         table.render(limits.width);
}

std::string lockDetails(const lockReport& report, const stackTexts& stacks,
                        const tableLimits& limits) {
  std::string result;
  std::size_t rank = 1;
  for (const lockEntry* lock : first(rankedLocks(report), limits.locks)) {
    result += fmt::format("{}{}. {}\n", rank == 1 ? "" : "\n", rank, printable(lock->name));
    result += threadTable(*lock, limits) + mostFrequentStack(*lock, stacks, limits);
    rank++;
  }
  return result;
}

std::string blockers(const lockReport& report, const tableLimits& limits) {
  if (report.blockers.empty()) {
    return "No blocking thread is in the report.\n";
  }
  textTable table({{"Owner thread", align::left, shorten::end},
                   {"Found owning", align::right},
                   {"Blocking periods", align::right},
                   {"Blocking s", align::right}});
  const auto byTime = ranked(report.blockers, [](const blockerEntry& one) {
    return std::tuple(one.blockingSeconds, one.timesOwner);
  });
  for (const blockerEntry* blocker : first(byTime, limits.threads)) {
    table.addRow({blocker->name, std::to_string(blocker->timesOwner),
                  std::to_string(blocker->blockingPeriods),
                  std::to_string(blocker->blockingSeconds)});
  }
  return fmt::format("Blockers ({})\n", shownOf(limits.threads, report.blockers.size())) +
         table.render(limits.width);
}

std::string wholeReport(const lockReport& report, const stackTexts& stacks,
                        const tableLimits& limits) {
  std::string result = sessionLine(report) + '\n' + topLocks(report, limits);
  if (!report.locks.empty()) {
    result += '\n' + lockDetails(report, stacks, limits);
  }
  return result + '\n' + blockers(report, limits);
}

}  // namespace viewer
