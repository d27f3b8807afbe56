// What a run comes to by names that mean the same in other runs: classes and methods, without
// identities and line numbers. Plain functions without state, callable on any thread.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <string>

#include "profile.h"

namespace viewer {

// What a sum is of.
struct sumKey {
  std::string name;  // a class, a static field, a method
  std::string site;  // the method, or the place in the source; empty where `name` says all

  auto operator<=>(const sumKey&) const = default;
  bool operator==(const sumKey&) const = default;
};

// "a.B in c.D.e".
std::string textOf(const sumKey& key);

using sums = std::map<sumKey, std::uint64_t>;

// Summed over the sessions of a run. Nanoseconds are those of blocks that have ended and of those
// that have not.
sums contentionByClass(const profile& all);  // monitors and locks, nanoseconds
sums contentionBySite(
    const profile& all);  // class and method that came there; what samples stand for
sums blockedByClass(const profile& all);   // lock sessions, seconds
sums entriesBySite(const profile& all);    // lock sessions; the method alone
sums thrownByOrigin(const profile& all);   // class and throwing site, as the agent counted
sums recordsByOrigin(const profile& all);  // the same, by records
sums growthByClass(const profile& all);    // bytes a minute
sums aliveByClass(const profile& all);     // bytes
sums aliveBySite(const profile& all);      // bytes; the method alone
sums bytesByClass(const profile& all);     // of memory sessions

// How many sessions of a kind a run has.
std::size_t contentionSessions(const profile& all);
std::size_t sampledSessions(const profile& all);  // of contention, with samples
std::size_t lockSessions(const profile& all);
std::size_t allocationSessions(const profile& all);
std::size_t growthSessions(const profile& all);
std::size_t memorySessions(const profile& all);

// The sums of one kind, as they are added up over runs.
struct sumKind {
  const char* name;     // "contention sites"
  const char* what;     // "Contention by class and site"
  const char* measure;  // "blocked nanoseconds"
  bool isEstimated;     // stands for what samples showed
  sums (*of)(const profile& all);
  std::size_t (*sessionsOf)(const profile& all);  // 0: the run does not have them
};

// Exceptions are those thrown where the agent has counted, else they are records.
const std::array<sumKind, 10>& sumKinds();

}  // namespace viewer
