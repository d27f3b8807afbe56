// What was read as a profile in the pprof form, not compressed. Plain functions without state; the
// caller checks the stream's state.
#pragma once

#include <ostream>

#include "profile.h"

namespace viewer {

// What the samples of a profile are of, for they have the same values each.
enum class pprofKind {
  contention,   // contentions and delay, of waiters of monitors and locks in contention reports
  locks,        // contentions, of threads in lock reports
  allocations,  // bytes allocated, objects and bytes alive
  exceptions    // exceptions thrown
};

// The first of them that was read; contention when none was.
pprofKind pprofKindIn(const profile& all);

// Whether there are reports of other kinds as well.
bool hasOtherKinds(const profile& all, pprofKind what);

// Stacks with their lines. Where the report has no stack, a frame says so: the sums are those of
// the reports.
void writePprof(const profile& all, pprofKind what, std::ostream& out);

}  // namespace viewer
