// Other copies of this library in the process, as after an update of its file: each has a state of
// its own, and the VM binds the companion's natives to one of them only.
#pragma once

#include <string>

namespace agent {

// From now on this copy is the one that the process uses, and others refuse to be set up. Any
// thread.
void useThisCopy();

// The file of another copy that the process uses; empty when there is none. Any thread.
std::string otherCopyInUse();

}  // namespace agent
