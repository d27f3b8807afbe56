// Where the VM calls the agent: nothing is ever thrown back into the VM.
#pragma once

#include <utility>

#include "agent/twAprLib.h"
#include "support/sourcePlace.h"

namespace agent {

// Runs `body` and returns what it returns. Whatever it throws ends here: `message` is logged as an
// error of `function`, and `onFailure` is returned.
template <typename Result, typename Body>
Result contained(const char* function, const char* message, Result onFailure, Body&& body,
                 support::sourcePlace where = support::sourcePlace::current()) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    if (twAprLib::level() >= kLogError) {
      twAprLib::write(nullptr, 0, kLogModule, kSeverityError, where.file, where.line, function,
                      "%s", message);
    }
    return onFailure;
  }
}

// The same for a body without a result.
template <typename Body>
void contained(const char* function, const char* message, Body&& body,
               support::sourcePlace where = support::sourcePlace::current()) noexcept {
  contained(
      function, message, 0,
      [&] {
        std::forward<Body>(body)();
        return 0;
      },
      where);
}

}  // namespace agent
