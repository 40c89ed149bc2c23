// What both ways of using a port share; private to the serial port interface.
#pragma once

#include "Common/OS/types.h"

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
// Unless it is kept, the device is closed and the port free again at the end of the scope, also
// where the caller is cancelled. That needs no lock: only reserving has to be alone.
class ReservedPortT {
  public:
    explicit ReservedPortT(int port) : port_(port) {}
    ~ReservedPortT();
    ReservedPortT(const ReservedPortT&) = delete;
    ReservedPortT& operator=(const ReservedPortT&) = delete;

    // Reserves the port and returns what the table said of it; under the lock, and for a port that
    // is free or open.
    UInt32 Reserve();

    // Lets others use the device, which is still closed at the end.
    void Publish();

    // Leaves the port as it is.
    void Keep() { reserved_ = false; }

    UInt32 devid = 0;  // the device opened meanwhile

  private:
    int port_;
    UInt32 entry_ = 0;  // what the port table says now
    bool reserved_ = false;
};

// Bits per second for a SerialBaudRateType, 0 for a value outside 0 to 8.
UInt32 SerialBitsPerSecond(UInt32 bitRate);
