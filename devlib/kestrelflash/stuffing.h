// Byte stuffing in bulk, for payloads: 0xFF becomes FE 01, 0xFE becomes FE 00, every other byte
// stays. Any thread may call; nothing blocks or allocates.
#pragma once

#include <cstddef>

#include "Common/OS/types.h"

// Stuffs `size` bytes from `from` into `to` and adds the sum of the unstuffed bytes to *sum (it
// wraps at 32 bits). Returns the number of bytes written, `size` to 2 * `size`. `to` has room for
// 2 * `size` bytes, all of which may be overwritten, and does not overlap `from`.
std::size_t StuffBytes(const unsigned char* from, std::size_t size, unsigned char* to, UInt32* sum);

// The same, a machine word at a time: the version for any processor, and for what is left over by
// wider ones.
std::size_t StuffBytesByWords(const unsigned char* from, std::size_t size, unsigned char* to,
                              UInt32* sum);
