// The counts of exceptions by class and throwing site as a report.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "exceptions/siteCounts.h"

namespace agent {

// The report with what there is at `now`, in milliseconds since the epoch; docs/reports.md has its
// form. Whether exceptions are caught is known in mode "thrown" only. Any thread, while others
// count.
std::string siteReport(const siteCounts& counts, std::string_view mode, std::int64_t now);

}  // namespace agent
