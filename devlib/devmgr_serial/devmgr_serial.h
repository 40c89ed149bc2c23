// The serial device manager: registers the board's eight serial lines in the device table as "Ser",
// instances 1 to 8, and performs the requests of the serial port interface. FPGA lines are set up
// through their driver's own requests, the others through termios.
//
// Requests come from any thread and run in it; those on one line may overlap. One that waits while
// its line is closed ends: a read without a time-out with SERIAL_READ_ERROR, one with a time-out
// with what has come, a write that waits for room, which only one with a time-out does, with
// SERIAL_WRITE_ERROR. A write that the driver has taken ends when the driver lets it go.
//
// A line that is not an FPGA line has a thread of its own while its receiver or its transmitter is
// enabled, with callbacks or without: what nobody reads is dropped. An FPGA line gets one when a
// direction is enabled that has a callback, or when callbacks are set while either direction is
// enabled. The thread goes when both directions are disabled, the callbacks are taken back or the
// line is closed.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "Common/OS/dev.h"
#include "devlib/devmgr_serial/serialctl.h"

constexpr int kSerialLines = 8;

typedef enum : UInt32 { CPU_PORT = 0, FPGA_PORT = 1 } SerialPortType_t;

// One line. Its device id is its address.
typedef struct {
    DEVCB devCB;                // first, so that the device table's block is the record
    SerialPortType_t portType;  // always CPU_PORT: the entry points decide the kind of line
    DevmgrSerial_CBInfo_t cbInfo;
    std::atomic<UInt32> asyncThread_running;  // 1 from the thread's start until it is gone
    SInt8 tx_enabled;                         // 0 or 1
    SInt8 rx_enabled;
    std::atomic<UInt32> threadID;  // the line's task, 0 for none; may be read at any time
    UInt32 portnum;
    // Private to the device manager, see line.h:
    pthread_mutex_t lock;
    pthread_cond_t threadGone;
    UInt32 threadIncarnation;  // with threadID: which thread
    bool threadWanted;
    // The thread is ending, whatever is wanted. Atomic because ThreadSanitizer sees no lock that a
    // thread takes on its way out of a cancelled wait.
    std::atomic<bool> threadLeaving;
    bool opened;  // the descriptor is the line's
} DevMgrSerial_CB_t;
static_assert(offsetof(DevMgrSerial_CB_t, devCB) == 0);

extern DevMgrSerial_CB_t CBList[kSerialLines];  // index = port number
extern const SInt8* const SerialPort_DevNames[kSerialLines];

// Initialises the serial port interface and registers the eight lines. Called once at start-up,
// before any serial use.
void DevMgrSerial_Init();

// Entry points of FPGA lines. Opening and closing return a DevMgrSerial_error_t, 0 for success; the
// others set the request's actLen and err.
//
// Open may block as open(2) does; it cannot be cancelled meanwhile. Close ends the line's thread
// and forgets its callbacks, but an FPGA line keeps its enable flags for the next opening.
// Write waits `timeout` microseconds (0: not) for the line to take output, then writes once, as
// much as the line takes. Read returns what came within `timeout` microseconds, which may be
// nothing; with a `timeout` of 0 it blocks until something comes.
UInt32 DevMgrFPGASerial_Open(DEVCB* pDev);
UInt32 DevMgrFPGASerial_Close(DEVCB* pDev);
void DevMgrFPGASerial_Read(DEVCB* pDev, IORB* pIORB);
void DevMgrFPGASerial_Write(DEVCB* pDev, IORB* pIORB);
void DevMgrFPGASerial_Ioctl(DEVCB* pDev, IORB* pIORB);

// The same for the other lines.
UInt32 DevMgrCPUSerial_Open(DEVCB* pDev);
UInt32 DevMgrCPUSerial_Close(DEVCB* pDev);
void DevMgrCPUSerial_Read(DEVCB* pDev, IORB* pIORB);
void DevMgrCPUSerial_Write(DEVCB* pDev, IORB* pIORB);
void DevMgrCPUSerial_Ioctl(DEVCB* pDev, IORB* pIORB);

// Starts the line's thread unless it has one, and stores SERIAL_NOERROR through `err`, or
// SERIAL_ERROR_UNKNOWN where no thread can be made (which is printed).
void DevMgrSerial_Start_AsyncThread(DevMgrSerial_CB_t* serialCB, UInt32* err);

// Ends the line's thread, if it has one, and waits until it is gone, whoever ends it. Called by
// that thread itself (from a callback) it does not wait: the thread ends when the callback returns,
// unless it was started again meanwhile.
void DevMgrSerial_Stop_AsyncThread(DevMgrSerial_CB_t* serialCB);

// Body of a line's thread; `arg` is the line's record. Returns when the line cannot be waited for
// any more, or when a callback stopped it.
void DevMgrSerial_asyncDataSendRecv(void* arg);
