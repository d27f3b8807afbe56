#include "pprofExports.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "allocationSites.h"
#include "contentionSites.h"
#include "exportParts.h"
#include "lockExports.h"
#include "pprof/profileWriter.h"

namespace viewer {
namespace {

using pprof::profileWriter;
using views = std::vector<std::string_view>;

constexpr std::size_t kMostBytes = std::size_t{1} << 30U;
constexpr pprof::valueType kContentions{"contentions", "count"};

// The times that reports of a profile are of, in milliseconds.
class span {
 public:
  void add(std::uint64_t start, std::uint64_t end) {
    start_ = std::min(start_, start);
    end_ = std::max(end_, end);
  }
  void writeTo(profileWriter& to) const {
    constexpr std::int64_t kNanos = 1'000'000;
    if (start_ <= end_) {
      to.setTime(static_cast<std::int64_t>(start_) * kNanos,
                 static_cast<std::int64_t>(end_ - start_) * kNanos);
    }
  }

 private:
  std::uint64_t start_ = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t end_ = 0;
};

// Of a time as in "2026-01-31T12:00:00.000Z".
std::optional<std::uint64_t> millisOf(const std::string& time) {
  constexpr std::uint64_t kMillis = 1000;
  std::tm utc{};
  if (::strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &utc) == nullptr) {
    return std::nullopt;
  }
  const std::time_t seconds = ::timegm(&utc);
  return seconds < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(seconds) * kMillis);
}

template <typename stacksOf>
views framesOf(const stacksOf& stacks, const std::optional<std::uint64_t>& stack) {
  if (!stack || stacks[*stack].frames.empty()) {
    return {kNoStack};
  }
  return {stacks[*stack].frames.begin(), stacks[*stack].frames.end()};
}

std::string_view textOf(const std::optional<std::string>& text) {
  return text ? std::string_view(*text) : std::string_view();
}

// The samples of one lock. How often threads came with each stack is estimated: reports have it for
// the lock alone.
void addLock(const contentionReport& report, const contentionLock& lock, bool isSum,
             profileWriter& to) {
  std::vector<std::uint64_t> nanos;
  for (const contentionPair& pair : lock.pairs) {
    nanos.push_back(pair.nanos);
  }
  const std::uint64_t sampled = sampledNanosOf(lock);
  nanos.push_back(totalOf(lock) > sampled ? totalOf(lock) - sampled : 0);
  if (nanos.back() == 0 && nanos.size() > 1) {
    nanos.pop_back();
  }
  const std::vector<std::uint64_t> entries = pprof::split(lock.entries, nanos);
  const std::string name = nameOf(lock) + (isSum ? " (others)" : "");
  const std::vector<pprof::label> labels = {{"lock", name},
                                            {"class", textOf(lock.className)},
                                            {"field", textOf(lock.field)},
                                            {"kind", nameOf(lock.kind)}};
  for (std::size_t i = 0; i < nanos.size(); ++i) {
    std::vector<pprof::label> own = labels;
    views frames = {kNoStack};
    if (i < lock.pairs.size()) {
      const contentionPair& pair = lock.pairs[i];
      frames = framesOf(report.stacks, pair.waiterStack);
      own.push_back({"thread", textOf(pair.waiterThread)});
      own.push_back({"owner", textOf(pair.ownerThread)});
      own.push_back({"owner_note", textOf(pair.ownerNote)});
    }
    to.add(frames, {entries[i], nanos[i]}, own);
  }
}

std::string contentionProfile(const std::vector<contentionReport>& reports) {
  profileWriter to({kContentions, {"delay", "nanoseconds"}}, kMostBytes);
  to.setPeriod(kContentions, 1);
  to.addComment(
      "Sums of a lock are exact. How they spread over its stacks is estimated from samples; "
      "contentions spread as the delay does.");
  span time;
  for (const contentionReport& report : reports) {
    time.add(report.startedAt, report.endedAt.value_or(report.writtenAt));
    for (const contentionLock& lock : report.locks) {
      if (isContention(lock.kind)) {
        addLock(report, lock, false, to);
      }
    }
    for (const contentionLock& lock : report.otherLocks) {
      if (isContention(lock.kind)) {
        addLock(report, lock, true, to);
      }
    }
  }
  time.writeTo(to);
  return to.finish();
}

std::string lockProfile(const profile& all) {
  profileWriter to({kContentions}, kMostBytes);
  to.setPeriod(kContentions, 1);
  to.addComment("Lock reports have neither the delay of a stack nor a time of day.");
  for (const lockReport& report : all.lockReports) {
    const std::string session = std::to_string(report.sessionId);
    forEachEntryStack(report, all.stacks,
                      [&](const lockEntry& lock, const std::string& thread,
                          const std::vector<std::string>& frames, std::uint64_t count) {
                        to.add(views(frames.rbegin(), frames.rend()), {count},
                               {{"lock", lock.name}, {"thread", thread}, {"session", session}});
                      });
  }
  return to.finish();
}

std::string allocationProfile(const std::vector<allocationSession>& sessions) {
  constexpr pprof::valueType kBytes{"space", "bytes"};
  constexpr std::string_view kOtherSites = "(sites that are not listed)";
  profileWriter to({{"alloc_space", "bytes"}, {"inuse_objects", "count"}, {"inuse_space", "bytes"}},
                   kMostBytes);
  to.addComment(
      "All figures are estimated from samples. In use is what has survived a garbage collection.");
  span time;
  std::uint64_t period = 0;
  for (const allocationSession& session : sessions) {
    if (!session.samples) {
      continue;
    }
    const allocationReport& report = *session.samples;
    time.add(report.startedAt, report.endedAt.value_or(report.writtenAt));
    period = std::max(period, report.intervalBytes);
    for (const allocationSite& site : report.sites) {
      to.add(framesOf(report.stacks, site.stack),
             {site.allocated.bytes, site.alive.objects, site.alive.bytes},
             {{"class", site.className}});
    }
    const otherAllocationSites& others = report.others;
    to.add({kOtherSites}, {others.allocated.bytes, others.alive.objects, others.alive.bytes}, {});
  }
  to.setPeriod(kBytes, static_cast<std::int64_t>(period));
  time.writeTo(to);
  return to.finish();
}

std::string exceptionProfile(const profile& all) {
  constexpr pprof::valueType kExceptions{"exceptions", "count"};
  profileWriter to({kExceptions}, kMostBytes);
  to.setPeriod(kExceptions, 1);
  to.addComment("Exceptions are counted by throwing site: a stack has this frame alone.");
  const exceptionCounts* const counts = countsOf(all);
  if (counts != nullptr) {
    const auto begin = millisOf(counts->begin);
    const auto end = millisOf(counts->end);
    span time;
    if (begin && end) {
      time.add(*begin, *end);
    }
    time.writeTo(to);
  } else {
    to.addComment("There are no counts: these are the exceptions that were recorded.");
  }
  for (const exceptionGroup& group : groupsOf(all, thrownIn::throwingSite)) {
    const std::string site = group.isBeyond ? placeOf(group) : group.site.value_or(kNoStack);
    to.add({site}, {group.known()}, {{"exception", group.className}});
  }
  return to.finish();
}

bool isIn(const profile& all, pprofKind what) {
  switch (what) {
    case pprofKind::contention:
      return !all.contentionReports.empty();
    case pprofKind::locks:
      return !all.lockReports.empty();
    case pprofKind::allocations:
      return std::any_of(all.allocations.begin(), all.allocations.end(),
                         [](const allocationSession& each) { return each.samples.has_value(); });
    case pprofKind::exceptions:
      return all.exceptions.has_value();
  }
  return false;
}

constexpr std::array kKinds = {pprofKind::contention, pprofKind::locks, pprofKind::allocations,
                               pprofKind::exceptions};

}  // namespace

pprofKind pprofKindIn(const profile& all) {
  const auto* const found =
      std::find_if(kKinds.begin(), kKinds.end(), [&](pprofKind each) { return isIn(all, each); });
  return found == kKinds.end() ? pprofKind::contention : *found;
}

bool hasOtherKinds(const profile& all, pprofKind what) {
  return std::any_of(kKinds.begin(), kKinds.end(),
                     [&](pprofKind each) { return each != what && isIn(all, each); });
}

void writePprof(const profile& all, pprofKind what, std::ostream& out) {
  switch (what) {
    case pprofKind::contention:
      out << contentionProfile(all.contentionReports);
      break;
    case pprofKind::locks:
      out << lockProfile(all);
      break;
    case pprofKind::allocations:
      out << allocationProfile(all.allocations);
      break;
    case pprofKind::exceptions:
      out << exceptionProfile(all);
      break;
  }
}

}  // namespace viewer
