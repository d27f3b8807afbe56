// What the allocation samples of a run do not cover, in words for the user: reasons for which they
// cannot show that a limit was kept. None when they can. Plain functions without state.
#pragma once

#include <string>
#include <vector>

#include "profile.h"

namespace viewer {

enum class allocationMeasure { alive, growth };

// Limits of bytes that are alive, or bytes per minute by which they grow.
std::vector<std::string> allocationGaps(const profile& all, allocationMeasure measure,
                                        double limit);

}  // namespace viewer
