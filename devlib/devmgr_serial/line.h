// What the entry points of both kinds of serial line share; private to the serial device manager.
// Any thread may call.
#pragma once

#include "devlib/devmgr_serial/devmgr_serial.h"

// The record of a device; null stays null.
inline DevMgrSerial_CB_t* SerialLineOf(DEVCB* pDev) {
    return reinterpret_cast<DevMgrSerial_CB_t*>(pDev);
}

// 1 where either direction is enabled.
bool SerialLineEnabled(const DevMgrSerial_CB_t* serialCB);

// Sets or clears (null) a line's callbacks; its thread never pairs a callback with another one's
// context.
void SerialLineSetCallbacks(DevMgrSerial_CB_t* serialCB, const DevmgrSerial_CBInfo_t* info);

// The callback request: null `CBInfo` stops the thread and clears the callbacks, otherwise they are
// stored and a thread is started where a direction is enabled.
void SerialLineCallbackRequest(DevMgrSerial_CB_t* serialCB, IORB* pIORB);

// Applies the transmitter's bits of a status request.
void SerialLineSetTransmitter(DevMgrSerial_CB_t* serialCB, UInt32 status);

// Reads up to `size` bytes that are there now, without waiting. Returns their number, 0 when
// another reader took them first, or -1 when the line is hung up or fails.
int SerialLineReadNow(DevMgrSerial_CB_t* serialCB, SInt8* buffer, UInt32 size);
