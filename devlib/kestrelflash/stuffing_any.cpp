// Byte stuffing on processors without a version of their own.
#include "devlib/kestrelflash/stuffing.h"

std::size_t StuffBytes(const unsigned char* from, std::size_t size, unsigned char* to,
                       UInt32* sum) {
    return StuffBytesByWords(from, size, to, sum);
}
