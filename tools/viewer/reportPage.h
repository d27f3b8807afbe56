// The report as one HTML page that needs no other file and no network. Without state, callable on
// any thread.
#pragma once

#include <iosfwd>
#include <string_view>

namespace viewer {

// Writes the page that shows a report, given in its JSON form (UTF-8). Whether it arrived is for
// the caller to see from the stream.
void writeReportPage(std::string_view json, std::ostream& page);

}  // namespace viewer
