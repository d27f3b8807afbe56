// How much of the heap operator new has given out, in the whole program.
#pragma once

#include <cstddef>

// Bytes that are held now, as malloc rounds them up.
std::size_t heapInUse();
// The most that were held at once since the last time this was asked for.
std::size_t takeHeapPeak();
