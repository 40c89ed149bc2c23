// Port configurations for tests, by the numbers of their values.
#pragma once

#include "devlib/serialapi/serialapi.h"

// Unless said otherwise 115200 bit/s, 8 data bits, no parity, one stop bit, no flow control.
constexpr RS232Cfg Cfg(int rate = 0, int data = 3, int parity = 2, int stop = 0, Bool dtr = 0,
                       Bool rts = 0, Bool xon = 0) {
    return {SerialBaudRateType(rate),
            SerialDataBitsType(data),
            SerialParityType(parity),
            SerialStopBitsType(stop),
            dtr,
            rts,
            xon};
}
