// Counts the memory allocations of the calling thread, the C library's own included.
#pragma once

// Allocations of the calling thread so far.
long AllocationsSoFar();
