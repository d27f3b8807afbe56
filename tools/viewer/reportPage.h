// What was read as one HTML page that needs no other file and no network. Without state, callable
// on any thread.
#pragma once

#include <filesystem>

#include "comparison.h"
#include "profile.h"

namespace viewer {

// Writes the page into `file`, which only its owner may read, as it can hold values of the program;
// the file appears once the page is complete. Throws std::exception with a text for the user when
// it cannot be written, or when something is there that is not a regular file.
void writePage(const profile& all, const std::filesystem::path& file,
               thrownIn where = thrownIn::outsideJdk);
void writePage(const comparison& both, const std::filesystem::path& file);

}  // namespace viewer
