// The fixed-width names that the whole system uses for integers and truth values.
#pragma once

#include <cstddef>
#include <cstdint>

typedef std::uint8_t UInt8;
typedef std::uint16_t UInt16;
typedef std::uint32_t UInt32;
typedef std::uint64_t UInt64;
// Plain char, signed on every build (-fsigned-char), so that text and signed bytes are one type.
typedef char SInt8;
typedef std::int16_t SInt16;
typedef std::int32_t SInt32;
typedef std::int64_t SInt64;

// Truth values: 0 or 1.
typedef UInt32 Boolean;
typedef UInt32 Bool;

// A task's entry function; called with the four start arguments of t_start.
typedef void fnptr(UInt32, UInt32, UInt32, UInt32);
