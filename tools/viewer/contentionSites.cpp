#include "contentionSites.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <tuple>

#include "ownNames.h"

namespace viewer {
namespace {

// Frames of locks themselves, and of how threads are parked.
constexpr std::array<std::string_view, 14> kMachinery = {
    "java.util.concurrent.locks.",
    "java.util.concurrent.Semaphore.",
    "java.util.concurrent.Semaphore$",
    "java.util.concurrent.CountDownLatch.",
    "java.util.concurrent.ForkJoinPool.managed",
    "java.util.concurrent.ForkJoinPool.unmanaged",
    "java.util.concurrent.ForkJoinPool.compensated",
    "java.lang.Object.wait",
    "java.lang.VirtualThread.",
    "java.lang.System$2.park",
    "jdk.internal.misc.Unsafe.",
    "jdk.internal.misc.VirtualThreads.",
    "jdk.internal.vm.",
    "sun.misc.Unsafe."};

// Frames of threads that wait for something to do.
constexpr std::array<std::string_view, 7> kIdle = {
    "java.lang.ref.ReferenceQueue.",
    "java.lang.ref.NativeReferenceQueue.",
    "java.lang.ref.Reference.waitForReferencePendingList",
    "java.util.TimerThread.mainLoop",
    "java.util.concurrent.ThreadPoolExecutor.getTask",
    "java.util.concurrent.ForkJoinPool.awaitWork",
    kOwnPackage};

constexpr std::array<std::string_view, 2> kIdleClasses = {
    "java.lang.ref.ReferenceQueue$Lock", "java.lang.ref.NativeReferenceQueue$Lock"};

template <typename names>
bool beginsWithAny(std::string_view text, const names& all) {
  return std::any_of(all.begin(), all.end(),
                     [&](std::string_view one) { return text.starts_with(one); });
}

// Frames of a known stack; null of another one, or an empty one.
const std::vector<std::string>* framesOf(const contentionReport& report,
                                         const std::optional<std::uint64_t>& stack) {
  const bool isThere = stack && !report.stacks[*stack].frames.empty();
  return isThere ? &report.stacks[*stack].frames : nullptr;
}

bool isIdle(const contentionReport& report, const contentionPair& pair) {
  const std::vector<std::string>* frames = framesOf(report, pair.waiterStack);
  return frames != nullptr && std::any_of(frames->begin(), frames->end(), [](const auto& frame) {
           return beginsWithAny(frame, kIdle);
         });
}

template <typename sum>
std::vector<sum> ranked(std::map<std::string, sum> sums, std::uint64_t sum::*by) {
  std::vector<sum> result;
  result.reserve(sums.size());
  for (auto& [name, one] : sums) {
    result.push_back(std::move(one));
  }
  std::stable_sort(result.begin(), result.end(),
                   [&](const sum& left, const sum& right) { return left.*by > right.*by; });
  return result;
}

// Calls `visit(lock, pair)` for the pairs of monitors and locks.
template <typename visitor>
void forEachPair(const contentionReport& report, visitor visit) {
  for (const std::vector<contentionLock>* locks : {&report.locks, &report.otherLocks}) {
    for (const contentionLock& lock : *locks) {
      for (const contentionPair& pair : lock.pairs) {
        if (isContention(lock.kind)) {
          visit(lock, pair);
        }
      }
    }
  }
}

bool hasOwner(const contentionPair& pair) {
  return pair.ownerThread || pair.ownerStack;
}

std::string siteName(const std::optional<std::string>& site) {
  return site.value_or(kUnknownStack);
}

std::string threadName(const std::optional<std::string>& thread) {
  return !thread ? "(thread not known)" : thread->empty() ? "(thread without a name)" : *thread;
}

// The pair of a waiter in which most time shows what it waits for.
const contentionPair* topPair(const contentionLock& lock, const std::set<std::string>& waiters) {
  const auto found =
      std::find_if(lock.pairs.begin(), lock.pairs.end(), [&](const contentionPair& pair) {
        return pair.waiterThread && waiters.contains(*pair.waiterThread) && hasOwner(pair);
      });
  return found == lock.pairs.end() ? nullptr : &*found;
}

}  // namespace

std::optional<std::string> siteOf(const contentionReport& report,
                                  const std::optional<std::uint64_t>& stack) {
  const std::vector<std::string>* frames = framesOf(report, stack);
  if (frames == nullptr) {
    return {};
  }
  const auto found = std::find_if_not(frames->begin(), frames->end(), [](const auto& frame) {
    return beginsWithAny(frame, kMachinery);
  });
  return found == frames->end() ? frames->front() : *found;
}

std::string methodOf(const std::string& frame) {
  return frame.substr(0, frame.find('('));
}

ownerPlace ownerPlaceOf(const contentionReport& report, const std::optional<std::uint64_t>& stack,
                        const std::optional<std::uint64_t>& holdingFrame) {
  const std::vector<std::string>* frames = framesOf(report, stack);
  const std::optional<std::string> now = siteOf(report, stack);
  if (frames == nullptr || !holdingFrame || *holdingFrame >= frames->size()) {
    return {now, false, {}};
  }
  const std::string& holding = (*frames)[*holdingFrame];
  return {holding, true, holding == now ? std::nullopt : now};
}

std::string ownerNoteText(const std::optional<std::string>& note) {
  if (!note) {
    return "the owner is not known";
  }
  static const std::map<std::string, const char*, std::less<>> texts = {
      {"virtual", "the owner is a virtual thread, which the VM does not name"},
      {"handedOver", "held by nobody: a fair lock that was promised to the next thread"},
      {"notKept", "the owner is not known: locks of this kind do not record it"},
      {"changed", "the owner is not known: it had released the lock, or the JVM did not report it"},
      {"none", "held by nobody at that moment"}};
  const auto found = texts.find(*note);
  return found == texts.end() ? "the owner is not known: " + *note : found->second;
}

bool isIdle(const contentionReport& report, const contentionLock& lock) {
  if (isContention(lock.kind)) {
    return false;
  }
  if (lock.className && (lock.className->starts_with(kOwnPackage) ||
                         std::find(kIdleClasses.begin(), kIdleClasses.end(), *lock.className) !=
                             kIdleClasses.end())) {
    return true;
  }
  return !lock.pairs.empty() &&
         std::all_of(lock.pairs.begin(), lock.pairs.end(),
                     [&](const contentionPair& pair) { return isIdle(report, pair); });
}

bool isOwn(const contentionLock& lock) {
  return isContention(lock.kind) && !lock.pairs.empty() &&
         std::all_of(lock.pairs.begin(), lock.pairs.end(), [](const contentionPair& pair) {
           return pair.waiterThread && pair.waiterThread->starts_with(kOwnThreads);
         });
}

std::vector<sitePair> sitePairsOf(const contentionReport& report, const contentionLock& lock) {
  using key = std::tuple<std::optional<std::string>, std::optional<std::string>, bool,
                         std::optional<std::string>, std::optional<std::uint64_t>>;
  std::map<key, sitePair> sums;
  std::map<key, std::map<std::string, std::uint64_t>> seen;  // what owners did, by time
  for (const contentionPair& pair : lock.pairs) {
    const std::optional<std::string> waiter = siteOf(report, pair.waiterStack);
    const ownerPlace owner = ownerPlaceOf(report, pair.ownerStack, pair.holdingFrame);
    const key of = {waiter, owner.site, owner.isHolding, pair.ownerNote, pair.ownerWaitsFor};
    sitePair& sum = sums[of];
    sum.waiterSite = waiter;
    sum.owner.site = owner.site;
    sum.owner.isHolding = owner.isHolding;
    sum.ownerNote = pair.ownerNote;
    sum.ownerWaitsFor = pair.ownerWaitsFor;
    sum.nanos = plus(sum.nanos, pair.nanos);
    sum.samples = plus(sum.samples, pair.samples);
    sum.waiterThreads.insert(threadName(pair.waiterThread));
    if (hasOwner(pair)) {
      sum.ownerThreads.insert(threadName(pair.ownerThread));
    }
    std::uint64_t& nanos = seen[of][owner.now.value_or("")];
    nanos = plus(nanos, pair.nanos);
  }
  std::vector<sitePair> result;
  for (auto& [of, sum] : sums) {
    const auto& places = seen[of];
    const auto most = std::max_element(
        places.begin(), places.end(),
        [](const auto& left, const auto& right) { return left.second < right.second; });
    sum.owner.now = most->first.empty() ? std::nullopt : std::optional(most->first);
    result.push_back(std::move(sum));
  }
  std::stable_sort(result.begin(), result.end(), [](const sitePair& left, const sitePair& right) {
    return left.nanos > right.nanos;
  });
  return result;
}

std::uint64_t sampledNanosOf(const contentionLock& lock) {
  std::uint64_t sum = 0;
  for (const contentionPair& pair : lock.pairs) {
    sum = plus(sum, pair.nanos);
  }
  return sum;
}

std::vector<chainLink> chainOf(const contentionReport& report,
                               const std::optional<std::uint64_t>& from,
                               const std::set<std::string>& by, std::uint64_t next) {
  std::vector<chainLink> result;
  std::set<std::uint64_t> met;
  if (from) {
    met.insert(*from);
  }
  std::set<std::string> waiters = by;
  for (bool goesOn = true; goesOn;) {
    chainLink& link = result.emplace_back();
    link.lock = next;
    link.isAgain = !met.insert(next).second;
    const contentionLock* lock = link.isAgain ? nullptr : findLock(report, next);
    const contentionPair* pair = lock == nullptr ? nullptr : topPair(*lock, waiters);
    goesOn = pair != nullptr && pair->ownerWaitsFor.has_value();
    if (pair != nullptr) {
      link.ownerThread = threadName(pair->ownerThread);
      link.owner = ownerPlaceOf(report, pair->ownerStack, pair->holdingFrame);
      waiters = {*link.ownerThread};
      next = pair->ownerWaitsFor.value_or(next);
    }
  }
  return result;
}

std::vector<lockClassSum> lockClassesOf(const contentionReport& report,
                                        const std::function<bool(const contentionLock&)>& wanted) {
  std::map<std::string, lockClassSum> sums;
  const auto add = [&](const contentionLock& lock, bool isOther) {
    if (!wanted(lock)) {
      return;
    }
    lockClassSum& sum = sums[classNameOf(lock) + ' ' + nameOf(lock.kind)];
    sum.name = classNameOf(lock);
    sum.kind = lock.kind;
    sum.locks += isOther ? 0 : 1;
    sum.hasOthers = sum.hasOthers || isOther;
    sum.entries = plus(sum.entries, lock.entries);
    sum.nanos = plus(sum.nanos, totalOf(lock));
    sum.stillBlocked = plus(sum.stillBlocked, lock.stillBlocked);
    if (const longestBlock longest = longestOf(report, lock); longest.nanos > sum.longest.nanos) {
      sum.longest = longest;
    }
  };
  for (const contentionLock& lock : report.locks) {
    add(lock, false);
  }
  for (const contentionLock& lock : report.otherLocks) {
    add(lock, true);
  }
  return ranked(std::move(sums), &lockClassSum::nanos);
}

std::vector<sampledSum> waiterSitesOf(const contentionReport& report) {
  std::map<std::string, sampledSum> sums;
  forEachPair(report, [&](const contentionLock& lock, const contentionPair& pair) {
    const std::string name = siteName(siteOf(report, pair.waiterStack));
    sampledSum& sum = sums[name];
    sum.name = name;
    sum.blockedNanos = plus(sum.blockedNanos, pair.nanos);
    sum.samples = plus(sum.samples, pair.samples);
    sum.locks.insert(nameOf(lock));
    sum.threads.insert(threadName(pair.waiterThread));
  });
  return ranked(std::move(sums), &sampledSum::blockedNanos);
}

std::vector<sampledSum> ownerSitesOf(const contentionReport& report) {
  std::map<std::string, sampledSum> sums;
  forEachPair(report, [&](const contentionLock& lock, const contentionPair& pair) {
    const std::string name =
        hasOwner(pair) ? siteName(ownerPlaceOf(report, pair.ownerStack, pair.holdingFrame).site)
                       : '(' + ownerNoteText(pair.ownerNote) + ')';
    sampledSum& sum = sums[name];
    sum.name = name;
    sum.blockingNanos = plus(sum.blockingNanos, pair.nanos);
    sum.samples = plus(sum.samples, pair.samples);
    sum.locks.insert(nameOf(lock));
    if (hasOwner(pair)) {
      sum.threads.insert(threadName(pair.ownerThread));
    }
  });
  return ranked(std::move(sums), &sampledSum::blockingNanos);
}

std::vector<sampledSum> contentionThreadsOf(const contentionReport& report) {
  std::map<std::string, sampledSum> sums;
  const auto add = [&](const std::string& name, const contentionLock& lock,
                       const contentionPair& pair, std::uint64_t sampledSum::*nanos) {
    sampledSum& sum = sums[name];
    sum.name = name;
    sum.*nanos = plus(sum.*nanos, pair.nanos);
    sum.samples = plus(sum.samples, pair.samples);
    sum.locks.insert(nameOf(lock));
  };
  forEachPair(report, [&](const contentionLock& lock, const contentionPair& pair) {
    add(threadName(pair.waiterThread), lock, pair, &sampledSum::blockedNanos);
    if (hasOwner(pair)) {
      add(threadName(pair.ownerThread), lock, pair, &sampledSum::blockingNanos);
    }
  });
  return ranked(std::move(sums), &sampledSum::blockedNanos);
}

}  // namespace viewer
