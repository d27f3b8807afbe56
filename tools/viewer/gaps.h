// What a run did not look at, in words for the user: reasons for which its reports cannot show that
// a limit was kept. None when they can. Plain functions without state; `pattern` is as matches()
// takes it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "profile.h"

namespace viewer {

// The time that threads blocked on locks.
std::vector<std::string> lockGaps(const profile& all);

// Exceptions of these classes.
std::vector<std::string> exceptionGaps(const profile& all, const std::string& pattern);

// Objects of these classes.
std::vector<std::string> survivorGaps(const profile& all, const std::string& pattern);

// What is left out of every run as it is set up, and so no reason for a limit to be broken.
std::optional<std::string> locksNotFollowed(const profile& all);
std::optional<std::string> exceptionsNotLookedAt(const profile& all);

}  // namespace viewer
