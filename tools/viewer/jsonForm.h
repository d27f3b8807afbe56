// The JSON form of what was read, for scripts and for the page. README.md in this folder describes
// it.
#pragma once

#include <ostream>

#include "profile.h"

namespace viewer {

void writeJson(const profile& all, std::ostream& out);

}  // namespace viewer
