// memset by bytes up to a word boundary, then in blocks of 32 bytes, then words, then bytes.
// Compiled so that the loops are not turned back into calls of memset (see CMakeLists.txt).
#include "Common/OS/linux/wordset.h"

#include <cstdint>

#include "Common/OS/types.h"

namespace {
constexpr size_t kShort = 7;  // up to here bytes are as fast
constexpr size_t kBlockWords = 8;

// Words over memory of any type.
typedef UInt32 __attribute__((may_alias)) WordT;
}  // namespace

extern "C" void* WordSet(void* destination, int value, size_t length) {
    auto* byte = static_cast<UInt8*>(destination);
    const auto fill = static_cast<UInt8>(value);
    if (length > kShort) {
        while (reinterpret_cast<std::uintptr_t>(byte) % sizeof(WordT) != 0) {
            *byte++ = fill;
            length--;
        }
        const UInt32 word = fill * 0x01010101U;
        auto* words = reinterpret_cast<WordT*>(byte);
        for (; length >= kBlockWords * sizeof(WordT); length -= kBlockWords * sizeof(WordT)) {
            for (size_t i = 0; i < kBlockWords; i++) {
                words[i] = word;
            }
            words += kBlockWords;
        }
        for (; length >= sizeof(WordT); length -= sizeof(WordT)) {
            *words++ = word;
        }
        byte = reinterpret_cast<UInt8*>(words);
    }
    for (; length > 0; length--) {
        *byte++ = fill;
    }
    return destination;
}
