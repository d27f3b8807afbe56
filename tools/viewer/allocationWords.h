// What allocation samples tell in sentences: the session, what an estimate is worth, what is
// missing. Plain functions without state, callable on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "allocationReport.h"
#include "allocationSites.h"
#include "tableParts.h"

namespace viewer {

// The span and the sums of a session, one sentence each, the first as a heading.
std::vector<std::string> allocationHead(const allocationSession& session);

// What limits the truth of the figures, one sentence each.
std::vector<std::string> allocationOmissions(const allocationSession& session);

// What growth and paths have to tell, where there are such files or not.
std::vector<std::string> growthNotes(const allocationSession& session);
std::vector<std::string> pathNotes(const allocationSession& session,
                                   const std::vector<grownClass>& classes, std::size_t shown);

// "1.5 MiB alive (3 samples: an estimate, between about 0.3 MiB and 4.4 MiB)"; without the range
// from kFewSamples on.
std::string aliveText(const sampledAmount& alive);

// "2.9 MiB/min", "0", "?" when not known.
std::string growthText(const allocationSum& sum);
// "grows by 1.5 MiB/min", "does not grow".
std::string growthPhrase(const allocationSum& sum);

// As in siteOf(), also when it is not known.
std::string shownSite(const std::optional<std::string>& site);

// What the samples cost the program.
std::string costText(const allocationReport& report);

}  // namespace viewer
