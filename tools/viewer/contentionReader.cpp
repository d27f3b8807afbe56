// The file's form as shapes, and what is checked once all of it was read.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <unordered_map>

#include "contentionReport.h"
#include "jsonReader.h"
#include "reportShapes.h"

namespace viewer {
namespace {

constexpr std::int64_t kVersion = 1;
constexpr std::array kKinds = {lockKind::monitor, lockKind::lock, lockKind::wait, lockKind::park};

void assignKind(void* target, std::string& value) {
  for (lockKind kind : kKinds) {
    if (value == nameOf(kind)) {
      *static_cast<lockKind*>(target) = kind;
      return;
    }
  }
  throw misfit(fmt::format("expected monitor, lock, wait or park, found \"{}\"", value));
}

const shape& kindShape() {
  static const shape result = {.expected = "a string", .text = assignKind};
  return result;
}

const shape& stackShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"id", count<&contentionStack::id>},
                  {"frames", objects<&contentionStack::frames, textElement>},
                  {"isCut", flag<&contentionStack::isCut>}}};
  return result;
}

const shape& pairShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"waiterThread", at<&contentionPair::waiterThread>},
                                           {"waiterStack", count<&contentionPair::waiterStack>},
                                           {"ownerThread", at<&contentionPair::ownerThread>},
                                           {"ownerStack", count<&contentionPair::ownerStack>},
                                           {"holdingFrame", count<&contentionPair::holdingFrame>},
                                           {"ownerNote", at<&contentionPair::ownerNote>},
                                           {"ownerWaitsFor", count<&contentionPair::ownerWaitsFor>},
                                           {"nanos", count<&contentionPair::nanos>},
                                           {"samples", count<&contentionPair::samples>}}};
  return result;
}

const shape& otherLockShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"class", at<&contentionLock::className>},
                  {"kind", object<&contentionLock::kind, kindShape>},
                  {"entries", count<&contentionLock::entries>},
                  {"blockedNanos", count<&contentionLock::blockedNanos>},
                  {"maxNanos", count<&contentionLock::maxNanos>},
                  {"firstAt", time<&contentionLock::firstAt>},
                  {"lastAt", time<&contentionLock::lastAt>},
                  {"histogram", objects<&contentionLock::histogram, countElement>},
                  {"stillBlocked", count<&contentionLock::stillBlocked>},
                  {"stillBlockedNanos", count<&contentionLock::stillBlockedNanos>},
                  {"pairs", objects<&contentionLock::pairs, pairShape>}}};
  return result;
}

const shape& lockShape() {
  static const shape result = [] {
    shape lock = otherLockShape();
    lock.members.insert(lock.members.end(), {{"id", count<&contentionLock::id>},
                                             {"identity", at<&contentionLock::identity>},
                                             {"field", at<&contentionLock::field>}});
    return lock;
  }();
  return result;
}

const shape& windowLockShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"id", count<&windowLock::id>},
                                           {"blockedNanos", count<&windowLock::blockedNanos>},
                                           {"entries", count<&windowLock::entries>}}};
  return result;
}

const shape& windowShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"startedAt", time<&contentionWindow::startedAt>},
                  {"endedAt", time<&contentionWindow::endedAt>},
                  {"blockedNanos", count<&contentionWindow::blockedNanos>},
                  {"entries", count<&contentionWindow::entries>},
                  {"waitNanos", count<&contentionWindow::waitNanos>},
                  {"waits", count<&contentionWindow::waits>},
                  {"locks", objects<&contentionWindow::locks, windowLockShape>}}};
  return result;
}

const shape& stuckThreadShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"thread", at<&stuckThread::thread>},
                                           {"sinceAt", time<&stuckThread::sinceAt>},
                                           {"stack", count<&stuckThread::stack>}}};
  return result;
}

// The first member that is met shows that there is an owner: null has none.
place ownerThread(void* owner) {
  static_cast<stuckOwner*>(owner)->isKnown = true;
  return at<&stuckOwner::thread>(owner);
}

const shape& stuckOwnerShape() {
  static const shape result = {.expected = "an object or null",
                               .nullable = true,
                               .members = {{"thread", ownerThread},
                                           {"stack", count<&stuckOwner::stack>},
                                           {"holdingFrame", count<&stuckOwner::holdingFrame>},
                                           {"waitsFor", count<&stuckOwner::waitsFor>}}};
  return result;
}

const shape& stuckShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"lock", count<&stuckLock::lock>},
                  {"sinceAt", time<&stuckLock::sinceAt>},
                  {"waiterCount", count<&stuckLock::waiterCount>},
                  {"waiters", objects<&stuckLock::waiters, stuckThreadShape>},
                  {"owner", object<&stuckLock::owner, stuckOwnerShape>},
                  {"ownerNote", at<&stuckLock::ownerNote>}}};
  return result;
}

const shape& deadlockedThreadShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"thread", at<&deadlockedThread::thread>},
                                           {"waitsFor", count<&deadlockedThread::waitsFor>}}};
  return result;
}

const shape& deadlockShape() {
  static const shape result = {.expected = "an array", .element = [](void* target) -> place {
                                 auto& circle =
                                     *static_cast<std::vector<deadlockedThread>*>(target);
                                 return {&deadlockedThreadShape(), &circle.emplace_back()};
                               }};
  return result;
}

const shape& settingsShape() {
  using settings = contentionSettings;
  static const shape result = {.expected = "an object",
                               .members = {{"locks", count<&settings::locks>},
                                           {"samplesPerSecond", count<&settings::samplesPerSecond>},
                                           {"budgetPercent", count<&settings::budgetPercent>},
                                           {"stuckMillis", count<&settings::stuckMillis>},
                                           {"windowMillis", count<&settings::windowMillis>}}};
  return result;
}

const shape& costShape() {
  using cost = contentionCost;
  static const shape result = {.expected = "an object",
                               .members = {{"ticks", count<&cost::ticks>},
                                           {"ticksLeftOut", count<&cost::ticksLeftOut>},
                                           {"safepoints", count<&cost::safepoints>},
                                           {"safepointNanos", count<&cost::safepointNanos>},
                                           {"handshakes", count<&cost::handshakes>},
                                           {"handshakeNanos", count<&cost::handshakeNanos>},
                                           {"processorNanos", count<&cost::processorNanos>}}};
  return result;
}

const shape& omissionsShape() {
  using omitted = contentionOmissions;
  static const shape result = {.expected = "an object",
                               .members = {{"startsNotSeen", count<&omitted::startsNotSeen>},
                                           {"blocksNotSampled", count<&omitted::blocksNotSampled>},
                                           {"locksNotSampled", count<&omitted::locksNotSampled>},
                                           {"ownersChanged", count<&omitted::ownersChanged>},
                                           {"otherLocks", count<&omitted::otherLocks>},
                                           {"classes", count<&omitted::classes>},
                                           {"pairs", count<&omitted::pairs>},
                                           {"pairNanos", count<&omitted::pairNanos>},
                                           {"stacks", count<&omitted::stacks>},
                                           {"windows", count<&omitted::windows>},
                                           {"windowLocks", count<&omitted::windowLocks>},
                                           {"stuck", count<&omitted::stuck>}}};
  return result;
}

const shape& reportShape() {
  using report = contentionReport;
  static const shape result = {
      .expected = "an object",
      .members = {{"report", kindOf<kContention>},
                  {"version", versionOf<kVersion>},
                  {"startedAt", time<&report::startedAt>},
                  {"writtenAt", time<&report::writtenAt>},
                  {"endedAt", time<&report::endedAt>},
                  {"settings", object<&report::settings, settingsShape>},
                  {"parks", at<&report::parks>},
                  {"locks", objects<&report::locks, lockShape>},
                  {"otherLocks", objects<&report::otherLocks, otherLockShape>},
                  {"windows", objects<&report::windows, windowShape>},
                  {"stacks", objects<&report::stacks, stackShape>},
                  {"stuck", objects<&report::stuck, stuckShape>},
                  {"deadlocks", objects<&report::deadlocks, deadlockShape>},
                  {"cost", object<&report::cost, costShape>},
                  {"omitted", object<&report::omitted, omissionsShape>}}};
  return result;
}

// Turns the ids of stacks into indexes.
class stackFinder {
 public:
  explicit stackFinder(const contentionReport& report) {
    for (std::size_t i = 0; i < report.stacks.size(); i++) {
      if (!indexes_.emplace(report.stacks[i].id, i).second) {
        throw inputError(fmt::format("{}: stacks: expected each id once, found {} again",
                                     report.source, report.stacks[i].id));
      }
    }
  }

  void find(std::optional<std::uint64_t>& stack) {
    if (!stack) {
      return;
    }
    const auto found = indexes_.find(*stack);
    missing_ += found == indexes_.end() ? 1 : 0;
    stack = found == indexes_.end() ? std::nullopt : std::optional(found->second);
  }

  void findAll(std::vector<contentionLock>& locks) {
    for (contentionLock& lock : locks) {
      for (contentionPair& pair : lock.pairs) {
        find(pair.waiterStack);
        find(pair.ownerStack);
      }
    }
  }

  std::size_t missing() const { return missing_; }

 private:
  std::unordered_map<std::uint64_t, std::uint64_t> indexes_;
  std::size_t missing_ = 0;
};

void nameLocks(contentionReport& report) {
  for (const contentionLock& lock : report.locks) {
    if (!report.names.emplace(lock.id, nameOf(lock)).second) {
      throw inputError(
          fmt::format("{}: locks: expected each id once, found {} again", report.source, lock.id));
    }
  }
}

template <typename element, typename keyOf>
void sortBy(std::vector<element>& all, keyOf key) {
  std::stable_sort(all.begin(), all.end(), [&](const element& left, const element& right) {
    return key(left) > key(right);
  });
}

void sortLocks(std::vector<contentionLock>& locks) {
  sortBy(locks, [](const contentionLock& one) { return std::pair(totalOf(one), one.entries); });
  for (contentionLock& lock : locks) {
    sortBy(lock.pairs, [](const contentionPair& one) { return std::pair(one.nanos, one.samples); });
  }
}

}  // namespace

contentionReport readContentionReport(byteSource bytes, const std::string& source,
                                      std::vector<std::string>& problems) {
  contentionReport report;
  report.source = source;
  readJson(std::move(bytes), source, {&reportShape(), &report});
  nameLocks(report);
  stackFinder stacks(report);
  stacks.findAll(report.locks);
  stacks.findAll(report.otherLocks);
  for (stuckLock& stuck : report.stuck) {
    stacks.find(stuck.owner.stack);
    for (stuckThread& waiter : stuck.waiters) {
      stacks.find(waiter.stack);
    }
  }
  if (stacks.missing() > 0) {
    problems.push_back(
        fmt::format("{}: stacks: expected those that the report refers to, did not "
                    "find {} of them",
                    source, stacks.missing()));
  }
  sortLocks(report.locks);
  sortLocks(report.otherLocks);
  sortBy(report.windows, [](const contentionWindow& one) {
    return std::numeric_limits<std::uint64_t>::max() - one.startedAt;
  });
  sortBy(report.stuck, [](const stuckLock& one) {
    return std::numeric_limits<std::uint64_t>::max() - one.sinceAt;
  });
  return report;
}

}  // namespace viewer
