// All tables of what was read, as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "exceptionTables.h"
#include "lockTables.h"
#include "profile.h"
#include "terminalStyle.h"

namespace viewer {

struct tableOptions {
  ranking by = ranking::lock;
  tableLimits limits;
  exceptionDetails exceptions = {};
  std::size_t record = 0;  // the exception record to show in place of all else; 0 for none
};

// The run, then each report. Throws inputError when there is no record of that number.
std::string profileTables(const profile& all, const tableOptions& options,
                          const terminalStyle& terminal);

}  // namespace viewer
