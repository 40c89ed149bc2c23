// What both ways of using a port share; private to the serial port interface.
#pragma once

#include "devlib/serialapi/serialapi.h"

// Whether a port number has a line. Negative numbers have none: they would index the tables from
// outside.
bool SerialPortExists(int port);

// The lock of the port table for a scope. Where it cannot be had, prints so for the `operation`.
class PortTableLockT {
  public:
    PortTableLockT(int port, const char* operation, const char* failed = "lock failed");
    ~PortTableLockT() noexcept(false);
    PortTableLockT(const PortTableLockT&) = delete;
    PortTableLockT& operator=(const PortTableLockT&) = delete;

    bool Held() const { return held_; }

  private:
    bool held_;
};

// A port that nobody else can take while its device is opened or closed, or its session begins.
// Unless it is kept, it is free at the end of the scope, also where the caller is cancelled. That
// needs no lock: only reserving has to be alone.
struct ReservedPortT {
    int port;
    // What the port table says. Where it says something else at the end, the port was taken away
    // meanwhile: closed in a callback, or its session ended.
    UInt32 entry = kSerialPortReserved;

    ~ReservedPortT();
    void Keep() { entry = kSerialPortFree; }
};

// Bits per second for a SerialBaudRateType, 0 for a value outside 0 to 8.
UInt32 SerialBitsPerSecond(UInt32 bitRate);
