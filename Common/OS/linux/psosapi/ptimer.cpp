// The timer service: one task counts all timers down and fires what is due.
//
// One lock guards both lists. It is released while a timer fires, so functions and event sends may
// use every service. What keeps a block safe meanwhile: it stays linked, with gFiring naming it; a
// cancel unlinks it, tells the dispatcher through gFiringGone to keep off, and waits until the
// firing is over.
#include "Common/OS/linux/psosapi/ptimer.h"

#include <stdio.h>
#include <string.h>
#include <sys/select.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/log.h"

pthread_mutex_t tmcblistmutex = PTHREAD_MUTEX_INITIALIZER;
TMCB* timerList;
TMCB* freetimerList;
std::atomic<UInt32> timerid{0};
std::atomic<UInt32> gEpochMillisecs{0};

namespace {

constexpr UInt32 kMillisecondsPerTick = 10;
constexpr UInt32 kTicksPerSecond = 100;

TMCB TimerContBlocks[kTimerPoolSize];
bool gDue[kTimerPoolSize];  // expired and not yet fired; under tmcblistmutex, as all that follows
bool gPoolMade;
TMCB* gFiring;
TMCB gFiringCopy;  // what *gFiring held when its firing began
bool gFiringGone;
UInt32 gFirings;  // counts them, so that a canceller waits for one firing and not for the next
pthread_t gFiringThread;
pthread_cond_t gFired = PTHREAD_COND_INITIALIZER;

pthread_mutex_t gStartMutex = PTHREAD_MUTEX_INITIALIZER;  // starting the service; taken first

pthread_once_t gClockOnce = PTHREAD_ONCE_INIT;
volatile rtclk8349* gClock;

bool& Due(const TMCB* timer) {
    return gDue[timer - TimerContBlocks];
}

void SleepMicroseconds(long seconds, long microseconds) {
    timeval time;
    time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
    time.tv_usec = static_cast<decltype(time.tv_usec)>(microseconds);
    select(0, nullptr, nullptr, nullptr, &time);
}

bool Unlink(TMCB** list, TMCB* timer) {
    for (TMCB** link = list; *link != nullptr; link = &(*link)->next) {
        if (*link == timer) {
            *link = timer->next;
            timer->next = nullptr;
            return true;
        }
    }
    return false;
}

bool IsArmed(const TMCB* timer) {
    for (const TMCB* armed = timerList; armed != nullptr; armed = armed->next) {
        if (armed == timer) {
            return true;
        }
    }
    return false;
}

void MakePool() {
    MutexGuardT guard(&tmcblistmutex);
    if (gPoolMade) {
        return;
    }
    memset(TimerContBlocks, 0, sizeof(TimerContBlocks));
    for (int i = kTimerPoolSize - 1; i >= 0; i--) {
        TimerContBlocks[i].next = freetimerList;
        freetimerList = &TimerContBlocks[i];
    }
    gPoolMade = true;
}

// What a firing leaves behind, also when the firing thread is cancelled in the middle.
class FiringT {
  public:
    // Claims a due timer; false when it was cancelled meanwhile.
    bool Begin(TMCB* timer, TMCB* copy) {
        MutexGuardT guard(&tmcblistmutex);
        if (!Due(timer)) {
            return false;
        }
        Due(timer) = false;
        *copy = gFiringCopy = *timer;
        gFiring = timer_ = timer;
        gFiringGone = false;
        gFirings++;
        gFiringThread = pthread_self();
        return true;
    }

    void Rearm(bool again) { again_ = again; }

    ~FiringT() {
        if (timer_ == nullptr) {
            return;
        }
        MutexGuardT guard(&tmcblistmutex);
        const bool ours = !gFiringGone;
        if (ours && again_) {
            timer_->ticks = timer_->origTicks;
        } else if (ours) {
            Unlink(&timerList, timer_);
        }
        gFiring = nullptr;
        pthread_cond_broadcast(&gFired);
        guard.Unlock();
        if (ours && !again_) {
            FreeTimer(timer_);
        }
    }

  private:
    TMCB* timer_ = nullptr;
    bool again_ = false;
};

void Fire(TMCB* timer) {
    FiringT firing;
    TMCB copy;
    if (!firing.Begin(timer, &copy)) {
        return;
    }
    if (copy.cbptr != nullptr) {
        firing.Rearm(copy.cbptr(copy.pArgs) != 0);
    } else {
        firing.Rearm(copy.origTicks != 0);
        if (copy.taskID != 0) {
            ev_send(copy.taskID, copy.events);
        }
    }
}

// Whether the firing waits, in t_delete, for the calling task to end.
bool FiringDeletesCaller() {
    const TCB* self = t_self();
    return self != nullptr &&
           pthread_equal(self->deleter.load(std::memory_order_acquire), gFiringThread) != 0;
}

// Waits until the firing that is going on is over; not from within it, nor where it waits for the
// caller. tmcblistmutex is held.
void WaitForFiring() {
    const UInt32 firing = gFirings;
    if (FiringDeletesCaller()) {
        return;
    }
    while (gFiring != nullptr && gFirings == firing &&
           pthread_equal(gFiringThread, pthread_self()) == 0) {
        pthread_cond_wait(&gFired, &tmcblistmutex);
    }
}

// Takes an armed timer off the list and frees its block. tmcblistmutex is held.
void Disarm(TMCB* timer) {
    Unlink(&timerList, timer);
    Due(timer) = false;
    if (gFiring == timer) {
        gFiringGone = true;
    }
    timer->next = freetimerList;
    freetimerList = timer;
}

UInt32 Arm(const TMCB& wanted, UInt32* tmid) {
    StartSystemTimer();
    UInt32 self;
    t_ident(nullptr, 0, &self);
    MutexGuardT guard(&tmcblistmutex);
    TMCB* timer = freetimerList;
    if (timer == nullptr) {
        guard.Unlock();
        *tmid = 0;
        logcrit("os", "AllocTimer failed\n");
        return 0;
    }
    freetimerList = timer->next;
    *timer = wanted;
    timer->taskID = self;
    timer->next = nullptr;
    *tmid = id_of(timer);
    TMCB** link = &timerList;
    while (*link != nullptr) {
        link = &(*link)->next;
    }
    *link = timer;
    return 0;
}

// Forgets the timer task when it ends, so that the next arming starts a new one.
class TimerTaskT {
  public:
    ~TimerTaskT() { timerid.store(0, std::memory_order_release); }
};

void TimerTask(UInt32, UInt32, UInt32, UInt32) {
    const TimerTaskT running;
    for (;;) {
        tm_dispatch();
        SleepMicroseconds(0, kMillisecondsPerTick * 1000);
    }
}

bool TimerTaskLives() {
    const UInt32 task = timerid.load(std::memory_order_acquire);
    return task != 0 && t_exists(task) != 0;
}

void StartClock() {
    gClock = BoardStartClock();
}

}  // namespace

UInt32 GetMillisecondsPerTick() {
    return kMillisecondsPerTick;
}

float GetProcessorFrequency() {
    return 66666664.0F;
}

UInt32 CYCLES() {
    return BoardCycles();
}

UInt32 tm_wkafter(UInt32 ticks) {
    SleepMicroseconds(static_cast<long>(ticks / kTicksPerSecond),
                      static_cast<long>(ticks % kTicksPerSecond * kMillisecondsPerTick * 1000));
    return 0;
}

void udelay(UInt32 delay) {
    SleepMicroseconds(0, static_cast<long>(delay));
}

void init_rtcp() {
    pthread_once(&gClockOnce, StartClock);
}

UInt32 RealTimeMilliSeconds() {
    init_rtcp();
    return gClock != nullptr ? BoardClockMilliseconds(gClock) : 0;
}

UInt32 millitime(UInt32* mstp) {
    const UInt32 now = RealTimeMilliSeconds();
    if (mstp != nullptr) {
        *mstp = now;
    }
    return now;
}

UInt32 GetTickCountLinux() {
    return RealTimeMilliSeconds() / kMillisecondsPerTick;
}

UInt32 RealTime() {
    return RealTimeMilliSeconds() / 1000;
}

UInt32 tm_evafter(UInt32 ticks, UInt32 events, UInt32* tmid) {
    return Arm({0, ticks, 0, events, nullptr, nullptr, nullptr}, tmid);
}

UInt32 tm_evevery(UInt32 ticks, UInt32 events, UInt32* tmid) {
    return Arm({0, ticks, ticks, events, nullptr, nullptr, nullptr}, tmid);
}

UInt32 tm_callback_after(UInt32 ticks, UInt32* tmid, tm_callback_ptr cbhandler, void* pArgs) {
    return Arm({0, ticks, ticks, 0, cbhandler, pArgs, nullptr}, tmid);
}

UInt32 tm_cancel(UInt32 tmid) {
    TMCB* timer = from_id<TMCB>(tmid);
    CancellableMutexGuardT guard(&tmcblistmutex);
    const bool armed = IsArmed(timer);
    if (armed) {
        Disarm(timer);
    }
    // Also where somebody else has disarmed it: the caller may be about to free what it uses.
    if (timer != nullptr && gFiring == timer) {
        WaitForFiring();
    }
    guard.Unlock();
    if (!armed) {
        printf("RemoveTimer: %p not found\n", static_cast<void*>(timer));
    }
    return 0;
}

void tm_cancel_own(UInt32 tmid, UInt32 taskID, tm_callback_ptr cbhandler) {
    TMCB* timer = from_id<TMCB>(tmid);
    CancellableMutexGuardT guard(&tmcblistmutex);
    if (IsArmed(timer) && timer->taskID == taskID && timer->cbptr == cbhandler) {
        Disarm(timer);
    }
    if (gFiring == timer && gFiringCopy.taskID == taskID) {
        WaitForFiring();
    }
}

void tm_cancel_all_of(UInt32 taskID, tm_callback_ptr quick) {
    CancellableMutexGuardT guard(&tmcblistmutex);
    for (TMCB* timer = timerList; timer != nullptr;) {
        TMCB* next = timer->next;
        if (timer->taskID == taskID) {
            Disarm(timer);
        }
        timer = next;
    }
    if (gFiring != nullptr && gFiringCopy.taskID == taskID &&
        (gFiringCopy.cbptr == nullptr || gFiringCopy.cbptr == quick)) {
        WaitForFiring();
    }
}

void FreeTimer(TMCB* pTimer) {
    if (pTimer == nullptr) {
        logwarn("os", "FreeTimer called with NULL pTimer\n");
        return;
    }
    MutexGuardT guard(&tmcblistmutex);
    const UInt32 next = id_of(pTimer->next);
    // A block that is on the free list moves to its head: it must not be there twice.
    const bool was_free = Unlink(&freetimerList, pTimer);
    pTimer->next = freetimerList;
    freetimerList = pTimer;
    guard.Unlock();
    if (next != 0) {
        logcrit("os", "FreeTimer pTimer is not consistent pTimer: %08x pTimer->next: %08x\n",
                id_of(pTimer), next);
    }
    if (was_free) {
        logcrit("os", "FreeTimer pList is not consistent pList: %08x\n", id_of(pTimer));
    }
}

void StartSystemTimer() {
    if (TimerTaskLives()) {
        return;
    }
    MutexGuardT guard(&gStartMutex);
    if (TimerTaskLives()) {
        return;
    }
    MakePool();
    UInt32 task;
    if (t_create("tmtk", 66, 0, 0, 0, &task) == kTaskOk) {
        timerid.store(task, std::memory_order_release);
        if (t_start(task, 0, TimerTask, nullptr) != kTaskOk) {
            timerid.store(0, std::memory_order_release);
            t_delete(task);
        }
    }
}

void tm_dispatch() {
    gEpochMillisecs.fetch_add(kMillisecondsPerTick, std::memory_order_relaxed);
    TMCB* due[kTimerPoolSize];
    int count = 0;
    {
        MutexGuardT guard(&tmcblistmutex);
        for (TMCB* timer = timerList; timer != nullptr; timer = timer->next) {
            // One that was due already missed its turn when the timer task was deleted.
            if (Due(timer) || --timer->ticks == 0) {
                Due(timer) = true;
                due[count++] = timer;
            }
        }
    }
    for (int i = 0; i < count; i++) {
        Fire(due[i]);
    }
}
