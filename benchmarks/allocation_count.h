// Counts heap allocations of a benchmark program: malloc and operator new both pass here, those of
// shared libraries included. Any thread.
#ifndef ALLOCATION_COUNT_H
#define ALLOCATION_COUNT_H

#include <cstdint>

// Allocations of the process so far.
uint64_t allocation_count();

#endif
