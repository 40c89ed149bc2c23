// What the parts of the serial device manager share.
//
// One lock for each line, `lock` in its record. It guards the record and the descriptor in it, and
// is held for changes, control requests and reading what is there; never while waiting for the line
// or for a thread, and never in a callback. Who waits does so on a descriptor of its own, so
// closing a line waits for no request and takes no number away from one.
//
// The line's thread has one life for each start:
//   None -> Serving   a request wants a thread (threadWanted) and makes it;
//   Serving -> None   one of its callbacks wanted it gone, and has returned;
//   Serving -> Leaving -> None   another thread wants it gone, deletes it and waits;
//   Serving -> Failed -> None    the line cannot be waited for; a stop forgets it.
// The thread itself takes the step to None, as the last thing that it does with the line, and wakes
// who waits for that.
#pragma once

#include <sys/types.h>

#include "devlib/devmgr_serial/devmgr_serial.h"

// The record of a device; null stays null.
inline DevMgrSerial_CB_t* SerialLineOf(DEVCB* pDev) {
    return reinterpret_cast<DevMgrSerial_CB_t*>(pDev);
}

// One user's own descriptor of a line, from now on until the scope ends.
class SerialLineUseT {
  public:
    explicit SerialLineUseT(DevMgrSerial_CB_t* serialCB);
    ~SerialLineUseT();
    SerialLineUseT(const SerialLineUseT&) = delete;
    SerialLineUseT& operator=(const SerialLineUseT&) = delete;

    // Negative where the line is closed or there is no descriptor to spare.
    int fd() const { return fd_; }

    // As it was when the use began.
    bool TransmitterOn() const { return transmitter_on_; }

    // Reads what is there now into `got`, read(2)'s result. False where nothing is: another user of
    // the line was first. After a closing `got` is -1.
    bool ReadNow(SInt8* buffer, UInt32 size, ssize_t* got) const;

    // Waits for the line to have or to take (`output`) bytes, for at most `left` microseconds, and
    // lowers them by the time spent. Returns 1 when it does, 0 when the time is over, -1 when the
    // line fails or is closed.
    int Wait(bool output, UInt64* left) const;

  private:
    bool Closed() const;  // the lock is held

    DevMgrSerial_CB_t* serialCB_;
    int fd_ = -1;
    bool transmitter_on_;
    UInt32 closings_;  // of the line, when this use began
};

// The callback request, under the line's lock. Null `CBInfo` clears the callbacks and wants no
// thread; otherwise they are stored and a thread is wanted where a direction is enabled.
void SerialLineSetCallbacks(DevMgrSerial_CB_t* serialCB, const DevmgrSerial_CBInfo_t* info);

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
