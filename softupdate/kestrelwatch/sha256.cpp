// SHA-256, block by block.
#include "softupdate/kestrelwatch/sha256.h"

#include <stdio.h>

#include <bit>

namespace watch {

namespace {

constexpr std::uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t Word(const unsigned char* at) {
    return std::uint32_t{at[0]} << 24 | std::uint32_t{at[1]} << 16 | std::uint32_t{at[2]} << 8 |
           at[3];
}

}  // namespace

void Sha256::Block() {
    std::uint32_t w[64];
    for (int i = 0; i < 16; i++) {
        w[i] = Word(block_ + 4 * i);
    }
    for (int i = 16; i < 64; i++) {
        const std::uint32_t a = w[i - 15];
        const std::uint32_t b = w[i - 2];
        w[i] = w[i - 16] + (std::rotr(a, 7) ^ std::rotr(a, 18) ^ a >> 3) + w[i - 7] +
               (std::rotr(b, 17) ^ std::rotr(b, 19) ^ b >> 10);
    }
    std::uint32_t s[8];
    for (int i = 0; i < 8; i++) {
        s[i] = state_[i];
    }
    for (int i = 0; i < 64; i++) {
        const std::uint32_t one = s[7] +
                                  (std::rotr(s[4], 6) ^ std::rotr(s[4], 11) ^ std::rotr(s[4], 25)) +
                                  ((s[4] & s[5]) ^ (~s[4] & s[6])) + kRound[i] + w[i];
        const std::uint32_t two = (std::rotr(s[0], 2) ^ std::rotr(s[0], 13) ^ std::rotr(s[0], 22)) +
                                  ((s[0] & s[1]) ^ (s[0] & s[2]) ^ (s[1] & s[2]));
        for (int j = 7; j > 0; j--) {
            s[j] = s[j - 1];
        }
        s[4] += one;
        s[0] = one + two;
    }
    for (int i = 0; i < 8; i++) {
        state_[i] += s[i];
    }
}

void Sha256::Add(const unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; i++) {
        block_[total_++ % 64] = bytes[i];
        if (total_ % 64 == 0) {
            Block();
        }
    }
}

std::string Sha256::Hex() {
    const std::uint64_t bits = total_ * 8;
    const unsigned char end = 0x80;
    const unsigned char nothing = 0;
    Add(&end, 1);
    while (total_ % 64 != 56) {
        Add(&nothing, 1);
    }
    unsigned char length[8];
    for (int i = 0; i < 8; i++) {
        length[i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    }
    Add(length, sizeof(length));
    std::string hex;
    for (const std::uint32_t word : state_) {
        char text[9];
        snprintf(text, sizeof(text), "%08x", word);
        hex += text;
    }
    return hex;
}

}  // namespace watch
