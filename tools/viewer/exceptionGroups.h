// Exceptions by class and place: what was recorded of them, beside what the agent has counted.
//
// The agent counts by the class and the true throwing site (class, method, line), and a record has
// that site as its top frame: by it they are joined. The line may be missing in a record (-1); the
// counts say of which sites, or else it is that of the class in the method, if there is one alone.
//
// A group may be shown at another place, the first one outside the JDK. All that is counted of a
// throwing site belongs to one group, so that sums are exact. Where the records of a site lead to
// several such places, nobody knows which part of the count belongs to which: the group has them
// all. Sites are one group when they have the same class and the same places.
//
// Plain functions without state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "exceptionLog.h"

namespace viewer {

// The place by which exceptions are grouped and shown.
enum class thrownIn { outsideJdk, throwingSite };

struct exceptionGroup {
  std::string className;
  std::optional<std::string> site;         // the place that is shown; none without frames
  std::size_t otherSites = 0;              // further such places that records of the group have
  std::optional<throwCounts> counts = {};  // by the agent; none where it has not counted
  std::vector<std::string> throwing = {};  // the throwing sites that are counted
  bool isOfAgent = false;                  // each place that is known is in a class of the agent
  bool isIndirect = false;   // thrown below the place that is shown, perhaps elsewhere, too
  bool isBeyond = false;     // of sites that the agent had no room for, so that none is known
  std::uint64_t caught = 0;  // of the records
  std::uint64_t uncaught = 0;
  std::string first = "";  // the times of the first and the last
  std::string last = "";
  std::vector<std::size_t> records = {};  // indexes into the log, in ascending order

  // How many were thrown, as far as that is known.
  std::uint64_t known() const { return counts ? counts->thrown : records.size(); }
};

// The class of exceptions that the agent had no room for at all.
constexpr const char* kOtherClasses = "(further classes)";

// The place of a group in words.
std::string placeOf(const exceptionGroup& group);

// Whether exceptions of the agent's own are all that is known of the group. Not when they are
// thrown in the JDK and fewer than half have a record: nobody knows who called it for the others.
bool isOwn(const exceptionGroup& group);

// The group of which the most were thrown first.
std::vector<exceptionGroup> groupsOf(const exceptionLog& log,
                                     thrownIn where = thrownIn::outsideJdk);

}  // namespace viewer
