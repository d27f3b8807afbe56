// The limits on contention reports. Plain functions without state.
#pragma once

#include <string>

#include "profile.h"
#include "verdict.h"

namespace viewer {

// The pattern of names is as matches() takes it.
struct contentionLimit {
  std::string lockClass;
  double millis;  // of each monitor and lock of these classes, with blocks that have not ended
};

// A limit is for each single lock. Of those that the report does not tell apart it holds only if
// their sum keeps it too, together with the largest lock of their class.
void checkContention(const profile& all, const contentionLimit& limit, verdict& found);

void checkDeadlocks(const profile& all, verdict& found);

}  // namespace viewer
