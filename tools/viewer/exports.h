// What was read in the forms that other tools take. The caller checks the stream's state.
#pragma once

#include <ostream>

#include "profile.h"

namespace viewer {

// What the stacks of an output are of: its weights have one unit.
enum class stackSource {
  contention,  // waiters of contention reports, in nanoseconds
  locks,       // threads of lock reports, by how often they came to the lock
  allocations  // samples that are alive, in bytes
};

// The first of them that was read; contention when none was.
stackSource stacksIn(const profile& all);

// Whether there are reports of other stacks as well.
bool hasOtherStacks(const profile& all, stackSource what);

// Stacks one a line: the lock and the thread, or the class, and the frames from the bottom up,
// joined by ";", a blank, and the weight. In names ";" is written as ":". What the report has no
// stack for has a frame of that name: the sum is that of all blocked time, entries or bytes.
void writeCollapsed(const profile& all, stackSource what, std::ostream& out);

// The same as a document for speedscope, one profile for each report of all kinds.
void writeSpeedscope(const profile& all, std::ostream& out);

// What a table in CSV lists.
enum class csvTable {
  locks,
  threads,
  stacks,
  blockers,
  exceptions,
  classes,
  contention,
  pairs,
  allocations
};

// RFC 4180, in UTF-8, with a heading. A text that begins like a formula has a "'" before it; what
// is not known is empty. Exceptions are listed by their throwing site; caught and uncaught are of
// the records where it is not known how many were thrown.
void writeCsv(const profile& all, csvTable what, std::ostream& out);

// Gauges of all that was read, in the text format that Prometheus scrapes.
void writePrometheus(const profile& all, std::ostream& out);

}  // namespace viewer
