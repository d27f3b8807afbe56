// What was read in the forms that other tools take. The caller checks the stream's state.
#pragma once

#include <ostream>

#include "profile.h"

namespace viewer {

// The stacks of lock reports, one a line: the lock, the thread and the frames from the bottom up,
// joined by ";", a blank, and how often the thread came to the lock with that stack. In names ";"
// is written as ":". Entries that the report has no stack for have a frame of that name: the sum is
// that of all entries of threads.
void writeCollapsed(const profile& all, std::ostream& out);

// The same as a document for speedscope, one profile for each lock report.
void writeSpeedscope(const profile& all, std::ostream& out);

// What a table in CSV lists.
enum class csvTable { locks, threads, stacks, blockers, exceptions, classes };

// RFC 4180, in UTF-8, with a heading. A text that begins like a formula has a "'" before it; what
// is not known is empty.
void writeCsv(const profile& all, csvTable what, std::ostream& out);

// Gauges of all that was read, in the text format that Prometheus scrapes.
void writePrometheus(const profile& all, std::ostream& out);

}  // namespace viewer
