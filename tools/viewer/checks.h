// Limits that a run has to keep, for automatic builds. Plain functions without state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "profile.h"

namespace viewer {

// Patterns of names are as matches() takes them.
struct blockedLimit {
  std::string lockClass;
  double seconds;  // of each lock of such a class
};

struct survivorLimit {
  std::string className;
  std::uint64_t objects;
  std::uint64_t collections;  // that an object has outlived to be counted
};

struct checkedLimits {
  std::vector<blockedLimit> blocked = {};
  std::vector<survivorLimit> survivors = {};
  std::vector<std::string> exceptions = {};  // classes of which there must be no record

  bool empty() const { return blocked.empty() && survivors.empty() && exceptions.empty(); }
};

// "PATTERN=SECONDS" and "PATTERN=OBJECTS@COLLECTIONS" ("PATTERN=OBJECTS" for those that have
// outlived any), "PATTERN". Throw inputError for a text of another form.
blockedLimit parseBlockedLimit(const std::string& text);
survivorLimit parseSurvivorLimit(const std::string& text);
std::string parseExceptionLimit(const std::string& text);

// What breaks the limits, one line each; none when all are kept. A limit for which there is no
// report at all is broken, and so is one on exceptions of which records were dropped: it was not
// checked.
//
// A memory report does not say how many collections had finished at its end. The newest generation
// that it has counts as one that has outlived one collection, so an object has outlived at least
// as many as is taken here.
std::vector<std::string> brokenLimits(const profile& all, const checkedLimits& limits);

}  // namespace viewer
