#include "findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <map>
#include <optional>

#include "allocationGaps.h"
#include "allocationSites.h"
#include "allocationWords.h"
#include "contentionSites.h"
#include "contentionWords.h"
#include "exceptionCounts.h"
#include "gaps.h"
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

// Of a kind of which the inputs have no report: whether it was off, or something went wrong.
answer notRecorded(const profile& all, std::initializer_list<const char*> options, const char* what,
                   const char* remedy) {
  if (!all.run) {
    return unknown(fmt::format("Not known: no report on {} was read. Use {}.", what, remedy));
  }
  const bool isOff = std::none_of(options.begin(), options.end(), [&](const char* option) {
    return optionOf(all, option).value_or("false") != "false";
  });
  if (isOff) {
    return unknown(fmt::format("Not known: {} were not recorded. Use {}.", what, remedy));
  }
  return unknown(
      all.run->removedReports > 0
          ? fmt::format("Not known: there is no report on {}, and {} deleted.", what,
                        counted(static_cast<std::uint64_t>(all.run->removedReports),
                                "older report of the run was", "older reports of the run were"))
          : fmt::format("Not known: there is no report on {} yet. No session ended, the JVM was "
                        "killed, or it is still running.",
                        what));
}

std::string ofSessions(std::size_t sessions, const char* which, const char* kind) {
  return sessions > 1 ? fmt::format(" (The {} of {} {}.)", which, sessions, kind) : "";
}

std::string incomplete(const std::vector<std::string>& gaps) {
  return gaps.empty() ? "" : fmt::format(" Incomplete: {}.", printable(gaps.front()));
}

// Nanoseconds as "12 min 59 s", and below a second as "12.2 ms".
std::string timeOf(std::uint64_t nanos) {
  constexpr std::uint64_t kMilli = 1'000'000;
  constexpr std::uint64_t kSecond = 1000 * kMilli;
  return nanos >= kSecond ? durationText(nanos / kMilli) : milliText(nanos) + " ms";
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

// Where the lock was held most of the time that others waited, as far as samples show it.
std::string holderText(const contentionReport& report, const contentionLock& lock) {
  struct holder {
    std::uint64_t nanos = 0;
    bool isHolding = true;
  };
  std::map<std::string, holder> holders;
  std::uint64_t known = 0;
  for (const sitePair& pair : sitePairsOf(report, lock)) {
    if (pair.owner.site) {
      holder& one = holders[*pair.owner.site];
      one.nanos = plus(one.nanos, pair.nanos);
      one.isHolding = one.isHolding && pair.owner.isHolding;
      known = plus(known, pair.nanos);
    }
  }
  const auto most = std::max_element(
      holders.begin(), holders.end(),
      [](const auto& left, const auto& right) { return left.second.nanos < right.second.nanos; });
  if (most == holders.end()) {
    return "";
  }
  return fmt::format(", {}{} held {} {}",
                     known < sampledNanosOf(lock) / 2 ? "where the holder is known " : "",
                     most->second.nanos > known / 2 ? "mostly" : "most often",
                     most->second.isHolding ? "by" : "by a thread in", printable(most->first));
}

// A lock of the library says most by the field that holds it.
std::string placeName(const contentionLock& lock) {
  return lock.field ? fmt::format("{} ({})", *lock.field, nameOf(lock)) : nameOf(lock);
}

// The lock with the most blocked time; its class where the time is spread over many.
std::string mostBlockedText(const contentionReport& report, std::uint64_t total) {
  const auto counts = [](const contentionLock& lock) {
    return isContention(lock.kind) && !isOwn(lock);
  };
  const contentionLock* most = nullptr;
  for (const contentionLock& lock : report.locks) {
    if (counts(lock) && (most == nullptr || totalOf(lock) > totalOf(*most))) {
      most = &lock;
    }
  }
  const std::uint64_t ofLock = most == nullptr ? 0 : totalOf(*most);
  const std::vector<lockClassSum> classes = lockClassesOf(report, counts);
  if (!classes.empty() && classes.front().nanos / 2 > ofLock) {
    return fmt::format(", {} of it at locks of {}", percentage(classes.front().nanos, total),
                       printable(classes.front().name));
  }
  return ofLock == 0 ? ""
                     : fmt::format(", {} of it at {}{}", percentage(ofLock, total),
                                   printable(placeName(*most)), holderText(report, *most));
}

answer blockedIn(const contentionReport& report, std::size_t sessions) {
  const contentionTotals totals = totalsOf(report);
  const std::string limits =
      std::string(hasParks(report) ? "" : " Locks of java.util.concurrent were not looked at.") +
      (report.endedAt ? "" : " The profile still ran when this was written.") +
      ofSessions(sessions, "longest", "profiles");
  const std::string length = durationText(lengthOf(report));
  if (totals.nanos == 0) {
    return {fmt::format("{}No thread was blocked at a lock in {}.{}", stuckText(report), length,
                        limits)};
  }
  return {fmt::format("{}Threads were blocked for {} in total during {}{}.{}", stuckText(report),
                      timeOf(totals.nanos), length, mostBlockedText(report, totals.nanos), limits)};
}

answer blockedIn(const profile& all, const lockReport& report) {
  if (report.locks.empty()) {
    return unknown(all.isFiltered
                       ? "The lock session has no lock that was selected."
                       : "The lock session recorded no lock: no thread blocked before its detail "
                         "phase, or it ended before that. The contention profile needs no phases: "
                         "--contention.");
  }
  const lockEntry& most = report.locks.front();
  return {fmt::format("Threads were blocked for {} s, most at {} ({} s, {}).{}{}",
                      grouped(totalsOf(report).blockedSeconds), printable(most.name),
                      grouped(most.blockedSeconds), counted(most.entries, "entry", "entries"),
                      ofSessions(all.lockReports.size(), "worst", "sessions"),
                      incomplete(lockGaps(all)))};
}

answer whatBlocks(const profile& all) {
  const auto longest = std::max_element(
      all.contentionReports.begin(), all.contentionReports.end(),
      [](const auto& left, const auto& right) { return lengthOf(left) < lengthOf(right); });
  if (longest != all.contentionReports.end()) {
    return blockedIn(*longest, all.contentionReports.size());
  }
  if (!all.lockReports.empty()) {
    return blockedIn(all, *std::max_element(all.lockReports.begin(), all.lockReports.end(),
                                            [](const lockReport& left, const lockReport& right) {
                                              return totalsOf(left).blockedSeconds <
                                                     totalsOf(right).blockedSeconds;
                                            }));
  }
  return notRecorded(all, {"contention", "locks"}, "locks", "--contention");
}

answer whatFails(const profile& all, thrownIn where) {
  if (!all.exceptions) {
    return notRecorded(all, {"exceptions"}, "exceptions", "--exceptions");
  }
  const exceptionCounts* counts = countsOf(all);
  const std::vector<exceptionGroup> groups = groupsOf(all, where);
  const bool isOfMade = counts != nullptr && counts->isOfMade;
  const char* done = isOfMade ? "made" : "thrown";
  const std::string limits =
      counts == nullptr
          ? ""
          : std::string(isOfMade ? " Exceptions that the VM throws by itself were not counted."
                                 : "") +
                (all.isFiltered ? "" : incomplete(exceptionGaps(all, "*")));
  if (groups.empty()) {
    return counts == nullptr
               ? unknown("No exception was recorded, and how many were thrown is not known.")
               : answer{fmt::format("No exception was {}.{}", done, limits)};
  }
  // The agent's own exceptions are in the totals, but are no failure of the program.
  const auto most = std::find_if_not(groups.begin(), groups.end(),
                                     [](const exceptionGroup& group) { return isOwn(group); });
  const std::string worst =
      most == groups.end()
          ? "none of them seen outside the agent's classes"
          : fmt::format("{} of them {} in {}",
                        grouped(counts == nullptr ? most->records.size() : most->known()),
                        printable(most->className), printable(placeOf(*most)));
  if (counts == nullptr) {
    return {fmt::format(
        "{}, {}. More may have been thrown: they were not counted.",
        counted(all.exceptions->size(), "exception was recorded", "exceptions were recorded"),
        worst)};
  }
  return {fmt::format("{} {}, {}.{}",
                      counted(counts->total.thrown, "exception was", "exceptions were"), done,
                      worst, limits)};
}

std::string spanOf(const allocationReport& report) {
  const std::uint64_t end = report.endedAt.value_or(report.writtenAt);
  return durationText(end - std::min(end, report.startedAt));
}

answer grownIn(const profile& all, const allocationSession& session, std::size_t sessions) {
  const allocationReport& report = *session.samples;
  if (report.collections == 0) {
    return unknown("Not known: no garbage collection ran, so that nothing shows what survives.");
  }
  const std::string alive =
      fmt::format("about {} alive after {}", sizeText(report.alive.bytes), spanOf(report));
  const std::string limits = ofSessions(sessions, "longest", "sessions") +
                             incomplete(allocationGaps(all, allocationMeasure::growth,
                                                       std::numeric_limits<double>::infinity()));
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
                        counted(grows->sum.alive.samples, "sample", "samples"), alive, limits)};
  }
  const bool areTooFew = std::any_of(sites.begin(), sites.end(), [](const grownSite& one) {
    return one.sum.isTooFew || !one.sum.growsBy;
  });
  return areTooFew
             ? unknown(fmt::format(
                   "Too few samples to tell what grows; {}. Let the program run longer.", alive))
             : answer{fmt::format("Nothing was seen to grow; {}.{}", alive, limits)};
}

std::uint64_t bytesIn(const memoryReport& report) {
  return report.classes.empty() ? 0 : report.classes.front().bytes;
}

answer survivorsIn(const profile& all) {
  const memoryReport& report = *std::max_element(
      all.memoryReports.begin(), all.memoryReports.end(),
      [](const auto& left, const auto& right) { return bytesIn(left) < bytesIn(right); });
  if (report.classes.empty()) {
    const bool isUntracked = all.run && optionOf(all, "memory.track").value_or("").empty();
    return unknown(
        isUntracked
            ? "Not known: the memory session tracked no class. --memory=track names classes; "
              "--allocations looks at all."
        : all.isFiltered
            ? "The memory session has no class that was selected."
            : "No tracked object has survived a collection. Objects of classes that --memory=track "
              "does not name are not looked at; --allocations looks at all.");
  }
  const classEntry& most = report.classes.front();
  return {fmt::format("{} of {} survived collections ({}). Only tracked classes were looked at.{}",
                      counted(most.objects, "object", "objects"), printable(most.name),
                      sizeText(most.bytes),
                      ofSessions(all.memoryReports.size(), "worst", "sessions"))};
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
    return grownIn(all, *longest, sessions);
  }
  if (!all.memoryReports.empty()) {
    return survivorsIn(all);
  }
  return notRecorded(all, {"allocations", "memory"}, "allocations", "--allocations");
}

}  // namespace

std::vector<finding> findingsOf(const profile& all, thrownIn where) {
  const auto made = [&all](const char* question, const char* view, answer given) {
    if (all.isFiltered && given.isKnown) {
      given.text += " Only what was selected counts.";
    }
    return finding{question, view, std::move(given.text), given.isKnown};
  };
  return {made("What holds it up", all.contentionReports.empty() ? "locks" : "contention",
               whatBlocks(all)),
          made("What fails", "exceptions", whatFails(all, where)),
          made("What leaks", "memory", whatLeaks(all))};
}

}  // namespace viewer
