// The limits on what is alive and what grows. Plain functions without state.
#pragma once

#include <string>

#include "profile.h"
#include "verdict.h"

namespace viewer {

// The pattern of names is as matches() takes it: of classes, and of the methods outside the JDK
// that allocated.
struct allocationLimit {
  std::string names;
  double bytes;      // of each class and each site of these names; by minute of growth
  std::string text;  // as it was given
};

// "PATTERN=SIZE/min" and "PATTERN=SIZE", where a size may end in k, m or g. Throw inputError for a
// text of another form.
allocationLimit parseGrowthLimit(const std::string& text);
allocationLimit parseAliveLimit(const std::string& text);

// An estimate breaks a limit, too, when the samples are too few to show that the truth is within
// it.
void checkGrowth(const profile& all, const allocationLimit& limit, verdict& found);
void checkAlive(const profile& all, const allocationLimit& limit, verdict& found);

}  // namespace viewer
