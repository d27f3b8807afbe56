// Many runs in a terminal. Plain functions without state.
#pragma once

#include <string>

#include "fleet.h"
#include "terminalStyle.h"

namespace viewer {

// How many runs were read and of how many hosts, in what they differ, and a table for each kind of
// sums with `rows` rows.
std::string fleetTables(const fleet& all, std::size_t rows, const terminalStyle& terminal);

}  // namespace viewer
