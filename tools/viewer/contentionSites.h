// Where threads came to the locks of a contention report, and where the owners were meanwhile.
// Plain functions without state, callable on any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "contentionReport.h"

namespace viewer {

// The site of a stack that is not known.
inline constexpr const char* kUnknownStack = "(stack not known)";

// The innermost frame that is not the machinery of locks itself; none of a stack that is not known.
std::optional<std::string> siteOf(const contentionReport& report,
                                  const std::optional<std::uint64_t>& stack);

// "a.B.c" of "a.B.c(B.java:7)".
std::string methodOf(const std::string& frame);

// What an owner was seen doing.
struct ownerPlace {
  std::optional<std::string> site;  // where it took the lock when that is known, else where it was
  bool isHolding = false;           // whether `site` is where it took the lock
  std::optional<std::string> now;   // where it was, if that is another frame
};
ownerPlace ownerPlaceOf(const contentionReport& report, const std::optional<std::uint64_t>& stack,
                        const std::optional<std::uint64_t>& holdingFrame);

// Why the owner is not known, in plain words: "the lock does not keep its owner".
std::string ownerNoteText(const std::optional<std::string>& note);

// Whether all that was seen waiting there had nothing to do: threads of a pool between two tasks,
// those of the VM that wait for references, timers, and the agent's own.
bool isIdle(const contentionReport& report, const contentionLock& lock);

// Whether all that was seen waiting at a monitor or lock were threads of the agent.
bool isOwn(const contentionLock& lock);

// The pairs of a lock from one site to one site of owners.
struct sitePair {
  std::optional<std::string> waiterSite;
  ownerPlace owner;  // with what it was seen doing most
  std::optional<std::string> ownerNote;
  std::optional<std::uint64_t> ownerWaitsFor;
  std::uint64_t nanos = 0;
  std::uint64_t samples = 0;
  std::set<std::string> waiterThreads;
  std::set<std::string> ownerThreads;
};

// The most nanoseconds first.
std::vector<sitePair> sitePairsOf(const contentionReport& report, const contentionLock& lock);

// The time that the samples of a lock stand for.
std::uint64_t sampledNanosOf(const contentionLock& lock);

// What the owners `by` of the lock `from` wait for themselves, beginning with the lock `next`, and
// so on: each with its owner, as far as the samples show it. Ends with a lock that was there
// before.
struct chainLink {
  std::uint64_t lock = 0;
  std::optional<std::string> ownerThread;
  ownerPlace owner;
  bool isAgain = false;  // `from`, or a lock that is in the chain before
};
std::vector<chainLink> chainOf(const contentionReport& report,
                               const std::optional<std::uint64_t>& from,
                               const std::set<std::string>& by, std::uint64_t next);

// Locks of a class and kind, both those in `locks` and in `otherLocks`.
struct lockClassSum {
  std::string name;
  lockKind kind = lockKind::monitor;
  std::size_t locks = 0;   // listed separately
  bool hasOthers = false;  // and others that are not
  std::uint64_t entries = 0;
  std::uint64_t nanos = 0;  // of blocks that have ended, and of those that have not
  std::uint64_t stillBlocked = 0;
  longestBlock longest;
};

// Over locks that `wanted` accepts, the most time first.
std::vector<lockClassSum> lockClassesOf(const contentionReport& report,
                                        const std::function<bool(const contentionLock&)>& wanted);

// Time that samples stand for, at one site or of one thread, over all monitors and locks.
struct sampledSum {
  std::string name;
  std::uint64_t blockedNanos = 0;   // as a waiter
  std::uint64_t blockingNanos = 0;  // as the owner
  std::uint64_t samples = 0;
  std::set<std::string> locks;
  std::set<std::string> threads;  // of a site
};

// The sites of waiters by blocked time; those of owners by the time that they kept others blocked;
// threads by both. What is not known has a name in brackets that tells why.
std::vector<sampledSum> waiterSitesOf(const contentionReport& report);
std::vector<sampledSum> ownerSitesOf(const contentionReport& report);
std::vector<sampledSum> contentionThreadsOf(const contentionReport& report);

}  // namespace viewer
