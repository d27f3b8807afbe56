// Many runs as JSON; README.md describes it. The caller checks the stream's state.
#pragma once

#include <ostream>

#include "fleet.h"

namespace viewer {

void writeJson(const fleet& all, std::ostream& out);

}  // namespace viewer
