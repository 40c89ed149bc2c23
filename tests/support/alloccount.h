// Counts the memory allocations of the calling thread, the C library's own included. Link
// alloccount_libc.cpp, or alloccount_sanitizer.cpp in a build under a sanitizer.
#pragma once

// Allocations of the calling thread so far.
long AllocationsSoFar();
