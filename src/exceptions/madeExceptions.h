// Who has made an exception: the first frame below the constructors that make it.
#pragma once

#include <jvmti.h>

#include "exceptions/throwEvent.h"

namespace agent {

// Completes an event of an exception that is being made: its method, location, first frame and
// thread. `cls` is the exception's class, of which the event has the information already. False
// when the VM refuses (event.lastError has the reason), or no frame is left below the constructors.
//
// A constructor that makes another exception of its own class is taken for one that calls another
// constructor of that class by this(...), and the frame below it for the one that makes both.
bool findMaker(throwEvent& event, jclass cls);

}  // namespace agent
