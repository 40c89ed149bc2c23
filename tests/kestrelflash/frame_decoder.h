// The receiver's side of the link, independent of the product's builder.
#pragma once

#include <cstdint>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Takes the payload out of a frame. Returns false for a frame that breaks a rule.
inline bool DecodeFrame(const Bytes& frame, unsigned char* type, Bytes* payload) {
    Bytes body;
    for (std::size_t i = 1; i < frame.size(); i++) {
        const bool escape = frame[i] == 0xFE;
        if (frame[i] == 0xFF || (escape && (++i == frame.size() || frame[i] > 1))) {
            return false;
        }
        body.push_back(static_cast<unsigned char>(escape ? 0xFE + frame[i] : frame[i]));
    }
    if (body.size() < 6 || frame[0] != 0xFF) {
        return false;
    }
    const unsigned char* const end = body.data() + body.size() - 3;
    *type = body[0];
    payload->assign(body.begin() + 3, body.end() - 3);
    std::uint32_t sum = static_cast<std::uint32_t>(end[0] << 16 | end[1] << 8 | end[2]);
    for (const unsigned char byte : *payload) {
        sum += byte;
    }
    return sum % 0x1000000 == 0 && body[1] * 256U + body[2] == payload->size() + 3;
}
