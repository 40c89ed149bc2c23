// The SHA-256 of a stream of bytes, to name an image in a record as the package's list does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace watch {

class Sha256 {
  public:
    void Add(const unsigned char* bytes, std::size_t count);
    // 64 hexadecimal digits. Ends the stream.
    std::string Hex();

  private:
    void Block();

    std::uint32_t state_[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                               0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::uint64_t total_ = 0;
    unsigned char block_[64] = {};
};

}  // namespace watch
