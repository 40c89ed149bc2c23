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

UInt32 CallingTask() {
    UInt32 task = 0;
    t_ident(nullptr, 0, &task);
    return task;
}

// The lock is held.
void SetThread(DevMgrSerial_CB_t* serialCB, LineThreadT thread, UInt32 task) {
    serialCB->thread = thread;
    serialCB->asyncThread_running = thread != kLineThreadNone ? 1 : 0;
    serialCB->threadID = task;
    pthread_cond_broadcast(&serialCB->threadGone);
}

// What a line wants of its thread at the moment.
struct OrdersT {
    bool input;
    DevmgrSerial_CBInfo_t callbacks;  // the transmit callback only where output is wanted
};

// None at all for a thread that is to go.
OrdersT OrdersOf(DevMgrSerial_CB_t* serialCB) {
    const MutexGuardT held(&serialCB->lock);
    if (serialCB->thread != kLineThreadServing || !serialCB->threadWanted) {
        return {};
    }
    OrdersT orders = {serialCB->rx_enabled == 1, serialCB->cbInfo};
    if (serialCB->tx_enabled != 1) {
        orders.callbacks.txCBFunc = nullptr;
    }
    return orders;
}

// What the line had to offer in one round.
struct RoundT {
    bool silent = false;  // readable, but it yields nothing: hung up
    bool output = false;  // it takes bytes
    ssize_t count = 0;    // of the bytes that it had
    SInt8 bytes[kReadSize];
};

// Waits for the line for at most 5 ms, and reads. Returns false when it cannot be waited for.
bool AskLine(DevMgrSerial_CB_t* serialCB, RoundT* round) {
    const SerialLineUseT use(serialCB);
    round->silent = use.fd() < 0;
    if (round->silent) {
        return true;
    }
    const OrdersT orders = OrdersOf(serialCB);
    const bool output = orders.callbacks.txCBFunc != nullptr;
    timeval timeout = {0, kPollMicroseconds};
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    if (orders.input) {
        FD_SET(use.fd(), &readable);
    }
    if (output) {
        FD_SET(use.fd(), &writable);
    }
    const int ready =
        select(use.fd() + 1, &readable, output ? &writable : nullptr, nullptr, &timeout);
    if (ready < 1) {
        return ready == 0;
    }
    // The receiver may have been disabled meanwhile.
    if (FD_ISSET(use.fd(), &readable) && OrdersOf(serialCB).input) {
        round->silent = use.ReadNow(round->bytes, kReadSize, &round->count) && round->count < 1;
    }
    round->output = FD_ISSET(use.fd(), &writable);
    return true;
}

// One round, without a descriptor of the line while a callback runs. Returns false when the line
// cannot be waited for.
bool ServeLine(DevMgrSerial_CB_t* serialCB) {
    RoundT round;
    if (!AskLine(serialCB, &round)) {
        return false;
    }
    if (round.silent) {
        udelay(kPollMicroseconds);  // without a pause this thread would spin
        return true;
    }
    DevmgrSerial_CBInfo_t callbacks = OrdersOf(serialCB).callbacks;
    if (round.count > 0 && callbacks.rxCBFunc != nullptr) {
        DevmgrSerial_CBdata_t data = {round.bytes, {static_cast<UInt32>(round.count)}};
        callbacks.rxCBFunc(callbacks.Context_Data, &data);
        callbacks = OrdersOf(serialCB).callbacks;
    }
    if (round.output && callbacks.txCBFunc != nullptr) {
        callbacks.txCBFunc(callbacks.Context_Data);
    }
    return true;
}

// The calling thread as the thread of a line. At the end, also where it is deleted, the line has
// none any more.
class ServingT {
  public:
    explicit ServingT(DevMgrSerial_CB_t* serialCB) : serialCB_(serialCB), self_(CallingTask()) {}
    ~ServingT() {
        const MutexGuardT held(&serialCB_->lock);
        Leave(kLineThreadNone);
    }
    ServingT(const ServingT&) = delete;
    ServingT& operator=(const ServingT&) = delete;

    // Whether to go on; a thread that is leaving goes on until it is deleted. The answer no is
    // final: whoever wants a thread from now on makes a new one.
    bool GoOn() const {
        const MutexGuardT held(&serialCB_->lock);
        if (serialCB_->thread == kLineThreadServing && !serialCB_->threadWanted) {
            Leave(kLineThreadNone);
        }
        return serialCB_->threadID == self_;
    }

    void Fail() const {
        const MutexGuardT held(&serialCB_->lock);
        if (serialCB_->thread == kLineThreadServing) {
            Leave(kLineThreadFailed);
        }
    }

  private:
    void Leave(LineThreadT thread) const {
        if (serialCB_->threadID == self_) {
            SetThread(serialCB_, thread, 0);
        }
    }

    DevMgrSerial_CB_t* serialCB_;
    UInt32 self_;
};

void LineTask(UInt32 record, UInt32, UInt32, UInt32) {
    DevMgrSerial_asyncDataSendRecv(from_id<void>(record));
}

// The lock is held.
UInt32 MakeThread(DevMgrSerial_CB_t* serialCB) {
    const NoCancelT no_cancel;
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
    SetThread(serialCB, kLineThreadServing, task);
    return SERIAL_NOERROR;
}

// Deletes the thread that is leaving and waits until it has left the line. Whoever finds it leaving
// does the same, so nobody depends on another one not being deleted here. The lock is held, and
// given up.
void EndThread(DevMgrSerial_CB_t* serialCB, CancellableMutexGuardT* held) {
    const UInt32 task = serialCB->threadID;
    const UInt32 incarnation = serialCB->threadIncarnation;
    held->Unlock();
    t_delete_incarnation(task, incarnation);
    const CancellableMutexGuardT again(&serialCB->lock);
    while (serialCB->threadID == task && serialCB->threadIncarnation == incarnation) {
        pthread_cond_wait(&serialCB->threadGone, &serialCB->lock);
    }
}

void Want(DevMgrSerial_CB_t* serialCB, bool wanted) {
    const MutexGuardT held(&serialCB->lock);
    SerialLineWantThread(serialCB, wanted);
}

}  // namespace

void SerialLineWantThread(DevMgrSerial_CB_t* serialCB, bool wanted) {
    serialCB->threadWanted = wanted;
    if (wanted) {
        return;
    }
    if (serialCB->thread == kLineThreadFailed) {
        SetThread(serialCB, kLineThreadNone, 0);
    } else if (serialCB->thread == kLineThreadServing && serialCB->threadID != CallingTask()) {
        serialCB->thread = kLineThreadLeaving;
    }
}

UInt32 SerialLineSettleThread(DevMgrSerial_CB_t* serialCB) {
    const UInt32 self = CallingTask();
    for (;;) {
        CancellableMutexGuardT held(&serialCB->lock);
        if (serialCB->thread == kLineThreadNone && serialCB->threadWanted) {
            return MakeThread(serialCB);
        }
        if (serialCB->thread != kLineThreadLeaving || serialCB->threadID == self) {
            return SERIAL_NOERROR;
        }
        EndThread(serialCB, &held);
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
    auto* serialCB = static_cast<DevMgrSerial_CB_t*>(arg);
    const ServingT serving(serialCB);
    while (serving.GoOn()) {
        if (!ServeLine(serialCB)) {
            serving.Fail();
        }
    }
}
