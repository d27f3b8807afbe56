// What a run did not cover, in words for the user: reasons for which its reports cannot show that
// a limit was kept. None when they can. Plain functions without state; `pattern` is as matches()
// takes it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "profile.h"

namespace viewer {

// The time that threads blocked on locks.
std::vector<std::string> lockGaps(const profile& all);

// Exceptions of these classes.
std::vector<std::string> exceptionGaps(const profile& all, const std::string& pattern);

// Objects of these classes.
std::vector<std::string> survivorGaps(const profile& all, const std::string& pattern);

// The numbers before the largest one that none of these files of a run has, as "2, 3 to 5": files
// are numbered from 1 after the beginning `before` of their names.
std::string missingNumbers(const profile& all, const std::vector<std::string>& files,
                           std::string_view before);

// What a run never covers as it is set up, and so no reason for a limit to be broken.
std::optional<std::string> locksNotCovered(const profile& all);
std::vector<std::string> exceptionsNotCovered(const profile& all);

}  // namespace viewer
