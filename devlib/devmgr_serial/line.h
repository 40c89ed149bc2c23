// What the parts of the serial device manager share.
//
// One lock for each line, `lock` in its record. It guards the record and the descriptor in it, and
// is held for changes, control requests and reading what is there; never while waiting for the line
// or for a thread, and never in a callback. Who waits watches the descriptor's number without the
// lock, which does no harm even where the number is another file's meanwhile, and looks under the
// lock whether the line is still the one that it was before touching it.
//
// The line's thread has one life for each start:
//   none -> running   a request wants a thread (threadWanted) and makes it;
//   running -> leaving -> none   another thread wants it gone, deletes it and waits; or one of its
//                     callbacks wanted it gone, and has returned;
//   running -> failed -> none    the line cannot be waited for: no threadID, but it counts as
//                     running until a stop forgets it.
// The thread itself takes the step to none, as the last thing that it does with the line, and wakes
// who waits for that.
#pragma once

#include <sys/types.h>

#include "devlib/devmgr_serial/devmgr_serial.h"

// The record of a device; null stays null.
inline DevMgrSerial_CB_t* SerialLineOf(DEVCB* pDev) {
    return reinterpret_cast<DevMgrSerial_CB_t*>(pDev);
}

// The data bits of a configuration: 0 for five to 3 for eight.
inline UInt32 SerialLineDataBits(UInt32 mask) {
    if ((mask & kSerialDataBits5) != 0) {
        return 0;
    }
    return (mask & kSerialDataBits6) != 0 ? 1 : (mask & kSerialDataBits7) != 0 ? 2 : 3;
}

// One opening of a line, as a user saw it under the line's lock.
struct SerialLineOpeningT {
    int fd;           // to be watched only; negative where the line was closed
    UInt32 closings;  // of the line, before
    bool transmits;   // its transmitter is enabled
};
SerialLineOpeningT SerialLineOpening(const DevMgrSerial_CB_t* serialCB);

// Reads what the line has now, under its lock. Returns read(2)'s result, -1 after a closing, or
// kNothingThere: another user of the line was first.
constexpr ssize_t kNothingThere = -2;
ssize_t SerialLineReadNow(const DevMgrSerial_CB_t* serialCB, const SerialLineOpeningT& opening,
                          SInt8* buffer, UInt32 size);

// The callback request, under the line's lock; any other code is unknown. Returns the request's
// result. Null `CBInfo` clears the callbacks and wants no thread; otherwise they are stored and a
// thread is wanted where a direction is enabled.
UInt32 SerialLineSetCallbacks(DevMgrSerial_CB_t* serialCB, UInt32 ctlCode,
                              const DevmgrSerial_IoctlData_t& data);

// Applies the transmitter's bits of a status request, under the line's lock.
void SerialLineSetTransmitter(DevMgrSerial_CB_t* serialCB, UInt32 status);

// Says whether the line is to have a thread, under its lock; a thread that is to go delivers
// nothing any more.
void SerialLineWantThread(DevMgrSerial_CB_t* serialCB, bool wanted);

// Brings about what was said last: makes the thread, or ends it and waits until it is gone; a
// thread that calls for itself goes later. Without the lock. Returns SERIAL_NOERROR, or
// SERIAL_ERROR_UNKNOWN where no thread can be made (which is printed).
UInt32 SerialLineSettleThread(DevMgrSerial_CB_t* serialCB);

// A control request: `change` runs under the line's lock and returns the request's result; then the
// thread is settled.
typedef UInt32 SerialLineChangeT(DevMgrSerial_CB_t* serialCB, int fd, UInt32 ctlCode,
                                 const DevmgrSerial_IoctlData_t& data);
void SerialLineControl(DEVCB* pDev, IORB* pIORB, SerialLineChangeT* change);
