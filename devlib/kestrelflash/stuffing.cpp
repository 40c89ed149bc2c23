// Byte stuffing for any processor and either byte order.
#include "devlib/kestrelflash/stuffing.h"

#include <string.h>

namespace {

typedef UInt64 WordT;

constexpr WordT kOnes = 0x0101010101010101;
constexpr WordT kEvenBytes = 0x00FF00FF00FF00FF;

// Non-zero when one of the word's bytes is 0xFE or 0xFF: adding 2 to the low seven bits carries
// into the top bit from 126 on.
WordT NeedsStuffing(WordT word) {
    return ((word & kOnes * 0x7F) + kOnes * 2) & word & kOnes * 0x80;
}

UInt32 SumOfBytes(WordT word) {
    const WordT pairs = (word & kEvenBytes) + ((word >> 8) & kEvenBytes);
    return static_cast<UInt32>((pairs * 0x0001000100010001) >> 48);
}

// Stuffs one byte without a branch; the second byte is written, and counts only for a pair.
std::size_t StuffByte(unsigned char byte, unsigned char* to) {
    const bool pair = byte >= 0xFE;
    to[0] = pair ? 0xFE : byte;
    to[1] = byte & 1;
    return pair ? 2 : 1;
}

}  // namespace

std::size_t StuffBytesByWords(const unsigned char* from, std::size_t size, unsigned char* to,
                              UInt32* sum) {
    const unsigned char* const start = to;
    std::size_t left = size;
    for (; left >= sizeof(WordT); left -= sizeof(WordT), from += sizeof(WordT)) {
        WordT word;
        memcpy(&word, from, sizeof word);
        *sum += SumOfBytes(word);
        if (NeedsStuffing(word) == 0) {
            memcpy(to, &word, sizeof word);
            to += sizeof word;
            continue;
        }
        for (std::size_t i = 0; i < sizeof word; i++) {
            to += StuffByte(from[i], to);
        }
    }
    for (; left > 0; left--, from++) {
        *sum += *from;
        to += StuffByte(*from, to);
    }
    return static_cast<std::size_t>(to - start);
}
