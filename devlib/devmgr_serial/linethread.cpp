// The thread of a serial line: delivers what the line receives, and asks for output, through the
// client's callbacks.
#include <stdio.h>
#include <sys/select.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "devlib/devmgr_serial/line.h"

namespace {

constexpr UInt32 kLinePriority = 19;
constexpr UInt32 kLineStack = 8192;
constexpr UInt32 kPollMicroseconds = 5000;
constexpr UInt32 kReadSize = 256;

// The lock is held.
void SetThread(DevMgrSerial_CB_t* serialCB, UInt32 task, UInt32 running) {
    serialCB->threadID = task;
    serialCB->asyncThread_running = running;
    serialCB->threadLeaving = false;
    pthread_cond_broadcast(&serialCB->threadGone);
}

// What a line wants of its thread at the moment.
struct OrdersT {
    SerialLineOpeningT opening;
    bool input;
    DevmgrSerial_CBInfo_t callbacks;  // the transmit callback only where output is wanted
};

// None at all for a thread that is to go. The lock is held.
OrdersT OrdersOf(const DevMgrSerial_CB_t* serialCB) {
    if (!serialCB->opened || serialCB->threadLeaving || !serialCB->threadWanted) {
        return {};
    }
    OrdersT orders = {SerialLineOpening(serialCB), serialCB->rx_enabled == 1, serialCB->cbInfo};
    if (!orders.opening.transmits) {
        orders.callbacks.txCBFunc = nullptr;
    }
    return orders;
}

OrdersT Orders(DevMgrSerial_CB_t* serialCB) {
    const MutexGuardT held(&serialCB->lock);
    return OrdersOf(serialCB);
}

// Reads what a line has, unless its receiver was disabled meanwhile.
ssize_t Take(DevMgrSerial_CB_t* serialCB, const SerialLineOpeningT& opening, SInt8* bytes) {
    const MutexGuardT held(&serialCB->lock);
    return OrdersOf(serialCB).input ? SerialLineReadNow(serialCB, opening, bytes, kReadSize)
                                    : kNothingThere;
}

// Waits for the line for at most 5 ms, and says what it has to offer. Returns select(2)'s result.
int AskLine(const OrdersT& orders, bool* readable, bool* writable) {
    const int fd = orders.opening.fd;
    const bool output = orders.callbacks.txCBFunc != nullptr;
    timeval timeout = {0, kPollMicroseconds};
    fd_set in;
    fd_set out;
    FD_ZERO(&in);
    FD_ZERO(&out);
    if (orders.input) {
        FD_SET(fd, &in);
    }
    if (output) {
        FD_SET(fd, &out);
    }
    const int ready = select(fd + 1, &in, output ? &out : nullptr, nullptr, &timeout);
    *readable = ready > 0 && FD_ISSET(fd, &in);
    *writable = ready > 0 && FD_ISSET(fd, &out);
    return ready;
}

// One round. Returns false when the line cannot be waited for.
bool ServeLine(DevMgrSerial_CB_t* serialCB) {
    const OrdersT orders = Orders(serialCB);
    bool readable;
    bool writable;
    if (AskLine(orders, &readable, &writable) < 0) {
        return false;
    }
    SInt8 bytes[kReadSize];
    const ssize_t count = readable ? Take(serialCB, orders.opening, bytes) : kNothingThere;
    if (count < 1 && count != kNothingThere) {
        udelay(kPollMicroseconds);  // hung up: without a pause this thread would spin
        return true;
    }
    DevmgrSerial_CBInfo_t callbacks = Orders(serialCB).callbacks;
    if (count > 0 && callbacks.rxCBFunc != nullptr) {
        DevmgrSerial_CBdata_t data = {bytes, {static_cast<UInt32>(count)}};
        callbacks.rxCBFunc(callbacks.Context_Data, &data);
        callbacks = Orders(serialCB).callbacks;
    }
    if (writable && callbacks.txCBFunc != nullptr) {
        callbacks.txCBFunc(callbacks.Context_Data);
    }
    return true;
}

// The calling thread as the thread of a line. At the end, also where it is deleted, the line has
// none any more; one that failed counts as running until somebody wants it gone.
struct ServingT {
    DevMgrSerial_CB_t* serialCB;
    bool failed;

    ~ServingT() {
        const MutexGuardT held(&serialCB->lock);
        SetThread(serialCB, 0, failed && !serialCB->threadLeaving ? 1 : 0);
    }

    // The answer no is final: whoever wants a thread from now on makes a new one.
    bool GoOn() const {
        const MutexGuardT held(&serialCB->lock);
        if (!serialCB->threadWanted) {
            serialCB->threadLeaving = true;
        }
        return !serialCB->threadLeaving;
    }
};

void LineTask(UInt32 record, UInt32, UInt32, UInt32) {
    DevMgrSerial_asyncDataSendRecv(from_id<void>(record));
}

// The lock is held.
UInt32 MakeThread(DevMgrSerial_CB_t* serialCB) {
    UInt32 task = 0;
    if (t_create("seri", kLinePriority, kLineStack, 0, 0, &task) != kTaskOk) {
        puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread create error");
        return SERIAL_ERROR_UNKNOWN;
    }
    UInt32 args[4] = {id_of(serialCB)};
    if (t_start(task, 0, LineTask, args) != kTaskOk) {
        puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread start error");
        t_delete(task);
        return SERIAL_ERROR_UNKNOWN;
    }
    serialCB->threadIncarnation = t_incarnation(task);
    SetThread(serialCB, task, 1);
    return SERIAL_NOERROR;
}

void Want(DevMgrSerial_CB_t* serialCB, bool wanted) {
    const MutexGuardT held(&serialCB->lock);
    SerialLineWantThread(serialCB, wanted);
}

}  // namespace

void SerialLineWantThread(DevMgrSerial_CB_t* serialCB, bool wanted) {
    serialCB->threadWanted = wanted;
    if (!wanted && serialCB->threadID == 0) {
        serialCB->asyncThread_running = 0;
    } else if (!wanted && serialCB->threadID != id_of(t_self())) {
        serialCB->threadLeaving = true;
    }
}

UInt32 SerialLineSettleThread(DevMgrSerial_CB_t* serialCB) {
    for (;;) {
        UInt32 task;
        UInt32 incarnation;
        {
            const MutexGuardT held(&serialCB->lock);
            if (serialCB->asyncThread_running == 0 && serialCB->threadWanted) {
                return MakeThread(serialCB);
            }
            task = serialCB->threadID;
            incarnation = serialCB->threadIncarnation;
            if (!serialCB->threadLeaving || task == id_of(t_self())) {
                return SERIAL_NOERROR;
            }
        }
        // Whoever finds it leaving does the same, so nobody depends on another one not being
        // deleted here.
        t_delete_incarnation(task, incarnation);
        const CancellableMutexGuardT held(&serialCB->lock);
        while (serialCB->threadID == task && serialCB->threadIncarnation == incarnation) {
            pthread_cond_wait(&serialCB->threadGone, &serialCB->lock);
        }
    }
}

void DevMgrSerial_Start_AsyncThread(DevMgrSerial_CB_t* serialCB, UInt32* err) {
    Want(serialCB, true);
    *err = SerialLineSettleThread(serialCB);
}

void DevMgrSerial_Stop_AsyncThread(DevMgrSerial_CB_t* serialCB) {
    Want(serialCB, false);
    SerialLineSettleThread(serialCB);
}

void DevMgrSerial_asyncDataSendRecv(void* arg) {
    ServingT serving = {static_cast<DevMgrSerial_CB_t*>(arg), false};
    while (!serving.failed && serving.GoOn()) {
        serving.failed = !ServeLine(serving.serialCB);
    }
}
