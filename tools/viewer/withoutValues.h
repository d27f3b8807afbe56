// Reports that may be given to others: without anything that the program had in its variables.
#pragma once

#include "profile.h"

namespace viewer {

// Drops the values of exception records with the variables' names, the messages, and the records as
// the agent wrote them. Also drops the names of their threads and of those of allocations, the
// command line and the texts of options. Classes, methods, fields, places, counts and times stay.
void removeValues(profile& all);

}  // namespace viewer
