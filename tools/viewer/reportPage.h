// What was read as one HTML page that needs no other file and no network. Without state, callable
// on any thread.
#pragma once

#include <filesystem>

#include "comparison.h"
#include "profile.h"

namespace viewer {

// Writes the page into `file`, which only its owner may read, as it can hold values of the program;
// the file stands there once the page is whole. Throws std::exception with a text for the user when
// it cannot be written, or when something that is no regular file stands there already.
void writePage(const profile& all, const std::filesystem::path& file);
void writePage(const comparison& both, const std::filesystem::path& file);

}  // namespace viewer
