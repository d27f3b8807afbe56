#include "contentionChecks.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "contentionGaps.h"
#include "tableParts.h"

namespace viewer {
namespace {

constexpr double kNanosOfAMilli = 1e6;

std::string fileName(const std::string& path) {
  return std::filesystem::path(path).filename();
}

// What is known of the locks of one class.
struct classTimes {
  std::uint64_t largest = 0;  // of a single lock
  std::uint64_t others = 0;   // of those that are not listed separately
  bool isBroken = false;
};

class contentionCheck {
 public:
  contentionCheck(const contentionReport& report, const contentionLimit& limit, verdict& found)
      : report_(report), limit_(limit), found_(found) {}

  // Whether there was a lock of a matching class.
  bool run() {
    for (const contentionLock& lock : report_.locks) {
      if (isContention(lock.kind)) {
        checkLock(lock);
      }
    }
    std::uint64_t nameless = 0;
    for (const contentionLock& others : report_.otherLocks) {
      if (isContention(others.kind) && !others.className) {
        nameless = plus(nameless, others.blockedNanos);
      } else if (isContention(others.kind)) {
        checkOthers(others);
      }
    }
    checkSums(nameless);
    return !classes_.empty();
  }

 private:
  bool exceeds(std::uint64_t nanos) const {
    return static_cast<double>(nanos) > limit_.millis * kNanosOfAMilli;
  }

  void breakBy(const std::string& what, const std::string& more = "") {
    found_.broken.push_back(fmt::format("{} in {}{}, {} ms allowed", what, fileName(report_.source),
                                        more, limit_.millis));
  }

  void breakForGap(const std::string& reason) {
    found_.broken.push_back(fmt::format("{}={}: {}: {}", limit_.lockClass, limit_.millis,
                                        fileName(report_.source), reason));
  }

  void checkLock(const contentionLock& lock) {
    const std::uint64_t total = totalOf(lock);
    if (!lock.className) {
      if (exceeds(total)) {
        breakForGap(
            fmt::format("{} ms blocked at a lock of a class that was unloaded", milliText(total)));
      }
      return;
    }
    if (!matches(limit_.lockClass, *lock.className)) {
      return;
    }
    classTimes& times = classes_[*lock.className];
    times.largest = std::max(times.largest, total);
    if (exceeds(total)) {
      times.isBroken = true;
      breakBy(fmt::format("{}: {} ms blocked", nameOf(lock), milliText(total)),
              lock.stillBlocked == 0   ? ""
              : lock.stillBlocked == 1 ? " (1 thread still is)"
                                       : fmt::format(" ({} threads still are)", lock.stillBlocked));
    }
  }

  void checkOthers(const contentionLock& others) {
    if (!matches(limit_.lockClass, *others.className)) {
      return;
    }
    classTimes& times = classes_[*others.className];
    times.others = plus(times.others, others.blockedNanos);
    if (exceeds(others.maxNanos)) {
      times.isBroken = true;
      breakBy(fmt::format("{}: one thread blocked for {} ms", *others.className,
                          milliText(others.maxNanos)));
    }
  }

  // A lock may have had a part of its time while it was not listed separately.
  void checkSums(std::uint64_t nameless) {
    for (const auto& [name, times] : classes_) {
      if (!times.isBroken && times.others > 0 && exceeds(plus(times.largest, times.others))) {
        breakForGap(fmt::format("{} ms blocked at locks of {} that are not told apart",
                                milliText(times.others), name));
      }
    }
    if (exceeds(nameless)) {
      breakForGap(fmt::format("{} ms blocked at locks whose classes are not told apart",
                              milliText(nameless)));
    }
  }

  const contentionReport& report_;
  const contentionLimit& limit_;
  verdict& found_;
  std::map<std::string, classTimes> classes_;
};

}  // namespace

void checkContention(const profile& all, const contentionLimit& limit, verdict& found) {
  const std::string name = fmt::format("{}={}", limit.lockClass, limit.millis);
  for (const std::string& reason : contentionGaps(all, limit.lockClass)) {
    found.broken.push_back(name + ": " + reason);
  }
  bool isThere = false;
  for (const contentionReport& report : all.contentionReports) {
    isThere = contentionCheck(report, limit, found).run() || isThere;
  }
  if (!isThere && !all.contentionReports.empty()) {
    found.notes.push_back(name + ": no thread was blocked by a lock of a matching class");
  }
}

void checkDeadlocks(const profile& all, verdict& found) {
  for (const std::string& reason : deadlockGaps(all)) {
    found.broken.push_back("no deadlock: " + reason);
  }
  for (const contentionReport& report : all.contentionReports) {
    for (const std::vector<deadlockedThread>& circle : report.deadlocks) {
      std::string threads;
      for (const deadlockedThread& one : circle) {
        threads += fmt::format("{}{} waits for {}", threads.empty() ? "" : ", ",
                               one.thread.value_or("(thread not known)"),
                               lockNameOf(report, one.waitsFor));
      }
      found.broken.push_back(fmt::format("deadlock in {}: {}", fileName(report.source), threads));
    }
  }
}

}  // namespace viewer
