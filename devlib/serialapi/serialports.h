// What both ways of using a port share; private to the serial port interface.
#pragma once

#include "Common/OS/types.h"

// Whether a port number has a line. Negative numbers have none: they would index the tables from
// outside.
bool SerialPortExists(int port);

// Frees a port, under the lock.
void SerialFreePort(int port);

// Bits per second for a SerialBaudRateType, 0 for a value outside 0 to 8.
UInt32 SerialBitsPerSecond(UInt32 bitRate);
