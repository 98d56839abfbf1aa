// Heap allocations made by this process since it started: every malloc, calloc, realloc and aligned
// allocation of any thread, including those behind operator new and inside shared libraries. The
// harness replaces the C allocator's entry points in its own executable (AllocCount.cpp) and counts
// before handing each call to the C library.
#pragma once

#include <cstdint>

namespace PktRate {

uint64_t allocations();

}  // namespace PktRate
