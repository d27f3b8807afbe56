// Sessions of allocation samples in the JSON form. Plain functions without state.
#pragma once

#include "allocationReport.h"
#include "exceptionForm.h"
#include "jsonWriter.h"

namespace viewer {

// The page's form (recordForm::shared) has each frame once, and stacks as indexes of frames.
void writeAllocations(jsonWriter& json, const allocationSession& session, recordForm form);

}  // namespace viewer
