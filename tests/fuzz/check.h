// What fuzz targets say when something is not as it should be.
#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the process with a message unless `holds`.
inline void check(bool holds, const char* what) {
  if (holds) {
    return;
  }
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}
