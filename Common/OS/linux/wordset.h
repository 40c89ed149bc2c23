// The layer's own memset, under a name that a test can call beside the C library's. The board's
// program has it as memset (memset_board.cpp).
#pragma once

#include <cstddef>

// Sets `length` bytes at `destination` to the low byte of `value`; returns `destination`.
extern "C" void* WordSet(void* destination, int value, size_t length);
