#include "contentionExports.h"

#include <algorithm>

#include "contentionSites.h"
#include "exportParts.h"

namespace viewer {
namespace {

constexpr const char* kNoThread = "(thread not known)";
constexpr const char* kNotSampled = "(not sampled)";

std::string textOf(const std::optional<std::uint64_t>& number) {
  return number ? std::to_string(*number) : "";
}

// Calls `visit(report, lock, is a sum)` for all locks and sums.
template <typename visitor>
void forEachLock(const std::vector<contentionReport>& reports, visitor visit) {
  for (const contentionReport& report : reports) {
    for (const contentionLock& lock : report.locks) {
      visit(report, lock, false);
    }
    for (const contentionLock& lock : report.otherLocks) {
      visit(report, lock, true);
    }
  }
}

std::string exportedName(const contentionLock& lock, bool isSum) {
  return nameOf(lock) + (isSum ? " (others)" : "");
}

}  // namespace

void forEachBlockedStack(
    const contentionReport& report,
    const std::function<void(const std::string& lock, const std::string& thread,
                             const std::vector<std::string>& frames, std::uint64_t nanos)>& visit) {
  const auto visitLock = [&](const contentionLock& lock, bool isSum) {
    const std::string name = exportedName(lock, isSum);
    for (const contentionPair& pair : lock.pairs) {
      std::vector<std::string> frames = {kNoStack};
      if (pair.waiterStack) {
        const std::vector<std::string>& known = report.stacks[*pair.waiterStack].frames;
        frames.assign(known.rbegin(), known.rend());
      }
      if (pair.nanos > 0) {
        visit(name, pair.waiterThread.value_or(kNoThread), frames, pair.nanos);
      }
    }
    const std::uint64_t sampled = sampledNanosOf(lock);
    if (totalOf(lock) > sampled) {
      visit(name, kNotSampled, {kNoStack}, totalOf(lock) - sampled);
    }
  };
  for (const contentionLock& lock : report.locks) {
    if (isContention(lock.kind)) {
      visitLock(lock, false);
    }
  }
  for (const contentionLock& lock : report.otherLocks) {
    if (isContention(lock.kind)) {
      visitLock(lock, true);
    }
  }
}

void csvContention(const std::vector<contentionReport>& reports, std::ostream& out) {
  csvRow(out, "report", "lock", "class", "field", "kind", "entries", "blocked_nanos",
         "still_blocked", "still_blocked_nanos", "longest_nanos", "first_ms", "last_ms");
  forEachLock(reports, [&](const contentionReport& report, const contentionLock& lock, bool isSum) {
    csvRow(out, report.source, exportedName(lock, isSum), lock.className.value_or(""),
           lock.field.value_or(""), nameOf(lock.kind), lock.entries, lock.blockedNanos,
           lock.stillBlocked, lock.stillBlockedNanos, longestOf(report, lock).nanos,
           textOf(lock.firstAt), textOf(lock.lastAt));
  });
}

void csvPairs(const std::vector<contentionReport>& reports, std::ostream& out) {
  csvRow(out, "report", "lock", "kind", "waiter_thread", "waiter_site", "owner_thread",
         "owner_site", "owner_note", "nanos", "samples");
  forEachLock(reports, [&](const contentionReport& report, const contentionLock& lock, bool isSum) {
    for (const contentionPair& pair : lock.pairs) {
      const ownerPlace owner = ownerPlaceOf(report, pair.ownerStack, pair.holdingFrame);
      csvRow(out, report.source, exportedName(lock, isSum), nameOf(lock.kind),
             pair.waiterThread.value_or(""), siteOf(report, pair.waiterStack).value_or(""),
             pair.ownerThread.value_or(""), owner.site.value_or(""), pair.ownerNote.value_or(""),
             pair.nanos, pair.samples);
    }
  });
}

void contentionGauges(const std::vector<contentionReport>& reports, std::ostream& out) {
  gauge entries("contention_entries", "Blocks at a monitor or lock that have ended.");
  gauge blocked("contention_blocked_nanoseconds",
                "Time of blocks at a monitor or lock, with those that have not ended.");
  gauge waits("contention_waits", "Waits and parks that have ended, which are not contention.");
  gauge waited("contention_wait_nanoseconds", "Time of waits and parks, ended or not.");
  gauge still("contention_still_blocked", "Threads that blocked or waited at last.");
  gauge longest("contention_longest_nanoseconds", "The longest block or wait.");
  gauge stuck("contention_stuck_threads", "Threads that were stuck at a lock at last.");
  gauge deadlocks("contention_deadlocks", "Deadlocks at last.");
  forEachLock(reports, [&](const contentionReport& report, const contentionLock& lock, bool isSum) {
    const gauge::labels of = {{"report", report.source},
                              {"class", classNameOf(lock)},
                              {"lock", exportedName(lock, isSum)},
                              {"kind", nameOf(lock.kind)}};
    (isContention(lock.kind) ? entries : waits).add(of, lock.entries);
    (isContention(lock.kind) ? blocked : waited).add(of, totalOf(lock));
    still.add(of, lock.stillBlocked);
    longest.add(of, longestOf(report, lock).nanos);
  });
  for (const contentionReport& report : reports) {
    for (const stuckLock& one : report.stuck) {
      stuck.add({{"report", report.source}, {"lock", lockNameOf(report, one.lock)}},
                one.waiterCount);
    }
    deadlocks.add({{"report", report.source}}, report.deadlocks.size());
  }
  for (const gauge* one :
       {&entries, &blocked, &waits, &waited, &still, &longest, &stuck, &deadlocks}) {
    one->write(out);
  }
}

}  // namespace viewer
