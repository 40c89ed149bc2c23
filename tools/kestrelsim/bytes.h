// Byte strings and their hexadecimal text, shared by every part of the simulator.
#pragma once

#include <stdint.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrelsim {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

// Lower-case hexadecimal text, two digits a byte, nothing between.
std::string ToHex(ByteView bytes);

// The bytes of a hexadecimal text (either case, blanks allowed); nothing when it is none.
std::optional<Bytes> FromHex(std::string_view text);

}  // namespace kestrelsim
