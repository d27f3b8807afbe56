// Several JVMs of one command as one profile. Plain functions without state.
#pragma once

#include <filesystem>
#include <vector>

#include "contentionReport.h"
#include "profile.h"

namespace viewer {

// What all of them have together. Contention is added up by kind, and by field or class of the
// lock, samples of allocations by class and stack, counts of exceptions by class and site, and all
// exception records are there. What cannot be added up stays by JVM, with the process in its name:
// lock and memory sessions, histograms and paths. What is omitted (time lines, growth by samples,
// stuck threads, chains of owners) is named in `notes`, with what shows it.
//
// jvms: not empty; each with its run where that is known
profile merged(std::vector<profile> jvms);

// Reads all JVMs of a command, see readJvms(), as one profile; the inputs as they are when there is
// only one, or files are among them, which a note tells.
profile readCommands(const std::vector<std::filesystem::path>& inputs);

// The same for contention reports of one kind of `parks`.
contentionReport merged(const std::vector<const contentionReport*>& reports);
allocationReport merged(const std::vector<const allocationReport*>& reports);

}  // namespace viewer
