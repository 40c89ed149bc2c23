// Bit rates of serial lines and the terminal speeds that stand for them.
#pragma once

#include <termios.h>

#include "Common/OS/types.h"

// The terminal speed for `bitsPerSecond`. There is no terminal speed of 14400 bit/s: such a line
// runs at 19200. Any rate outside the table runs at 9600.
inline speed_t SerialSpeed(UInt32 bitsPerSecond) {
    struct RowT {
        UInt32 bitsPerSecond;
        speed_t speed;
    };
    constexpr RowT kSpeeds[] = {{1200, B1200},   {2400, B2400},   {4800, B4800},
                                {9600, B9600},   {14400, B19200}, {19200, B19200},
                                {38400, B38400}, {57600, B57600}, {115200, B115200}};
    for (const RowT& row : kSpeeds) {
        if (row.bitsPerSecond == bitsPerSecond) {
            return row.speed;
        }
    }
    return B9600;
}
