// The thread of a serial line: delivers what the line receives, and asks for output, through the
// client's callbacks. It reads the line's flags without a lock.
#include <pthread.h>
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

// Guards asyncTask_Args and the decision to start or stop a thread; never held while waiting.
pthread_mutex_t startStopMutex = PTHREAD_MUTEX_INITIALIZER;
// Guards every line's callbacks and context while they are read or changed together.
pthread_mutex_t callbackMutex = PTHREAD_MUTEX_INITIALIZER;
// Arguments of the thread being started, shared by all lines.
UInt32 asyncTask_Args[4];

// Holds the lock while nobody waits for the line's thread to be gone. Such a wait lasts as long as
// a callback may; a line's thread that wants the lock meanwhile can itself be cancelled here.
class StartStopLockT {
  public:
    explicit StartStopLockT(const DevMgrSerial_CB_t* serialCB) {
        pthread_mutex_lock(&startStopMutex);
        while (serialCB->threadID.load(std::memory_order_acquire) == kSerialThreadLeaving) {
            pthread_mutex_unlock(&startStopMutex);
            tm_wkafter(1);
            pthread_mutex_lock(&startStopMutex);
        }
    }
    ~StartStopLockT() { pthread_mutex_unlock(&startStopMutex); }
    StartStopLockT(const StartStopLockT&) = delete;
    StartStopLockT& operator=(const StartStopLockT&) = delete;
};

// The record while its thread is being ended by another one; without a thread afterwards, also
// where the one that waits is cancelled itself.
class LeavingT {
  public:
    explicit LeavingT(DevMgrSerial_CB_t* serialCB) : serialCB_(serialCB) {}
    ~LeavingT() {
        serialCB_->asyncThread_running.store(0, std::memory_order_release);
        serialCB_->threadID.store(0, std::memory_order_release);
    }
    LeavingT(const LeavingT&) = delete;
    LeavingT& operator=(const LeavingT&) = delete;

  private:
    DevMgrSerial_CB_t* serialCB_;
};

UInt32 CallingTask() {
    UInt32 task = 0;
    t_ident(nullptr, 0, &task);
    return task;
}

// The callbacks as one: a single field can be read at any time, but a function must not meet the
// context of the one before or after it.
DevmgrSerial_CBInfo_t LoadCallbacks(const DevMgrSerial_CB_t* serialCB) {
    const MutexGuardT held(&callbackMutex);
    return {serialCB->cbInfo.txCBFunc.load(std::memory_order_relaxed),
            serialCB->cbInfo.rxCBFunc.load(std::memory_order_relaxed),
            serialCB->cbInfo.Context_Data.load(std::memory_order_relaxed)};
}

bool WantsOutput(const DevMgrSerial_CB_t* serialCB) {
    return serialCB->cbInfo.txCBFunc.load(std::memory_order_acquire) != nullptr &&
           serialCB->tx_enabled.load(std::memory_order_acquire) == 1;
}

// Whether the record still names this thread, or somebody waits for it to be cancelled; otherwise
// one of its own callbacks stopped it.
bool StillMine(const DevMgrSerial_CB_t* serialCB, UInt32 self) {
    const UInt32 id = serialCB->threadID.load(std::memory_order_acquire);
    return id == self || id == kSerialThreadLeaving;
}

// Hands over what has arrived; false when the read gave nothing.
bool Deliver(DevMgrSerial_CB_t* serialCB) {
    SInt8 bytes[kReadSize];
    const int count = SerialLineReadNow(serialCB, bytes, kReadSize);
    if (count < 0) {
        // A line that is hung up stays readable: without a pause this thread would spin.
        udelay(kPollMicroseconds);
        return false;
    }
    const DevmgrSerial_CBInfo_t callbacks = LoadCallbacks(serialCB);
    if (count > 0 && callbacks.rxCBFunc != nullptr) {
        DevmgrSerial_CBdata_t data = {bytes, {static_cast<UInt32>(count)}};
        callbacks.rxCBFunc(callbacks.Context_Data, &data);
    }
    return count > 0;
}

// One round: waits for the line for at most 5 ms. Returns false when it cannot be waited for.
bool ServeLine(DevMgrSerial_CB_t* serialCB, UInt32 self) {
    const int fd = serialCB->devCB.fd.load(std::memory_order_acquire);
    timeval timeout = {0, kPollMicroseconds};
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    if (serialCB->rx_enabled.load(std::memory_order_acquire) == 1) {
        FD_SET(fd, &readable);
    }
    const bool output = WantsOutput(serialCB);
    if (output) {
        FD_SET(fd, &writable);
    }
    const int ready = select(fd + 1, &readable, output ? &writable : nullptr, nullptr, &timeout);
    if (ready < 1) {
        return ready == 0;
    }
    if (FD_ISSET(fd, &readable) && !Deliver(serialCB)) {
        return true;
    }
    if (FD_ISSET(fd, &writable) && StillMine(serialCB, self) && WantsOutput(serialCB)) {
        const DevmgrSerial_CBInfo_t callbacks = LoadCallbacks(serialCB);
        if (callbacks.txCBFunc != nullptr) {
            callbacks.txCBFunc(callbacks.Context_Data);
        }
    }
    return true;
}

void LineTask(UInt32 record, UInt32, UInt32, UInt32) {
    DevMgrSerial_asyncDataSendRecv(from_id<void>(record));
}

// Marks the record: the caller is going to wait for its thread. Returns that thread, or 0 where
// there is nothing to wait for: no thread, or the caller itself.
UInt32 TakeThread(DevMgrSerial_CB_t* serialCB) {
    const StartStopLockT held(serialCB);
    const UInt32 task = serialCB->threadID.load(std::memory_order_acquire);
    if (task == 0 || task == CallingTask()) {
        serialCB->threadID.store(0, std::memory_order_release);
        serialCB->asyncThread_running.store(0, std::memory_order_release);
        return 0;
    }
    serialCB->threadID.store(kSerialThreadLeaving, std::memory_order_release);
    return task;
}

// The end of a thread that nobody stopped: its id goes from the record, because it may soon name
// another task, but the line still counts as having a thread. Where somebody has taken the id
// already, the thread lasts until it is cancelled, for the same reason.
void LeaveRecord(DevMgrSerial_CB_t* serialCB, UInt32 self) {
    pthread_mutex_lock(&startStopMutex);
    const UInt32 id = serialCB->threadID.load(std::memory_order_acquire);
    if (id == self) {
        serialCB->threadID.store(0, std::memory_order_release);
    }
    pthread_mutex_unlock(&startStopMutex);
    while (id == kSerialThreadLeaving) {
        tm_wkafter(1);
    }
}

}  // namespace

void SerialLineSetCallbacks(DevMgrSerial_CB_t* serialCB, const DevmgrSerial_CBInfo_t* info) {
    const DevmgrSerial_CBInfo_t none = {};
    const DevmgrSerial_CBInfo_t& now = info != nullptr ? *info : none;
    const MutexGuardT held(&callbackMutex);
    serialCB->cbInfo.Context_Data.store(now.Context_Data, std::memory_order_release);
    serialCB->cbInfo.txCBFunc.store(now.txCBFunc, std::memory_order_release);
    serialCB->cbInfo.rxCBFunc.store(now.rxCBFunc, std::memory_order_release);
}

void DevMgrSerial_Start_AsyncThread(DevMgrSerial_CB_t* serialCB, UInt32* err) {
    const StartStopLockT held(serialCB);
    *err = SERIAL_NOERROR;
    if (serialCB->asyncThread_running.load(std::memory_order_acquire) != 0) {
        return;
    }
    UInt32 task = 0;
    if (t_create("seri", kLinePriority, kLineStack, 0, 0, &task) != kTaskOk) {
        puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread create error");
        *err = SERIAL_ERROR_UNKNOWN;
        return;
    }
    serialCB->threadID.store(task, std::memory_order_release);
    asyncTask_Args[0] = id_of(serialCB);
    if (t_start(task, 0, LineTask, asyncTask_Args) != kTaskOk) {
        puts("DevMgrCPUSerial_Start_AsyncThread(): Async thread start error");
        serialCB->threadID.store(0, std::memory_order_release);
        t_delete(task);
        *err = SERIAL_ERROR_UNKNOWN;
        return;
    }
    serialCB->asyncThread_running.store(1, std::memory_order_release);
}

void DevMgrSerial_Stop_AsyncThread(DevMgrSerial_CB_t* serialCB) {
    const UInt32 task = TakeThread(serialCB);
    if (task != 0) {
        const LeavingT leaving(serialCB);
        t_delete(task);
    }
}

void DevMgrSerial_asyncDataSendRecv(void* arg) {
    auto* serialCB = static_cast<DevMgrSerial_CB_t*>(arg);
    const UInt32 self = CallingTask();
    while (StillMine(serialCB, self) && ServeLine(serialCB, self)) {
    }
    LeaveRecord(serialCB, self);
}
