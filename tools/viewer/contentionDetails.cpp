#include "contentionDetails.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "contentionSites.h"
#include "contentionWords.h"
#include "utf8.h"

namespace viewer {
namespace {

// "and itself waits for", lock after lock, each with its owner.
std::string chainLines(const contentionReport& report, const std::optional<std::uint64_t>& lock,
                       const sitePair& pair, const terminalStyle& terminal) {
  constexpr std::size_t kDeepest = 8;
  constexpr std::size_t kStep = 3;
  std::string result;
  if (!pair.ownerWaitsFor) {
    return result;
  }
  std::size_t indent = 12;
  const auto chain = chainOf(report, lock, pair.ownerThreads, *pair.ownerWaitsFor);
  for (const chainLink& link : first(chain, kDeepest)) {
    result +=
        nameLine(fmt::format("{:{}}and itself waits for ", "", indent),
                 lockNameOf(report, link.lock), link.isAgain ? " again: a circle" : "", terminal);
    if (link.ownerThread && link.owner.site) {
      result +=
          nameLine(fmt::format("{:{}}{} held by ", "", indent, terminal.blocks ? "←" : "<-"),
                   *link.owner.site, fmt::format(" ({})", shownThread(link.ownerThread)), terminal);
    }
    indent += kStep;
  }
  return result + moreLine(chain.size(), kDeepest, indent);
}

std::string ownerLines(const contentionReport& report, const shownLock& one, const sitePair& pair,
                       const terminalStyle& terminal) {
  const std::string arrow = fmt::format("         {} ", terminal.blocks ? "←" : "<-");
  if (pair.ownerThreads.empty()) {
    return textLine(arrow, ownerNoteText(pair.ownerNote), "", terminal);
  }
  const auto id = one.isSum ? std::nullopt : std::optional(one.lock->id);
  const std::string owner = fmt::format(" ({})", someOf(pair.ownerThreads));
  std::string result =
      nameLine(arrow + (pair.owner.isHolding ? "held by " : "held by a thread in "),
               pair.owner.site.value_or("(stack not known)"), owner, terminal);
  if (pair.owner.now) {
    result += nameLine("            seen most in ", *pair.owner.now, "", terminal);
  }
  return result + chainLines(report, id, pair, terminal);
}

// The time below which this share of the blocks were; none without a histogram.
std::string quantileText(const contentionLock& lock, double share) {
  std::uint64_t all = 0;
  for (std::uint64_t count : lock.histogram) {
    all = plus(all, count);
  }
  constexpr std::size_t kFirstBit = 10;
  constexpr std::size_t kLast = 31;  // which has all longer ones
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < lock.histogram.size(); i++) {
    seen = plus(seen, lock.histogram[i]);
    if (all > 0 && static_cast<double>(seen) >= share * static_cast<double>(all)) {
      return milliText(i < kLast ? std::min(std::uint64_t(1) << (i + kFirstBit), lock.maxNanos)
                                 : lock.maxNanos);
    }
  }
  return "";
}

std::string lockFacts(const contentionReport& report, const contentionLock& lock,
                      const terminalStyle& terminal) {
  std::vector<std::string> facts;
  if (lock.entries == 0) {
    facts.emplace_back("No block here has ended.");
  } else if (const std::string half = quantileText(lock, 0.5); !half.empty()) {
    facts.push_back(fmt::format("Half of the entries took up to {} ms, 99 % up to {} ms.", half,
                                quantileText(lock, 0.99)));
  }
  if (lock.firstAt && lock.lastAt) {
    facts.push_back(fmt::format("The first began at {}, the last ended at {} UTC.",
                                momentText(report, *lock.firstAt),
                                momentText(report, *lock.lastAt)));
  }
  facts.push_back(lock.pairs.empty() ? "No sample shows who waited for whom."
                                     : fmt::format("Who waited for whom (samples stand for {} ms):",
                                                   milliText(sampledNanosOf(lock))));
  return sentenceLines(facts, terminal, 3);
}

}  // namespace

std::vector<shownLock> locksFor(const contentionReport& report,
                                const std::function<bool(const contentionLock&)>& wanted) {
  std::vector<shownLock> result;
  for (const std::vector<contentionLock>* locks : {&report.locks, &report.otherLocks}) {
    for (const contentionLock& lock : *locks) {
      if (wanted(lock)) {
        result.push_back({&lock, locks == &report.otherLocks});
      }
    }
  }
  std::stable_sort(result.begin(), result.end(), [](const shownLock& left, const shownLock& right) {
    return totalOf(*left.lock) > totalOf(*right.lock);
  });
  return result;
}

std::string shownName(const shownLock& one) {
  return nameOf(*one.lock) + (one.isSum ? " (others)" : "") +
         (one.lock->field ? ", " + *one.lock->field : "");
}

std::string someOf(const std::set<std::string>& threads) {
  if (threads.empty()) {
    return "(thread not known)";
  }
  const std::string one = shownThread(*threads.begin());
  return threads.size() == 1 ? one : fmt::format("{} and {} more", one, threads.size() - 1);
}

std::string contentionDetails(const contentionReport& report, const std::vector<shownLock>& locks,
                              const tableLimits& limits, const terminalStyle& terminal) {
  std::string result;
  std::size_t rank = 1;
  for (const shownLock& one : first(locks, limits.rows)) {
    result +=
        '\n' + terminal.strong(nameLine(fmt::format("{}. ", rank++), shownName(one), "", terminal));
    result += lockFacts(report, *one.lock, terminal);
    const std::vector<sitePair> pairs = sitePairsOf(report, *one.lock);
    const std::uint64_t all = sampledNanosOf(*one.lock);
    for (const sitePair& pair : first(pairs, fewer(limits.rows))) {
      result += nameLine(fmt::format("   {:>5} ", percentage(pair.nanos, all)),
                         pair.waiterSite.value_or("(stack not known)"),
                         fmt::format(" ({})", someOf(pair.waiterThreads)), terminal);
      result += ownerLines(report, one, pair, terminal);
    }
    result += moreLine(pairs.size(), fewer(limits.rows), 3);
  }
  return result;
}

}  // namespace viewer
