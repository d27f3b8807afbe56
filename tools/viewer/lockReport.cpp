#include "lockReport.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>
#include <unordered_set>

#include "jsonReader.h"
#include "stackTable.h"

namespace viewer {

template <>
const shape& shapeOf<stackUse>();
template <>
const shape& shapeOf<std::vector<stackUse>>();
template <>
const shape& shapeOf<threadEntry>();
template <>
const shape& shapeOf<std::vector<threadEntry>>();
template <>
const shape& shapeOf<std::vector<std::uint32_t>>();
template <>
const shape& shapeOf<lockEntry>();
template <>
const shape& shapeOf<std::vector<lockEntry>>();
template <>
const shape& shapeOf<blockerEntry>();
template <>
const shape& shapeOf<std::vector<blockerEntry>>();

namespace {

// The name of a member holds the true hash; "hashcode" stays 0 for a stack that was seen once.
place addedStack(void* target, std::string& name) {
  const auto hash = parseHash(name);
  if (!hash) {
    throw misfit("expected a stack's hash in decimal as the member's name");
  }
  stackUse& added = static_cast<std::vector<stackUse>*>(target)->emplace_back();
  added.hash = *hash;
  return {&shapeOf<stackUse>(), &added};
}

// The member's name names the lock: "id" is empty for a lock that was met once and never updated.
place addedLock(void* target, std::string& name) {
  lockEntry& added = static_cast<std::vector<lockEntry>*>(target)->emplace_back();
  added.name = std::move(name);
  return {&shapeOf<lockEntry>(), &added};
}

template <typename type>
place added(void* target, std::string&) {
  return appended<type>(target);
}

// Seconds, which no session is long enough for to wrap as counts do.
void assignSeconds(void* target, std::int64_t value) {
  if (value < 0) {
    throw misfit("expected a time of 0 or more seconds, found " + std::to_string(value));
  }
  *static_cast<std::uint32_t*>(target) = static_cast<std::uint32_t>(value);
}

template <auto member>
place seconds(void* owner) {
  static const shape time = {.expected = "a whole number", .number = assignSeconds};
  return {&time, at<member>(owner).target};
}

template <std::int64_t least>
void assignCount(void* target, std::int64_t value) {
  if (value < least) {
    throw misfit("expected a number of " + std::to_string(least) + " or more, found " +
                 std::to_string(value));
  }
  *static_cast<std::int64_t*>(target) = value;
}

template <auto member, std::int64_t least>
place count(void* owner) {
  static const shape number = {.expected = "a whole number",
                               .number = assignCount<least>,
                               .least = std::numeric_limits<std::int64_t>::min(),
                               .most = std::numeric_limits<std::int64_t>::max()};
  return {&number, at<member>(owner).target};
}

// A text that has to be there and is not used.
place droppedText(void*) {
  static const shape text = {.expected = "a string", .text = [](void*, std::string&) {}};
  return {&text, nullptr};
}

template <place (*memberPlace)(void*, std::string&)>
const shape& membersShape() {
  static const shape result = {.expected = "an object", .member = memberPlace};
  return result;
}

// Its place, whichever thread it is of, is found when all has been read.
place countedStack(void* target, std::string& name) {
  lockReport& report = *static_cast<lockReport*>(target);
  report.distinctStacks++;
  if (const auto hash = parseHash(name)) {
    report.stacksOfNoLock.push_back(*hash);
  }
  return droppedText(nullptr);
}

place countedStacks(void* report) {
  return {&membersShape<countedStack>(), report};
}

// The elements in order of their keys, the largest first, each name once: the last one read.
template <typename entry, typename keyOf>
void rank(std::vector<entry>& entries, keyOf key) {
  std::unordered_set<std::string> met;
  std::vector<entry> kept;
  std::for_each(entries.rbegin(), entries.rend(), [&](entry& one) {
    if (met.insert(one.name).second) {
      kept.push_back(std::move(one));
    }
  });
  std::reverse(kept.begin(), kept.end());
  std::stable_sort(kept.begin(), kept.end(),
                   [&](const entry& left, const entry& right) { return key(left) > key(right); });
  entries = std::move(kept);
}

auto blockingWeight(const blockerEntry& one) {
  return std::tuple(one.blockingSeconds, one.timesOwner);
}

}  // namespace

template <>
const shape& shapeOf<stackUse>() {
  static const shape result = {.expected = "an object",
                               .members = {{"count", at<&stackUse::count>}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<stackUse>>() {
  return membersShape<addedStack>();
}

template <>
const shape& shapeOf<threadEntry>() {
  static const shape result = {
      .expected = "an object",
      .members = {{"name", at<&threadEntry::name>},
                  {"count", at<&threadEntry::entries>},
                  {"totalBlockTime", seconds<&threadEntry::blockedSeconds>},
                  {"totalWaitTime", seconds<&threadEntry::waitedSeconds>},
                  {"stacktracebean", at<&threadEntry::stacks>}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<threadEntry>>() {
  return membersShape<added<threadEntry>>();
}

template <>
const shape& shapeOf<std::vector<std::uint32_t>>() {
  static const shape result = {.expected = "an array", .element = appended<std::uint32_t>};
  return result;
}

template <>
const shape& shapeOf<lockEntry>() {
  static const shape result = {.expected = "an object",
                               .members = {{"id", droppedText},
                                           {"count", at<&lockEntry::entries>},
                                           {"graph", at<&lockEntry::entriesPerMinute>},
                                           {"totalBlockTime", seconds<&lockEntry::blockedSeconds>},
                                           {"totalWaitTime", seconds<&lockEntry::waitedSeconds>},
                                           {"threadbean", at<&lockEntry::threads>}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<lockEntry>>() {
  return membersShape<addedLock>();
}

template <>
const shape& shapeOf<blockerEntry>() {
  static const shape result = {
      .expected = "an object",
      .members = {{"name", at<&blockerEntry::name>},
                  {"blockingCount", at<&blockerEntry::timesOwner>},
                  {"blockCount", at<&blockerEntry::blockingPeriods>},
                  {"totalBlockingTime", seconds<&blockerEntry::blockingSeconds>},
                  {"stacktracebean", at<&blockerEntry::stacks>}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<blockerEntry>>() {
  return membersShape<added<blockerEntry>>();
}

namespace {

place readLookups(void* report) {
  static const shape result = {.expected = "an object",
                               .members = {{"perSecond", count<&ownerLookups::perSecond, 1>},
                                           {"made", count<&ownerLookups::made, 0>},
                                           {"leftOut", count<&ownerLookups::leftOut, 0>}}};
  return {&result, &static_cast<lockReport*>(report)->lookups.emplace()};
}

const shape& reportShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"sessionname", at<&lockReport::sessionName>},
                                           {"sessionid", at<&lockReport::sessionId>},
                                           {"lockmap", at<&lockReport::locks>},
                                           {"stacktracemap", countedStacks},
                                           {"blockingThreads", at<&lockReport::blockers>},
                                           {"ownerLookups", readLookups, false}}};
  return result;
}

// As if the lookups skipped were like those made. Entries that shared one were found on top of
// those, but an entry has one owner, so that all owners together come to no more than the entries.
double ownerScaleOf(const lockReport& report) {
  double found = 0;
  for (const blockerEntry& owner : report.blockers) {
    found += owner.timesOwner;
  }
  if (!ownersAreSampled(report) || report.lookups->made == 0 || found == 0) {
    return 1;
  }
  const auto made = static_cast<double>(report.lookups->made);
  const double scale = (made + static_cast<double>(report.lookups->leftOut)) / made;
  return std::max(1.0, std::min(scale, static_cast<double>(totalsOf(report).entries) / found));
}

void dropStacksOfLocks(lockReport& report) {
  std::unordered_set<std::uint64_t> ofLocks;
  for (const lockEntry& lock : report.locks) {
    for (const threadEntry& thread : lock.threads) {
      for (const stackUse& use : thread.stacks) {
        ofLocks.insert(use.hash);
      }
    }
  }
  std::erase_if(report.stacksOfNoLock,
                [&](std::uint64_t hash) { return !ofLocks.insert(hash).second; });
}

}  // namespace

lockReport readLockReport(byteSource bytes, const std::string& source) {
  lockReport report;
  report.source = source;
  readJson(std::move(bytes), source, {&reportShape(), &report});
  rank(report.locks, weight<lockEntry>);
  rank(report.blockers, blockingWeight);
  for (lockEntry& lock : report.locks) {
    rank(lock.threads, weight<threadEntry>);
  }
  report.ownerScale = ownerScaleOf(report);
  dropStacksOfLocks(report);
  return report;
}

lockTotals totalsOf(const lockReport& report) {
  lockTotals totals;
  for (const lockEntry& lock : report.locks) {
    totals.entries += lock.entries;
    totals.blockedSeconds += lock.blockedSeconds;
    totals.waitedSeconds += lock.waitedSeconds;
  }
  return totals;
}

bool ownersAreSampled(const lockReport& report) {
  return report.lookups && report.lookups->leftOut > 0;
}

std::uint64_t estimatedTimesOwner(const lockReport& report, const blockerEntry& owner) {
  return static_cast<std::uint64_t>(std::round(owner.timesOwner * report.ownerScale));
}

std::vector<threadSum> threadsOf(const lockReport& report) {
  std::map<std::string, threadSum> sums;
  for (const lockEntry& lock : report.locks) {
    for (const threadEntry& thread : lock.threads) {
      threadSum& sum = sums[thread.name];
      sum.locks++;
      sum.entries += thread.entries;
      sum.blockedSeconds += thread.blockedSeconds;
      sum.waitedSeconds += thread.waitedSeconds;
    }
  }
  for (const blockerEntry& blocker : report.blockers) {
    sums[blocker.name].asOwner = {
        blocker.name, blocker.timesOwner, blocker.blockingPeriods, blocker.blockingSeconds, {}};
  }
  std::vector<threadSum> result;
  for (auto& [name, sum] : sums) {
    sum.name = name;
    result.push_back(std::move(sum));
  }
  rank(result, [](const threadSum& one) {
    return std::tuple_cat(weight(one), blockingWeight(one.asOwner));
  });
  return result;
}

std::string classOf(const std::string& lockName) {
  return lockName.substr(0, lockName.rfind('@'));
}

std::string identityOf(const std::string& lockName) {
  const std::size_t separator = lockName.rfind('@');
  return separator == lockName.npos ? "" : lockName.substr(separator + 1);
}

}  // namespace viewer
