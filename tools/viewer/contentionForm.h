// The JSON form of a contention report; README.md in this folder describes it. Plain functions
// without state.
#pragma once

#include "contentionReport.h"
#include "jsonWriter.h"

namespace viewer {

// As one object.
void writeContention(jsonWriter& json, const contentionReport& report);

}  // namespace viewer
