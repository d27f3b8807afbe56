// Counts what operator new gives, in the whole program.
#pragma once

#include <cstdint>

std::uint64_t allocationsSoFar();
