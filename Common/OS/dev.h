// The device table: a small driver model. A device manager describes each device it serves with a
// control block and registers it here; clients open a device by name and instance, receive its id,
// and issue requests. A request without a completion function runs at once in the caller's thread.
//
// Any thread may open, close and issue requests; devices are registered at start-up, before other
// threads use the table, because the list of devices has no lock. A null control block, request,
// list or id is a programming error and ends the program.
#pragma once

#include <poll.h>

#include <atomic>

#include "Common/OS/types.h"

// Results of the table itself; a device's entry points return codes of their own.
constexpr UInt32 kDevOk = 0;
constexpr UInt32 kDevNoMemory = 8;  // iorb_list_alloc
constexpr UInt32 kDevNotFound = 9;  // dev_open: no such device
constexpr UInt32 kDevNotOpen = 48;  // in a request's err

// Values of DEVCB::state.
constexpr UInt32 kDevClosed = 0;
constexpr UInt32 kDevOpened = 1;

// Bit of DEVCB::flags: the I/O completion task serves the device's queued reads.
constexpr UInt32 kDevFlagCompletion = 0x01;

struct DeviceControlBlock;
struct DeviceIORequestBlock;

// Called by a device manager when a request that was queued is done; never by the table.
typedef void (*UserCompletionFuncT)(struct DeviceIORequestBlock* pIORB);

// One I/O request. It belongs to the client and must stay valid until it is done.
typedef struct DeviceIORequestBlock {
    struct DeviceIORequestBlock* pNext;  // links while queued; null when it is queued
    struct DeviceIORequestBlock* pPrevious;
    SInt8* pBuffer;     // what to write, where to read, or the control data; required for writes
    SInt8* pDstBuffer;  // for the client; nothing here reads it
    UInt32 reqLen;      // bytes wanted
    UInt32 actLen;      // bytes transferred, set by the device manager
    UInt32 err;         // result in the device manager's codes, or kDevNotOpen
    UserCompletionFuncT pUserCompFunc;  // null: the request runs at once in the caller's thread
    UInt32 timeout;                     // in the device manager's unit; 0: none
    UInt32 taskID;                      // the task that issued it, set by the table
    UInt32 ctlCode;                     // control code of an ioctl request
    struct DeviceControlBlock* pDev;    // set by the table
    void* pUserDefined;                 // for the client
    struct DeviceIORequestBlock* pChain;
    UInt32 signature;  // the characters "IORB" in memory order, written by iorb_init
    UInt32 flags;
} IORB;

// A queue of requests, linked through the requests themselves.
typedef struct IORequestBlockList {
    IORB* pHead;
    IORB* pTail;
    std::atomic<int> num;  // requests queued; may be read at any time
} IORBList;

// Entry points of a device. Open and close return 0 or an error of the device manager; the others
// report through the request's actLen and err.
typedef UInt32 DevOpenFuncT(struct DeviceControlBlock* pDev);
typedef UInt32 DevCloseFuncT(struct DeviceControlBlock* pDev);
typedef void DevRequestFuncT(struct DeviceControlBlock* pDev, IORB* pIORB);

// One device. It belongs to its manager, which embeds it as the first member of its own record and
// keeps it in static storage; the device id is its address.
typedef struct DeviceControlBlock {
    struct DeviceControlBlock* pNext;  // the device list
    struct DeviceControlBlock* pPrevious;
    SInt8 name[8];       // ended by a NUL; name and instance together identify a device
    DevOpenFuncT* open;  // null: opening just marks the device open
    DevCloseFuncT* close;
    DevRequestFuncT* read;
    DevRequestFuncT* write;
    DevRequestFuncT* ioctl;
    UInt32 instance;
    std::atomic<UInt32> state;  // kDevClosed or kDevOpened
    IORBList readIORBs;
    IORBList writeIORBs;
    IORBList ioctlIORBs;
    UInt32 numBytesWritten;
    UInt32 numBytesRead;
    UInt32 numOpens;  // kept by the device manager, as numCloses
    UInt32 numCloses;
    std::atomic<UInt32> flags;
    std::atomic<int> fd;  // descriptor that the device manager opened, 0 until then
    int transferMode;
} DEVCB;

// Fills a control block: closed, counters, links and descriptor 0. Of `name` seven characters are
// kept. Entry points may be null, but an open device must have `ioctl` to receive control requests.
// Returns 0.
UInt32 dev_init(DEVCB* pDev, const SInt8* name, UInt32 instance, DevOpenFuncT* open,
                DevCloseFuncT* close, DevRequestFuncT* read, DevRequestFuncT* write,
                DevRequestFuncT* ioctl);

// Appends a device to the list. Returns 0.
UInt32 dev_add(DEVCB* pDev);

// Takes a device off the list. With one device listed the list is emptied, whichever block was
// passed; a deleted last device stays reachable from the one before it until another is added.
// Returns 0.
UInt32 dev_delete(DEVCB* pDev);

// Nothing to do. Both return 0.
UInt32 dev_exit(DEVCB* pDev);
UInt32 InitDevices();

// Finds the device and opens it, unless it is open already (opens are not counted); either way its
// queued requests and its flags are forgotten. Stores the id through `devid` and returns 0, or
// returns kDevNotFound or the error of the device's open entry with `devid` untouched. Blocks as
// the device's open does.
UInt32 dev_open(const SInt8* name, UInt32 instance, UInt32* devid);

// Closes a device and returns the result of its close entry; 0 where it has none or is closed
// already. The device counts as closed even when its close entry failed.
UInt32 dev_close(UInt32 devid);

// Issue a request. A read with a completion function is queued for the I/O completion task, an
// ioctl with one only behind others; everything else runs before the call returns. A closed device
// gives kDevNotOpen in the request's err; a write of no bytes, or to a device that cannot be
// written, does nothing.
void dev_read(UInt32 devid, IORB* pIORB);
void dev_write(UInt32 devid, IORB* pIORB);
void dev_ioctl(UInt32 devid, IORB* pIORB, UInt32 ctlCode);

// The device's name; valid as long as the device.
SInt8* dev_name(UInt32 devid);

// Prepares a request; taskID, ctlCode, pUserDefined and flags stay as they were. Returns 0.
UInt32 iorb_init(IORB* pIORB, void* pBuffer, void* pDstBuffer, UInt32 reqLen,
                 UserCompletionFuncT pUserCompFunc, UInt32 timeout);

// Fills a list with `numIORBs` (at least 1) zeroed requests from one allocation. Returns 0, or
// kDevNoMemory with the list empty. iorb_list_free gives the allocation back; it is valid only
// while the first request of the allocation is at the head. Returns 0.
UInt32 iorb_list_alloc(IORBList* pIORBList, UInt32 numIORBs);
UInt32 iorb_list_free(IORBList* pIORBList);

// The number of requests queued.
UInt32 iorb_list_avail(const IORBList* pIORBList);

// Append a request, remove the first (null when there is none), or unlink one from anywhere. They
// run inside the interrupts-off section. Enqueue takes a request with null links. Extract ignores a
// request that is on no list. Enqueue and extract return 0.
UInt32 iorb_list_enqueue(IORBList* pIORBList, IORB* pIORB);
IORB* iorb_list_dequeue(IORBList* pIORBList);
UInt32 iorb_list_extract(IORBList* pIORBList, IORB* pIORB);

// Marks a device for the I/O completion task, and starts that task if it does not exist yet. The
// task serves the devices that are marked and have a descriptor when it starts, at most 50. Where
// the task cannot be made, the next call tries again.
void add_dev_to_comp_task(DEVCB* pDev);

// 1 when one of the first `count` entries has descriptor `fd` and something to report, else 0.
int UFD_ISSET(int fd, const struct pollfd* ufds, int count);

extern DEVCB* gpDEVCBHead;  // the device list, in the order of registration
extern DEVCB* gpDEVCBTail;
extern UInt32 io_comp_task_id;  // the I/O completion task, 0 until started
