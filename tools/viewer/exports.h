// What was read in the forms that other tools take. The caller checks the stream's state.
#pragma once

#include <ostream>

#include "profile.h"

namespace viewer {

// The stacks of contention reports, one a line: the lock, the thread that was blocked and the
// frames from the bottom up, joined by ";", a blank, and for how many nanoseconds. In names ";" is
// written as ":". Time that the report has no stack for has a frame of that name: the sum is that
// of all blocked time. Without such a report those of lock reports, in the same way by how often
// the thread came to the lock with that stack: counts and times do not stand in one output.
void writeCollapsed(const profile& all, std::ostream& out);

// The same as a document for speedscope, one profile for each report of both kinds.
void writeSpeedscope(const profile& all, std::ostream& out);

// What a table in CSV lists.
enum class csvTable { locks, threads, stacks, blockers, exceptions, classes, contention, pairs };

// RFC 4180, in UTF-8, with a heading. A text that begins like a formula has a "'" before it; what
// is not known is empty. Exceptions are listed by their throwing site; caught and uncaught are of
// the records where it is not known how many were thrown.
void writeCsv(const profile& all, csvTable what, std::ostream& out);

// Gauges of all that was read, in the text format that Prometheus scrapes.
void writePrometheus(const profile& all, std::ostream& out);

}  // namespace viewer
