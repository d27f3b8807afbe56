// Exceptions in the JSON form. README.md in this folder describes it.
#pragma once

#include <optional>

#include "exceptionGroups.h"
#include "jsonWriter.h"

namespace viewer {

// How much of the records is written.
enum class recordForm {
  whole,
  // For the page: frames and values that are the same are there once, in "frames" and "values", and
  // are referred to by their indexes. Frames have only those lists that are not empty. The agent's
  // own texts are not there.
  shared,
};

// The member "exceptions" of an object; null for none.
void writeExceptions(jsonWriter& json, const std::optional<exceptionLog>& log, thrownIn where,
                     recordForm form);

}  // namespace viewer
