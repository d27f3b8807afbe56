// The JSON form of what was read, for scripts and for the page. README.md in this folder describes
// it.
#pragma once

#include <ostream>

#include "comparison.h"
#include "exceptionForm.h"
#include "profile.h"

namespace viewer {

void writeJson(const profile& all, std::ostream& out, thrownIn where = thrownIn::outsideJdk,
               recordForm form = recordForm::whole);
void writeJson(const comparison& both, std::ostream& out);

}  // namespace viewer
