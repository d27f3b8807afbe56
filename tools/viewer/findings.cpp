#include "findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "allocationSites.h"
#include "allocationWords.h"
#include "contentionSites.h"
#include "contentionWords.h"
#include "exceptionCounts.h"
#include "tableParts.h"
#include "utf8.h"

namespace viewer {
namespace {

struct answer {
  std::string text;
  bool isKnown = true;
};

answer unknown(std::string reason) {
  return {std::move(reason), false};
}

std::string ofSessions(std::size_t sessions, const char* kind) {
  return sessions > 1 ? fmt::format(" (The longest of {} {}.)", sessions, kind) : "";
}

// What cannot wait: threads that do not go on.
std::string stuckText(const contentionReport& report) {
  if (!report.deadlocks.empty()) {
    std::string threads;
    for (const deadlockedThread& one : report.deadlocks.front()) {
      threads += (threads.empty() ? "" : ", ") + shownThread(one.thread);
    }
    return fmt::format("{}: {} wait for each other. ",
                       counted(report.deadlocks.size(), "deadlock", "deadlocks"), threads);
  }
  if (report.stuck.empty()) {
    return "";
  }
  const stuckLock& longest = report.stuck.front();
  return fmt::format("Stuck at {}: {}. ", printable(lockNameOf(report, longest.lock)),
                     counted(longest.waiterCount, "thread", "threads"));
}

// Where the lock was held while others waited, as far as samples show it.
std::string holderText(const contentionReport& report, const contentionLock& lock) {
  for (const sitePair& pair : sitePairsOf(report, lock)) {
    if (pair.owner.site) {
      return fmt::format(", mostly held {} {}", pair.owner.isHolding ? "by" : "by a thread in",
                         printable(*pair.owner.site));
    }
  }
  return "";
}

answer blockedIn(const contentionReport& report, std::size_t sessions) {
  const contentionTotals totals = totalsOf(report);
  const std::string stuck = stuckText(report);
  if (totals.nanos == 0) {
    return {stuck +
            fmt::format("No thread was blocked at a lock in {}.", durationText(lengthOf(report))) +
            (hasParks(report) ? "" : " Locks of java.util.concurrent were not looked at.") +
            ofSessions(sessions, "profiles")};
  }
  const contentionLock* most = nullptr;
  for (const contentionLock& lock : report.locks) {
    if (isContention(lock.kind) && !isOwn(lock) &&
        (most == nullptr || totalOf(lock) > totalOf(*most))) {
      most = &lock;
    }
  }
  std::string text = fmt::format("{}Threads were blocked for {} ms in {}", stuck,
                                 milliText(totals.nanos), durationText(lengthOf(report)));
  if (most != nullptr && totalOf(*most) > 0) {
    text += fmt::format(", {} of it at {}{}", percentage(totalOf(*most), totals.nanos),
                        printable(nameOf(*most)), holderText(report, *most));
  }
  return {text + '.' +
          (hasParks(report) ? "" : " Locks of java.util.concurrent were not looked at.") +
          ofSessions(sessions, "profiles")};
}

answer blockedIn(const lockReport& report, std::size_t sessions) {
  if (report.locks.empty()) {
    return unknown(
        "The lock session recorded no lock: no thread blocked before its detail phase, or it ended "
        "before that. The contention profile needs no phases: --contention.");
  }
  std::uint64_t seconds = 0;
  for (const lockEntry& one : report.locks) {
    seconds += one.blockedSeconds;
  }
  const lockEntry& most = report.locks.front();
  return {fmt::format("Threads were blocked for {} s, most at {} ({} s, {}).{}", grouped(seconds),
                      printable(most.name), grouped(most.blockedSeconds),
                      counted(most.entries, "entry", "entries"), ofSessions(sessions, "sessions"))};
}

answer whatBlocks(const profile& all) {
  const auto longest = std::max_element(
      all.contentionReports.begin(), all.contentionReports.end(),
      [](const auto& left, const auto& right) { return lengthOf(left) < lengthOf(right); });
  if (longest != all.contentionReports.end()) {
    return blockedIn(*longest, all.contentionReports.size());
  }
  if (!all.lockReports.empty()) {
    return blockedIn(all.lockReports.front(), 1);
  }
  return unknown("Not known: locks were not recorded. Use --contention.");
}

answer whatFails(const profile& all, thrownIn where) {
  if (!all.exceptions) {
    return unknown("Not known: exceptions were not recorded. Use --exceptions.");
  }
  const exceptionCounts* counts = countsOf(all);
  const std::vector<exceptionGroup> groups = groupsOf(all, where);
  const char* done = counts != nullptr && counts->isOfMade ? "made" : "thrown";
  if (groups.empty()) {
    return counts == nullptr
               ? unknown("No exception was recorded, and how many were thrown is not known.")
               : answer{fmt::format("No exception was {}.", done)};
  }
  const exceptionGroup& most = groups.front();
  const std::string what =
      fmt::format("{} in {}", printable(most.className), printable(placeOf(most)));
  if (counts == nullptr) {
    return {fmt::format(
        "{}, {} of them {}. More may have been thrown: they were not counted.",
        counted(all.exceptions->size(), "exception was recorded", "exceptions were recorded"),
        grouped(most.records.size()), what)};
  }
  return {fmt::format("{} {}, {} of them {}.",
                      counted(counts->total.thrown, "exception was", "exceptions were"), done,
                      grouped(most.known()), what)};
}

std::string spanOf(const allocationReport& report) {
  const std::uint64_t end = report.endedAt.value_or(report.writtenAt);
  return durationText(end - std::min(end, report.startedAt));
}

answer grownIn(const allocationSession& session, std::size_t sessions) {
  const allocationReport& report = *session.samples;
  if (report.collections == 0) {
    return unknown("Not known: no garbage collection ran, so that nothing shows what survives.");
  }
  const std::string alive =
      fmt::format("about {} alive after {}", sizeText(report.alive.bytes), spanOf(report));
  const std::vector<grownSite> sites = grownSitesOf(session);
  const auto grows = std::find_if(sites.begin(), sites.end(), [](const grownSite& one) {
    return one.sum.growsBy.value_or(0) > 0;
  });
  if (grows != sites.end()) {
    std::string classes;
    for (const classAtSite& one : first(grows->classes, 2)) {
      classes += (classes.empty() ? "" : ", ") + printable(one.className);
    }
    return {fmt::format("Memory allocated in {} grows by {} ({}; {}); {}.{}",
                        printable(shownSite(grows->site)), growthText(grows->sum), classes,
                        counted(grows->sum.alive.samples, "sample", "samples"), alive,
                        ofSessions(sessions, "sessions"))};
  }
  const bool areTooFew = std::any_of(sites.begin(), sites.end(), [](const grownSite& one) {
    return one.sum.isTooFew || !one.sum.growsBy;
  });
  return areTooFew
             ? unknown(fmt::format(
                   "Too few samples to tell what grows; {}. Let the program run longer.", alive))
             : answer{fmt::format("Nothing was seen to grow; {}.{}", alive,
                                  ofSessions(sessions, "sessions"))};
}

answer survivorsIn(const memoryReport& report) {
  if (report.classes.empty()) {
    return unknown(
        "No tracked object has survived a collection. Objects of classes that --memory=track does "
        "not name are not looked at; --allocations looks at all.");
  }
  const classEntry& most = report.classes.front();
  return {fmt::format("{} of {} survived collections ({}). Only tracked classes were looked at.",
                      counted(most.objects, "object", "objects"), printable(most.name),
                      sizeText(most.bytes))};
}

answer whatLeaks(const profile& all) {
  const allocationSession* longest = nullptr;
  std::size_t sessions = 0;
  for (const allocationSession& one : all.allocations) {
    if (one.samples) {
      ++sessions;
      if (longest == nullptr || one.samples->writtenAt - one.samples->startedAt >
                                    longest->samples->writtenAt - longest->samples->startedAt) {
        longest = &one;
      }
    }
  }
  if (longest != nullptr) {
    return grownIn(*longest, sessions);
  }
  if (!all.memoryReports.empty()) {
    return survivorsIn(all.memoryReports.front());
  }
  return unknown("Not known: allocations were not recorded. Use --allocations.");
}

}  // namespace

std::vector<finding> findingsOf(const profile& all, thrownIn where) {
  const auto made = [](const char* question, const char* view, answer given) {
    return finding{question, view, std::move(given.text), given.isKnown};
  };
  return {made("What holds it up", all.contentionReports.empty() ? "locks" : "contention",
               whatBlocks(all)),
          made("What fails", "exceptions", whatFails(all, where)),
          made("What leaks", "memory", whatLeaks(all))};
}

}  // namespace viewer
