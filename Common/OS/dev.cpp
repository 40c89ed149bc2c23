// The device table, its request queues, and the task that serves queued reads.
#include "Common/OS/dev.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/log.h"

DEVCB* gpDEVCBHead;
DEVCB* gpDEVCBTail;
UInt32 io_comp_task_id;

namespace {

constexpr int kMaxPolled = 50;
constexpr UInt32 kCompletionPriority = 55;

DEVCB* DeviceOf(UInt32 devid) {
    OsAssertText(devid != 0, "devid");
    return from_id<DEVCB>(devid);
}

bool IsOpen(const DEVCB* pDev) {
    return pDev->state == kDevOpened;
}

// Common to all requests. Null, with the request's err set, where the device is not open.
DEVCB* Begin(UInt32 devid, IORB* pIORB) {
    DEVCB* pDev = DeviceOf(devid);
    OsAssertText(pIORB != nullptr, "pIORB");
    pIORB->pDev = pDev;
    pIORB->actLen = 0;
    pIORB->err = IsOpen(pDev) ? kDevOk : kDevNotOpen;
    return pIORB->err == kDevOk ? pDev : nullptr;
}

DEVCB* FindDevice(const SInt8* name, UInt32 instance) {
    for (DEVCB* pDev = gpDEVCBHead; pDev != nullptr; pDev = pDev->pNext) {
        if (pDev->instance == instance && strcmp(pDev->name, name) == 0) {
            return pDev;
        }
    }
    return nullptr;
}

void ClearList(IORBList* pIORBList) {
    pIORBList->pHead = nullptr;
    pIORBList->pTail = nullptr;
    pIORBList->num = 0;
}

void ForgetQueuedRequests(DEVCB* pDev) {
    const InterruptsOffT off;
    ClearList(&pDev->readIORBs);
    ClearList(&pDev->writeIORBs);
    ClearList(&pDev->ioctlIORBs);
}

// The caller is inside the interrupts-off section.
void Unlink(IORBList* pIORBList, IORB* pIORB) {
    (pIORB->pPrevious != nullptr ? pIORB->pPrevious->pNext : pIORBList->pHead) = pIORB->pNext;
    (pIORB->pNext != nullptr ? pIORB->pNext->pPrevious : pIORBList->pTail) = pIORB->pPrevious;
    pIORB->pNext = nullptr;
    pIORB->pPrevious = nullptr;
    pIORBList->num--;
}

int BuildPollSet(pollfd* ufds) {
    int count = 0;
    for (DEVCB* pDev = gpDEVCBHead; pDev != nullptr && count < kMaxPolled; pDev = pDev->pNext) {
        const int fd = pDev->fd;
        const UInt32 flags = pDev->flags;
        if (fd != 0 && (flags & kDevFlagCompletion) != 0) {
            ufds[count++] = pollfd{fd, POLLIN, 0};
        }
    }
    return count;
}

void ServeReadyDevice(DEVCB* pDev) {
    IORB* pIORB = iorb_list_dequeue(&pDev->readIORBs);
    if (pIORB != nullptr) {
        OsAssertText(pDev->read != nullptr, "pDev->read");
        pDev->read(pDev, pIORB);
        return;
    }
    // The descriptor stays ready until somebody reads it: wait, or this task would spin.
    cm_syslog(kLogCritical, "No read IORB, device %s\n", pDev->name);
    tm_wkafter(1);
}

[[noreturn]] void io_comp_task(UInt32, UInt32, UInt32, UInt32) {
    pollfd ufds[kMaxPolled];
    const int count = BuildPollSet(ufds);
    for (;;) {
        if (poll(ufds, static_cast<nfds_t>(count), -1) < 1) {
            continue;
        }
        for (DEVCB* pDev = gpDEVCBHead; pDev != nullptr; pDev = pDev->pNext) {
            if (UFD_ISSET(pDev->fd, ufds, count) != 0) {
                ServeReadyDevice(pDev);
            }
        }
    }
}

}  // namespace

UInt32 dev_init(DEVCB* pDev, const SInt8* name, UInt32 instance, DevOpenFuncT* open,
                DevCloseFuncT* close, DevRequestFuncT* read, DevRequestFuncT* write,
                DevRequestFuncT* ioctl) {
    OsAssertText(pDev != nullptr, "pDev");
    OsAssertText(name != nullptr, "name");
    pDev->pNext = nullptr;
    pDev->pPrevious = nullptr;
    snprintf(pDev->name, sizeof(pDev->name), "%s", name);
    pDev->open = open;
    pDev->close = close;
    pDev->read = read;
    pDev->write = write;
    pDev->ioctl = ioctl;
    pDev->instance = instance;
    pDev->state = kDevClosed;
    pDev->numBytesWritten = 0;
    pDev->numBytesRead = 0;
    pDev->numOpens = 0;
    pDev->numCloses = 0;
    pDev->fd = 0;
    return kDevOk;
}

UInt32 dev_add(DEVCB* pDev) {
    OsAssertText(pDev != nullptr, "pDev");
    if (gpDEVCBTail == nullptr) {
        gpDEVCBHead = pDev;
    } else {
        gpDEVCBTail->pNext = pDev;
        pDev->pPrevious = gpDEVCBTail;
    }
    gpDEVCBTail = pDev;
    return kDevOk;
}

UInt32 dev_delete(DEVCB* pDev) {
    OsAssertText(pDev != nullptr, "pDev");
    if (gpDEVCBHead == gpDEVCBTail) {
        gpDEVCBHead = nullptr;
        gpDEVCBTail = nullptr;
    } else if (pDev == gpDEVCBHead) {
        gpDEVCBHead = pDev->pNext;
    } else if (pDev == gpDEVCBTail) {
        gpDEVCBTail = pDev->pPrevious;
    } else if (pDev->pPrevious != nullptr && pDev->pNext != nullptr) {
        pDev->pPrevious->pNext = pDev->pNext;
        pDev->pNext->pPrevious = pDev->pPrevious;
    }
    pDev->pNext = nullptr;
    pDev->pPrevious = nullptr;
    return kDevOk;
}

UInt32 dev_exit(DEVCB* pDev) {
    OsAssertText(pDev != nullptr, "pDev");
    return kDevOk;
}

UInt32 InitDevices() {
    return kDevOk;
}

UInt32 dev_open(const SInt8* name, UInt32 instance, UInt32* devid) {
    OsAssertText(name != nullptr, "name");
    OsAssertText(devid != nullptr, "devid");
    DEVCB* pDev = FindDevice(name, instance);
    if (pDev == nullptr) {
        return kDevNotFound;
    }
    pDev->flags = 0;
    ForgetQueuedRequests(pDev);
    if (!IsOpen(pDev)) {
        const UInt32 err = pDev->open != nullptr ? pDev->open(pDev) : kDevOk;
        if (err != kDevOk) {
            return err;
        }
        pDev->state = kDevOpened;
    }
    *devid = id_of(pDev);
    return kDevOk;
}

UInt32 dev_close(UInt32 devid) {
    DEVCB* pDev = DeviceOf(devid);
    // Of several that close at once one calls the entry, and no request begins meanwhile.
    if (pDev->state.exchange(kDevClosed) != kDevOpened) {
        return kDevOk;
    }
    return pDev->close != nullptr ? pDev->close(pDev) : kDevOk;
}

void dev_read(UInt32 devid, IORB* pIORB) {
    DEVCB* pDev = Begin(devid, pIORB);
    if (pDev == nullptr) {
        puts("dev_read: not open");
        return;
    }
    if (pDev->read == nullptr) {
        puts("dev_read: no read routine");
        return;
    }
    if (pIORB->taskID == 0) {
        pIORB->taskID = id_of(t_self());
    }
    if (pIORB->pUserCompFunc != nullptr) {
        iorb_list_enqueue(&pDev->readIORBs, pIORB);
    } else {
        pDev->read(pDev, pIORB);
    }
}

void dev_write(UInt32 devid, IORB* pIORB) {
    DEVCB* pDev = Begin(devid, pIORB);
    OsAssertText(pIORB->pBuffer != nullptr, "pIORB->pBuffer");
    pIORB->taskID = 0;
    if (pDev != nullptr && pIORB->reqLen != 0 && pDev->write != nullptr) {
        pIORB->taskID = id_of(t_self());
        pDev->write(pDev, pIORB);
    }
}

void dev_ioctl(UInt32 devid, IORB* pIORB, UInt32 ctlCode) {
    DEVCB* pDev = Begin(devid, pIORB);
    pIORB->ctlCode = ctlCode;
    pIORB->taskID = pDev != nullptr ? id_of(t_self()) : 0;
    if (pDev == nullptr) {
        return;
    }
    if (pIORB->pUserCompFunc != nullptr && iorb_list_avail(&pDev->ioctlIORBs) > 0) {
        iorb_list_enqueue(&pDev->ioctlIORBs, pIORB);
        return;
    }
    OsAssertText(pDev->ioctl != nullptr, "pDev->ioctl");
    pDev->ioctl(pDev, pIORB);
}

SInt8* dev_name(UInt32 devid) {
    return DeviceOf(devid)->name;
}

UInt32 iorb_init(IORB* pIORB, void* pBuffer, void* pDstBuffer, UInt32 reqLen,
                 UserCompletionFuncT pUserCompFunc, UInt32 timeout) {
    OsAssertText(pIORB != nullptr, "pIORB");
    pIORB->pBuffer = static_cast<SInt8*>(pBuffer);
    pIORB->pDstBuffer = static_cast<SInt8*>(pDstBuffer);
    pIORB->reqLen = reqLen;
    pIORB->pUserCompFunc = pUserCompFunc;
    pIORB->timeout = timeout;
    memcpy(&pIORB->signature, "IORB", sizeof(pIORB->signature));
    pIORB->pNext = nullptr;
    pIORB->pPrevious = nullptr;
    pIORB->actLen = 0;
    pIORB->err = 0;
    pIORB->pDev = nullptr;
    pIORB->pChain = nullptr;
    return kDevOk;
}

UInt32 iorb_list_alloc(IORBList* pIORBList, UInt32 numIORBs) {
    OsAssertText(pIORBList != nullptr, "pIORBList");
    OsAssertText(numIORBs > 0, "numIORBs > 0");
    ClearList(pIORBList);
    IORB* block = static_cast<IORB*>(calloc(numIORBs, sizeof(IORB)));
    if (block == nullptr) {
        return kDevNoMemory;
    }
    for (UInt32 i = 0; i < numIORBs; i++) {
        iorb_list_enqueue(pIORBList, &block[i]);
    }
    return kDevOk;
}

UInt32 iorb_list_free(IORBList* pIORBList) {
    OsAssertText(pIORBList != nullptr, "pIORBList");
    free(pIORBList->pHead);
    ClearList(pIORBList);
    return kDevOk;
}

UInt32 iorb_list_avail(const IORBList* pIORBList) {
    OsAssertText(pIORBList != nullptr, "pIORBList");
    return static_cast<UInt32>(pIORBList->num);
}

UInt32 iorb_list_enqueue(IORBList* pIORBList, IORB* pIORB) {
    OsAssertText(pIORBList != nullptr, "pIORBList");
    OsAssertText(pIORB != nullptr, "pIORB");
    OsAssertText(pIORB->pNext == nullptr, "pIORB->pNext == ((void *)0)");
    OsAssertText(pIORB->pPrevious == nullptr, "pIORB->pPrevious == ((void *)0)");
    const InterruptsOffT off;
    pIORB->pPrevious = pIORBList->pTail;
    (pIORBList->pTail != nullptr ? pIORBList->pTail->pNext : pIORBList->pHead) = pIORB;
    pIORBList->pTail = pIORB;
    pIORBList->num++;
    return kDevOk;
}

IORB* iorb_list_dequeue(IORBList* pIORBList) {
    OsAssertText(pIORBList != nullptr, "pIORBList");
    const InterruptsOffT off;
    IORB* pIORB = pIORBList->pHead;
    if (pIORB != nullptr) {
        Unlink(pIORBList, pIORB);
    }
    return pIORB;
}

UInt32 iorb_list_extract(IORBList* pIORBList, IORB* pIORB) {
    OsAssertText(pIORBList != nullptr, "pIORBList");
    OsAssertText(pIORB != nullptr, "pIORB");
    const InterruptsOffT off;
    // A request that was dequeued meanwhile has no links: without this test it would take the
    // queue's ends with it.
    const bool first = pIORBList->pHead == pIORB;
    const bool last = pIORBList->pTail == pIORB;
    if ((first || pIORB->pPrevious != nullptr) && (last || pIORB->pNext != nullptr)) {
        Unlink(pIORBList, pIORB);
    }
    return kDevOk;
}

void add_dev_to_comp_task(DEVCB* pDev) {
    OsAssertText(pDev != nullptr, "pDev");
    pDev->flags |= kDevFlagCompletion;
    static pthread_mutex_t makingIt = PTHREAD_MUTEX_INITIALIZER;
    const MutexGuardT held(&makingIt);
    if (io_comp_task_id != 0) {
        return;
    }
    UInt32 task = 0;
    if (t_create("devc", kCompletionPriority, 0, 0, 0, &task) != kTaskOk) {
        return;
    }
    if (t_start(task, 0, io_comp_task, nullptr) == kTaskOk) {
        io_comp_task_id = task;
    } else {
        t_delete(task);
    }
}

int UFD_ISSET(int fd, const struct pollfd* ufds, int count) {
    for (int i = 0; i < count; i++) {
        if (ufds[i].fd == fd && ufds[i].revents != 0) {
            return 1;
        }
    }
    return 0;
}
