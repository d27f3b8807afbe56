#include "contentionWords.h"

#include <fmt/format.h>

#include <algorithm>

#include "contentionSites.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::uint64_t kNanosOfAMilli = 1'000'000;
constexpr std::size_t kLongestWord = 40;  // columns, on a terminal of fewer

std::string deadlockLines(const contentionReport& report,
                          const std::vector<deadlockedThread>& circle,
                          const terminalStyle& terminal) {
  std::string result =
      terminal.strong(fmt::format("Deadlock of {}: each waits for what another one of them holds\n",
                                  counted(circle.size(), "thread", "threads")));
  for (const deadlockedThread& one : circle) {
    result += nameLine(fmt::format("   {} waits for ", shownThread(one.thread)),
                       lockNameOf(report, one.waitsFor), "", terminal);
  }
  return result;
}

std::string stuckOwnerLines(const contentionReport& report, const stuckLock& stuck,
                            const terminalStyle& terminal) {
  if (!stuck.owner.isKnown) {
    return textLine("   ", ownerNoteText(stuck.ownerNote), "", terminal);
  }
  const ownerPlace place = ownerPlaceOf(report, stuck.owner.stack, stuck.owner.holdingFrame);
  const std::string name = shownThread(stuck.owner.thread);
  std::string result;
  result += !place.site ? fmt::format("   held by {}, whose stack is not known\n", name)
                        : nameLine(fmt::format("   held by {}, {} ", name,
                                               place.isHolding ? "taken in" : "which is in"),
                                   *place.site, "", terminal);
  result += place.now ? nameLine("      now in ", *place.now, "", terminal) : "";
  result += stuck.owner.waitsFor ? nameLine("      and itself waits for ",
                                            lockNameOf(report, *stuck.owner.waitsFor), "", terminal)
                                 : "";
  return result;
}

std::string stuckLockLines(const contentionReport& report, const stuckLock& stuck,
                           const tableLimits& limits, const terminalStyle& terminal) {
  const auto lengthFrom = [&](std::uint64_t since) {
    return durationText(report.writtenAt - std::min(report.writtenAt, since));
  };
  std::string result = terminal.strong(
      nameLine("", lockNameOf(report, stuck.lock),
               fmt::format(": {}, the first for {} (since {} UTC)",
                           counted(stuck.waiterCount, "thread", "threads"),
                           lengthFrom(stuck.sinceAt), momentText(report, stuck.sinceAt)),
               terminal));
  result += stuckOwnerLines(report, stuck, terminal);
  for (const stuckThread& one : first(stuck.waiters, limits.threads)) {
    result +=
        nameLine(fmt::format("   {} for {} in ", shownThread(one.thread), lengthFrom(one.sinceAt)),
                 siteOf(report, one.stack).value_or("(stack not known)"), "", terminal);
  }
  return result + moreLine(stuck.waiterCount, std::min(stuck.waiters.size(), limits.threads), 3);
}

void add(std::vector<std::string>& to, std::uint64_t number, const std::string& text) {
  if (number > 0) {
    to.push_back(text);
  }
}

std::string parksText(const contentionReport& report) {
  return countsEachPark(report)
             ? "A method of this JDK is not known, so that each park counts as an entry of a lock "
               "of java.util.concurrent: there are more entries than acquisitions."
             : "Locks and waits of java.util.concurrent are NOT in this report: " + report.parks +
                   ".";
}

void addSampleOmissions(const contentionReport& report, std::vector<std::string>& to) {
  const contentionOmissions& omitted = report.omitted;
  add(to, report.settings.samplesPerSecond == 0 ? 1 : 0,
      "No samples were taken, as samples were off: there are no sites, owners and pairs.");
  add(to, omitted.blocksNotSampled,
      fmt::format(
          "{} counted but never sampled, for lack of room. Sites, owners and deadlocks lack "
          "them, and so do the threads that are still blocked or stuck.",
          counted(omitted.blocksNotSampled, "block was", "blocks were")));
  add(to, omitted.locksNotSampled,
      fmt::format("{} a lock with blocked threads was skipped because there were too many at that "
                  "moment. Later samples of it stand for that time too.",
                  counted(omitted.locksNotSampled, "time", "times")));
  add(to, omitted.ownersChanged,
      fmt::format("In {} the owner had released the lock, so it is not known.",
                  counted(omitted.ownersChanged, "sample", "samples")));
  add(to, omitted.pairs,
      fmt::format("{} ({} ms) did not fit among the pairs.",
                  counted(omitted.pairs, "sample", "samples"), milliText(omitted.pairNanos)));
  add(to, omitted.stacks,
      fmt::format("{} not fit: \"(stack not known)\".",
                  counted(omitted.stacks, "stack did", "stacks did")));
  add(to, omitted.stuck,
      fmt::format("{} stuck and not listed.",
                  counted(omitted.stuck, "more lock is", "more locks are")));
}

}  // namespace

contentionTotals totalsOf(const contentionReport& report) {
  contentionTotals totals;
  for (const std::vector<contentionLock>* locks : {&report.locks, &report.otherLocks}) {
    for (const contentionLock& lock : *locks) {
      if (isContention(lock.kind)) {
        totals.locks += locks == &report.locks ? 1 : 0;
        totals.entries = plus(totals.entries, lock.entries);
        totals.nanos = plus(totals.nanos, totalOf(lock));
        totals.stillBlocked = plus(totals.stillBlocked, lock.stillBlocked);
      }
    }
  }
  return totals;
}

std::string contentionHead(const contentionReport& report, const terminalStyle& terminal) {
  const contentionTotals totals = totalsOf(report);
  const std::uint64_t end = report.endedAt.value_or(report.writtenAt);
  std::string head =
      fmt::format("Contention profile from {} to {} UTC ({})\n", dayAndTimeText(report.startedAt),
                  momentText(report, end), durationText(lengthOf(report)));
  std::string sums = fmt::format("{} ms blocked at {}, {}", milliText(totals.nanos),
                                 counted(totals.locks, "lock", "locks"),
                                 counted(totals.entries, "entry", "entries"));
  sums += totals.stillBlocked > 0
              ? fmt::format("; {} blocked when this was written",
                            counted(totals.stillBlocked, "thread was", "threads were"))
              : "";
  std::vector<std::string> sentences = {sums + '.'};
  if (!report.endedAt) {
    sentences.push_back(fmt::format(
        "It was not stopped: it still ran at {} UTC, when this was written, or the JVM was killed "
        "later. What came after is not in it.",
        momentText(report, report.writtenAt)));
  }
  if (report.isFiltered) {
    sentences.push_back("Sums and shares are of the locks that were selected.");
  }
  return terminal.strong(head) + sentenceLines(sentences, terminal);
}

std::string stuckLines(const contentionReport& report, const tableLimits& limits,
                       const terminalStyle& terminal) {
  if (report.stuck.empty() && report.deadlocks.empty()) {
    return "";
  }
  std::string result = terminal.strong(sentenceLines(
      {fmt::format("STUCK at {} UTC, when this was written: {} with threads blocked for {} or more",
                   momentText(report, report.writtenAt),
                   counted(report.stuck.size(), "lock", "locks"),
                   durationText(report.settings.stuckMillis))},
      terminal));
  for (const std::vector<deadlockedThread>& circle : report.deadlocks) {
    result += deadlockLines(report, circle, terminal);
  }
  for (const stuckLock& stuck : first(report.stuck, limits.rows)) {
    result += stuckLockLines(report, stuck, limits, terminal);
  }
  return result + moreLine(report.stuck.size(), limits.rows, 0);
}

std::vector<std::string> omissionsOf(const contentionReport& report) {
  const contentionOmissions& omitted = report.omitted;
  std::vector<std::string> result;
  add(result, report.parks == "exact" ? 0 : 1, parksText(report));
  add(result, omitted.startsNotSeen,
      fmt::format("{} begun before the profile: their time is in no table.",
                  counted(omitted.startsNotSeen, "block had", "blocks had")));
  add(result, report.otherLocks.size(),
      "\"(others)\" is the sum of the locks of a class that are not listed one by one: those that "
      "are no longer alive, and those that did not fit.");
  add(result, omitted.otherLocks,
      fmt::format("{} at locks that did not fit among {}.",
                  counted(omitted.otherLocks, "block was", "blocks were"),
                  grouped(report.settings.locks)));
  add(result, omitted.classes,
      fmt::format("{} at locks whose class did not fit either.",
                  counted(omitted.classes, "block was", "blocks were")));
  addSampleOmissions(report, result);
  add(result, omitted.windows,
      fmt::format("The time line does not have the first {}.",
                  counted(omitted.windows, "window", "windows")));
  add(result, omitted.windowLocks,
      fmt::format("Windows do not have {}: only those with most time in them.",
                  counted(omitted.windowLocks, "lock", "locks")));
  return result;
}

std::string costText(const contentionReport& report) {
  const contentionCost& cost = report.cost;
  const std::uint64_t length = lengthOf(report);
  const double percent = length == 0 ? 0
                                     : 100.0 * static_cast<double>(cost.processorNanos) /
                                           static_cast<double>(kNanosOfAMilli) /
                                           static_cast<double>(length);
  return fmt::format(
      "The profile's own cost for samples: {} ms of processor time ({:.1f} % of one processor), {} "
      "(the calls took {} ms), {} ({} ms). It ran {} and skipped {} to stay within {} %. "
      "Counting on the program's own threads adds to that.",
      milliText(cost.processorNanos), percent, counted(cost.safepoints, "safepoint", "safepoints"),
      milliText(cost.safepointNanos), counted(cost.handshakes, "handshake", "handshakes"),
      milliText(cost.handshakeNanos), counted(cost.ticks, "time", "times"),
      counted(cost.ticksLeftOut, "run", "runs"), report.settings.budgetPercent);
}

std::string sentenceLines(const std::vector<std::string>& sentences, const terminalStyle& terminal,
                          std::size_t indent) {
  // A name stays as it is where it fits into a line of its own.
  const std::size_t longest =
      std::max(kLongestWord, terminal.width - std::min(terminal.width, indent + 2));
  std::string result;
  for (const std::string& sentence : sentences) {
    const std::string text = printable(sentence);
    std::string line(indent, ' ');
    bool isEmpty = true;
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = std::min(text.find(' ', start), text.size());
      const std::string word = cutName(text.substr(start, end - start), longest);
      if (!isEmpty && displayColumns(line) + 1 + displayColumns(word) > terminal.width) {
        result += line + '\n';
        line.assign(indent + 2, ' ');
      } else if (!isEmpty) {
        line += ' ';
      }
      line += word;
      isEmpty = false;
      start = end + 1;
    }
    result += line + '\n';
  }
  return result;
}

std::string momentText(const contentionReport& report, std::uint64_t at) {
  constexpr std::uint64_t kDay = 24 * 60 * 60 * 1000;
  return at / kDay == report.startedAt / kDay ? timeText(at) : dayAndTimeText(at);
}

std::string shownThread(const std::optional<std::string>& name) {
  constexpr std::size_t kLongest = 30;
  return !name ? "(thread not known)" : cutName(printable(*name), kLongest);
}

}  // namespace viewer
