// What the contention reports of a run do not cover, in words for the user: reasons for which they
// cannot show that a limit was kept. None when they can. Plain functions without state; `pattern`
// is as matches() takes it.
#pragma once

#include <string>
#include <vector>

#include "profile.h"

namespace viewer {

// The time that threads were blocked by monitors and locks of these classes.
std::vector<std::string> contentionGaps(const profile& all, const std::string& pattern);

// Deadlocks.
std::vector<std::string> deadlockGaps(const profile& all);

// What is not covered and no reason for a limit to be broken.
std::vector<std::string> contentionNotes(const profile& all);

}  // namespace viewer
