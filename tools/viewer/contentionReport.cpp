#include "contentionReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <unordered_map>

namespace viewer {
namespace {

constexpr std::uint64_t kNanosOfAMilli = 1'000'000;
constexpr const char* kExact = "exact";
constexpr const char* kEachPark = "parks";
constexpr std::array kKinds = {"monitor", "lock", "wait", "park"};

bool hasText(const std::optional<std::string>& text,
             const std::function<bool(const std::string&)>& has) {
  return text && has(*text);
}

bool hasFrame(const contentionReport& report, const std::optional<std::uint64_t>& stack,
              const std::function<bool(const std::string&)>& has) {
  return stack &&
         std::any_of(report.stacks[*stack].frames.begin(), report.stacks[*stack].frames.end(), has);
}

bool occursIn(const contentionReport& report, const contentionLock& lock,
              const std::function<bool(const std::string&)>& has) {
  return has(nameOf(lock)) || hasText(lock.field, has) ||
         std::any_of(lock.pairs.begin(), lock.pairs.end(), [&](const contentionPair& pair) {
           return hasText(pair.waiterThread, has) || hasText(pair.ownerThread, has) ||
                  hasFrame(report, pair.waiterStack, has) || hasFrame(report, pair.ownerStack, has);
         });
}

bool occursIn(const contentionReport& report, const stuckLock& stuck,
              const std::function<bool(const std::string&)>& has) {
  return has(lockNameOf(report, stuck.lock)) || hasText(stuck.owner.thread, has) ||
         hasFrame(report, stuck.owner.stack, has) ||
         std::any_of(stuck.waiters.begin(), stuck.waiters.end(), [&](const stuckThread& one) {
           return hasText(one.thread, has) || hasFrame(report, one.stack, has);
         });
}

// The sums of a window over the locks that are left.
void keepWindowLocks(contentionWindow& window,
                     const std::unordered_map<std::uint64_t, lockKind>& kinds) {
  std::erase_if(window.locks, [&](const windowLock& one) { return !kinds.contains(one.id); });
  window.blockedNanos = window.entries = window.waitNanos = window.waits = 0;
  for (const windowLock& one : window.locks) {
    const bool blocks = isContention(kinds.at(one.id));
    std::uint64_t& nanos = blocks ? window.blockedNanos : window.waitNanos;
    std::uint64_t& entries = blocks ? window.entries : window.waits;
    nanos = plus(nanos, one.blockedNanos);
    entries = plus(entries, one.entries);
  }
}

}  // namespace

const char* nameOf(lockKind kind) {
  return kKinds[static_cast<std::size_t>(kind)];
}

std::uint64_t plus(std::uint64_t left, std::uint64_t right) {
  const std::uint64_t sum = left + right;
  return sum < left ? std::numeric_limits<std::uint64_t>::max() : sum;
}

std::uint64_t totalOf(const contentionLock& lock) {
  return plus(lock.blockedNanos, lock.stillBlockedNanos);
}

std::string classNameOf(const contentionLock& lock) {
  return lock.className.value_or(lock.identity ? "(unloaded class)" : "(classes not told apart)");
}

std::string nameOf(const contentionLock& lock) {
  return classNameOf(lock) + (lock.identity ? '@' + *lock.identity : "");
}

std::string lockNameOf(const contentionReport& report, std::uint64_t id) {
  const auto found = report.names.find(id);
  return found == report.names.end() ? fmt::format("(lock {}, not in the report)", id)
                                     : found->second;
}

const contentionLock* findLock(const contentionReport& report, std::uint64_t id) {
  const auto found = std::find_if(report.locks.begin(), report.locks.end(),
                                  [id](const contentionLock& one) { return one.id == id; });
  return found == report.locks.end() ? nullptr : &*found;
}

std::uint64_t lengthOf(const contentionReport& report) {
  const std::uint64_t end = report.endedAt.value_or(report.writtenAt);
  return end - std::min(end, report.startedAt);
}

bool hasParks(const contentionReport& report) {
  return report.parks == kExact || report.parks == kEachPark;
}

bool countsEachPark(const contentionReport& report) {
  return report.parks == kEachPark;
}

longestBlock longestOf(const contentionReport& report, const contentionLock& lock) {
  if (lock.stillBlocked == 0) {
    return {lock.maxNanos, false};
  }
  // The longest of several is at least as long as their mean.
  std::uint64_t soFar = lock.stillBlockedNanos / lock.stillBlocked;
  for (const stuckLock& stuck : report.stuck) {
    if (stuck.lock == lock.id) {
      const std::uint64_t millis = report.writtenAt - std::min(report.writtenAt, stuck.sinceAt);
      soFar = std::max(soFar, std::min(millis * kNanosOfAMilli, lock.stillBlockedNanos));
    }
  }
  return {std::max(soFar, lock.maxNanos), soFar > lock.maxNanos};
}

bool holdsLocks(const contentionReport& report) {
  return !report.locks.empty() || !report.otherLocks.empty() || !report.stuck.empty() ||
         !report.deadlocks.empty();
}

void keepLocks(contentionReport& report, const std::function<bool(const std::string&)>& has) {
  const auto lacks = [&](const auto& one) { return !occursIn(report, one, has); };
  std::erase_if(report.stuck, lacks);
  std::erase_if(report.deadlocks, [&](const std::vector<deadlockedThread>& circle) {
    return std::none_of(circle.begin(), circle.end(), [&](const deadlockedThread& one) {
      return hasText(one.thread, has) || has(lockNameOf(report, one.waitsFor));
    });
  });
  std::erase_if(report.locks, lacks);
  std::erase_if(report.otherLocks, lacks);
  std::unordered_map<std::uint64_t, lockKind> kinds;
  for (const contentionLock& lock : report.locks) {
    kinds.emplace(lock.id, lock.kind);
  }
  for (contentionWindow& window : report.windows) {
    keepWindowLocks(window, kinds);
  }
  report.isFiltered = true;
}

}  // namespace viewer
