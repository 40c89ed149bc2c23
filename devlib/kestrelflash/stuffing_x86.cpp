// Byte stuffing on x86. Where the processor can compress vectors of bytes, every byte is widened to
// the pair that it may need and the unneeded halves are squeezed out, without a branch per byte:
// this is what brings framing within reach of memcpy whatever the image holds. Other processors
// take the version by words.
#include <immintrin.h>
#include <string.h>

#include "devlib/kestrelflash/stuffing.h"

#define TARGET_WIDE __attribute__((target("avx512bw,avx512vl,avx512vbmi2,bmi2,popcnt")))

namespace {

constexpr std::size_t kHalf = 32;
constexpr std::size_t kChunk = 2 * kHalf;

// Stuffs 32 bytes; writes 64, of which the returned number count.
TARGET_WIDE std::size_t StuffHalf(const unsigned char* from, unsigned char* to) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
    const __mmask32 pairs =
        _mm256_cmpge_epu8_mask(bytes, _mm256_set1_epi8(static_cast<char>(0xFE)));
    // Sixteen bits a byte, its own place first in memory: FE and FF become FE, and the second
    // place holds the low bit, 0 or 1.
    const __m512i wide = _mm512_cvtepu8_epi16(bytes);
    const __m512i first = _mm512_min_epu16(wide, _mm512_set1_epi16(0xFE));
    const __m512i second = _mm512_and_si512(_mm512_slli_epi16(wide, 8), _mm512_set1_epi16(0x100));
    const __m512i both = _mm512_or_si512(first, second);
    if (pairs == 0xFFFFFFFF) {  // erased flash: nothing to squeeze out
        _mm512_storeu_si512(to, both);
        return 2 * kHalf;
    }
    const __mmask64 kept = 0x5555555555555555 | _pdep_u64(pairs, 0xAAAAAAAAAAAAAAAA);
    _mm512_storeu_si512(to, _mm512_maskz_compress_epi8(kept, both));
    return kHalf + static_cast<std::size_t>(__builtin_popcount(pairs));
}

// Stuffs `size` bytes, a multiple of kChunk. A store never passes the room that its own bytes may
// need, so that nothing is written beyond twice the input.
TARGET_WIDE std::size_t StuffChunks(const unsigned char* from, std::size_t size, unsigned char* to,
                                    UInt32* sum) {
    const unsigned char* const start = to;
    __m512i total = _mm512_setzero_si512();
    for (const unsigned char* const end = from + size; from != end; from += kChunk) {
        const __m512i bytes = _mm512_loadu_si512(from);
        total = _mm512_add_epi64(total, _mm512_sad_epu8(bytes, _mm512_setzero_si512()));
        if (_mm512_cmpge_epu8_mask(bytes, _mm512_set1_epi8(static_cast<char>(0xFE))) == 0) {
            _mm512_storeu_si512(to, bytes);
            to += kChunk;
            continue;
        }
        to += StuffHalf(from, to);
        to += StuffHalf(from + kHalf, to);
    }
    UInt64 lanes[8];
    _mm512_storeu_si512(lanes, total);
    for (const UInt64 lane : lanes) {
        *sum += static_cast<UInt32>(lane);
    }
    return static_cast<std::size_t>(to - start);
}

bool HasWideStuffing() {
    return __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
           __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("bmi2");
}

}  // namespace

std::size_t StuffBytes(const unsigned char* from, std::size_t size, unsigned char* to,
                       UInt32* sum) {
    std::size_t done = 0;
    std::size_t written = 0;
    if (size >= kChunk && HasWideStuffing()) {
        done = size - size % kChunk;
        written = StuffChunks(from, done, to, sum);
    }
    return written + StuffBytesByWords(from + done, size - done, to + written, sum);
}
