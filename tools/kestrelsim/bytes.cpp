// Byte strings as hexadecimal text.
#include "tools/kestrelsim/bytes.h"

namespace kestrelsim {

std::string ToHex(ByteView bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::optional<Bytes> FromHex(std::string_view text) {
    Bytes bytes;
    int high = -1;
    for (const char letter : text) {
        int digit = 0;
        if (letter == ' ') {
            continue;
        }
        if (letter >= '0' && letter <= '9') {
            digit = letter - '0';
        } else if ((letter | 0x20) >= 'a' && (letter | 0x20) <= 'f') {
            digit = (letter | 0x20) - 'a' + 10;
        } else {
            return std::nullopt;
        }
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    if (high >= 0) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace kestrelsim
