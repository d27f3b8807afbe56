// The tables of exception records as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "exceptionLog.h"
#include "terminalStyle.h"

namespace viewer {

// How many there are, and of those that were thrown how many got recorded, in one line.
std::string exceptionLine(const exceptionLog& log);

// At most `rows` pairs of class and throwing site, those with the most records first. Each names
// the number of its first record, which recordTree() takes.
std::string topExceptions(const exceptionLog& log, std::size_t rows, const terminalStyle& terminal);

// One record as an indented tree: frames, in them arguments, locals, fields and thread locals.
// `number` counts from 1 to log.size() in the order of the log.
std::string recordTree(const exceptionLog& log, std::size_t number, const terminalStyle& terminal);

}  // namespace viewer
