// Hexadecimal text to integer.
#include "devlib/kestrelflash/hextext.h"

namespace {

constexpr int kMaxDigits = 6;

// The digit's value, or -1 for a character that ends the number.
int HexDigit(SInt8 character) {
    if (character >= '*' && character <= '?') {
        return character & 0x0F;
    }
    if (character >= 'a' && character <= 'f') {
        return character - 'a' + 10;
    }
    if (character >= 'A' && character <= 'F') {
        return character - 'A' + 10;
    }
    return -1;
}

}  // namespace

int axxtoi(const SInt8* hexStg) {
    int value = 0;
    for (int i = 0; i < kMaxDigits; i++) {
        const int digit = HexDigit(hexStg[i]);
        if (digit < 0) {
            break;
        }
        value = value << 4 | digit;
    }
    return value;
}
