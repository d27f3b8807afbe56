// The tables of exception records as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "exceptionGroups.h"
#include "terminalStyle.h"

namespace viewer {

// What is shown of exceptions beyond what everybody needs.
struct exceptionDetails {
  thrownIn where = thrownIn::outsideJdk;
  bool jdkFrames = false;  // in a record
  bool statics = false;    // static fields and constants
  bool raw = false;        // the text that the agent wrote
};

// How many were thrown and recorded, what became of the others, and what is not known of them.
std::string exceptionLine(const exceptionLog& log, const terminalStyle& terminal);

// At most `rows` pairs of class and place, those of which the most were thrown first. Each has the
// message and the number of its first record; recordTree() takes the latter. Times are there where
// the terminal is wide enough.
std::string topExceptions(const exceptionLog& log, std::size_t rows,
                          const exceptionDetails& details, const terminalStyle& terminal);

// One record as an indented tree: frames, in them arguments, locals, fields and thread locals.
// `number` counts from 1 to log.size() in the order of the log.
std::string recordTree(const exceptionLog& log, std::size_t number, const exceptionDetails& details,
                       const terminalStyle& terminal);

}  // namespace viewer
