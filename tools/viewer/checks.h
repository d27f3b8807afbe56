// Limits that a run has to keep, for automatic builds. Plain functions without state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "allocationChecks.h"
#include "contentionChecks.h"
#include "profile.h"
#include "verdict.h"

namespace viewer {

// Patterns of names are as matches() takes them.
struct blockedLimit {
  std::string lockClass;
  double seconds;  // of each lock of these classes
};

struct survivorLimit {
  std::string className;
  std::uint64_t objects;
  std::uint64_t collections;  // that an object has outlived to be counted
};

struct checkedLimits {
  std::vector<blockedLimit> blocked = {};
  std::vector<contentionLimit> contention = {};
  bool noDeadlock = false;
  std::vector<allocationLimit> growth = {};
  std::vector<allocationLimit> alive = {};
  std::vector<survivorLimit> survivors = {};
  std::vector<std::string> exceptions = {};  // classes of which none may be thrown

  bool empty() const {
    return blocked.empty() && contention.empty() && !noDeadlock && growth.empty() &&
           alive.empty() && survivors.empty() && exceptions.empty();
  }
};

// "PATTERN=SECONDS", "PATTERN=MILLISECONDS" and "PATTERN=OBJECTS@COLLECTIONS" ("PATTERN=OBJECTS"
// for those that have outlived any), "PATTERN". Throw inputError for a text of another form.
blockedLimit parseBlockedLimit(const std::string& text);
contentionLimit parseContentionLimit(const std::string& text);
survivorLimit parseSurvivorLimit(const std::string& text);
std::string parseExceptionLimit(const std::string& text);

// Checks the run of one JVM. A limit holds only where the run covers it: it is broken, too, when
// what it speaks of was not recorded, or not all of it (gaps.h).
//
// A memory report does not say how many collections had finished at its end. The newest generation
// that it has counts as one that has outlived one collection, so an object has outlived at least
// as many as is taken here.
verdict check(const profile& all, const checkedLimits& limits);

}  // namespace viewer
