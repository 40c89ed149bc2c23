// The timer service: one task counts all timers down and fires what is due.
//
// One lock guards both lists and the dispatch. It is released while a timer fires, so functions and
// event sends may use every service; DispatchT says what holds meanwhile.
#include "Common/OS/linux/psosapi/ptimer.h"

#include <stdio.h>
#include <string.h>
#include <sys/select.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tcb.h"
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

// What is due and what is being fired. Whenever tmcblistmutex is free:
//   - A block is due only while it is armed: its ticks are over and its firing has not begun.
//   - `firing` is null, or the block whose function or event send `thread` is running. Until it is
//     `disarmed` that block stays armed with the contents of `copy`, and only the end of its firing
//     takes it off the list. Once disarmed it may be free or armed for something else, and the
//     firing leaves it alone.
//   - Who cancels the timer that is being fired waits until `firing` is null or `number` has moved
//     on, so that what the timer uses may go; who cancels a newer timer in its block does not. Two
//     others do not wait: the firing's own thread, and a task whose end that thread waits for,
//     also by way of other tasks' ends.
struct DispatchT {
    bool due[kTimerPoolSize];
    TMCB* firing;
    TMCB copy;  // what *firing held when its firing began
    bool disarmed;
    UInt32 number;  // of the firing; counts all of them
    pthread_t thread;
    pthread_cond_t changed;  // a firing is over, or somebody waits for a task's end
};
DispatchT gDispatch = {{}, nullptr, {}, false, 0, {}, PTHREAD_COND_INITIALIZER};

pthread_mutex_t gStartMutex = PTHREAD_MUTEX_INITIALIZER;  // starting the service; taken first
bool gPoolMade;                                           // under gStartMutex

pthread_once_t gClockOnce = PTHREAD_ONCE_INIT;
std::atomic<bool> gClockStarted{false};
std::atomic<volatile rtclk8349*> gClock{nullptr};

bool& Due(const TMCB* timer) {
    return gDispatch.due[timer - TimerContBlocks];
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
    for (int i = kTimerPoolSize - 1; i >= 0; i--) {
        TimerContBlocks[i].next = freetimerList;
        freetimerList = &TimerContBlocks[i];
    }
}

// One firing, ended also when its thread is cancelled in the middle.
class FiringT {
  public:
    // Begins to fire the first due timer and copies it; false when none is due.
    bool Begin(TMCB* copy) {
        MutexGuardT guard(&tmcblistmutex);
        timer_ = timerList;
        while (timer_ != nullptr && !Due(timer_)) {
            timer_ = timer_->next;
        }
        if (timer_ == nullptr) {
            return false;
        }
        Due(timer_) = false;
        gDispatch.firing = timer_;
        *copy = gDispatch.copy = *timer_;
        gDispatch.disarmed = false;
        gDispatch.number++;
        gDispatch.thread = pthread_self();
        return true;
    }

    void Rearm(bool again) { again_ = again; }

    ~FiringT() {
        if (timer_ == nullptr) {
            return;
        }
        MutexGuardT guard(&tmcblistmutex);
        const bool ours = !gDispatch.disarmed;
        if (ours && again_) {
            timer_->ticks = timer_->origTicks;
        } else if (ours) {
            Unlink(&timerList, timer_);
        }
        gDispatch.firing = nullptr;
        pthread_cond_broadcast(&gDispatch.changed);
        guard.Unlock();
        if (ours && !again_) {
            FreeTimer(timer_);
        }
    }

  private:
    TMCB* timer_ = nullptr;
    bool again_ = false;
};

// Fires the first due timer; false when none is.
bool FireNext() {
    FiringT firing;
    TMCB copy;
    if (!firing.Begin(&copy)) {
        return false;
    }
    if (copy.cbptr != nullptr) {
        firing.Rearm(copy.cbptr(copy.pArgs) != 0);
    } else {
        firing.Rearm(copy.origTicks != 0);
        if (copy.taskID != 0) {
            ev_send(copy.taskID, copy.events);
        }
    }
    return true;
}

// Waits until the firing that is going on is over. tmcblistmutex is held.
void WaitForFiring() {
    const TCB* self = t_self();
    const UInt32 number = gDispatch.number;
    while (gDispatch.firing != nullptr && gDispatch.number == number &&
           pthread_equal(gDispatch.thread, pthread_self()) == 0 &&
           !t_is_waited_for_by(self, gDispatch.thread)) {
        pthread_cond_wait(&gDispatch.changed, &tmcblistmutex);
    }
}

// Takes an armed timer off the list and frees its block. tmcblistmutex is held.
void Disarm(TMCB* timer) {
    Unlink(&timerList, timer);
    Due(timer) = false;
    if (gDispatch.firing == timer) {
        gDispatch.disarmed = true;
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
    ~TimerTaskT() { timerid = 0; }
};

void TimerTask(UInt32, UInt32, UInt32, UInt32) {
    const TimerTaskT running;
    for (;;) {
        tm_dispatch();
        SleepMicroseconds(0, kMillisecondsPerTick * 1000);
    }
}

bool TimerTaskLives() {
    const UInt32 task = timerid;
    return task != 0 && t_exists(task) != 0;
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
    gClock = BoardStartClock();
    gClockStarted = true;
}

UInt32 RealTimeMilliSeconds() {
    if (!gClockStarted) {
        pthread_once(&gClockOnce, init_rtcp);
    }
    const volatile rtclk8349* clock = gClock;
    return clock != nullptr ? BoardClockMilliseconds(clock) : 0;
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
    const bool newer = armed && gDispatch.disarmed;  // than the firing, if that is of the block
    if (armed) {
        Disarm(timer);
    }
    // Also where somebody else has disarmed it: the caller may be about to free what it uses.
    if (timer != nullptr && gDispatch.firing == timer && !newer) {
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
    if (gDispatch.firing == timer && gDispatch.copy.taskID == taskID &&
        gDispatch.copy.cbptr == cbhandler) {
        WaitForFiring();
    }
}

void tm_end_of_task(UInt32 taskID, tm_callback_ptr timeout) {
    const auto goes = [taskID, timeout](const TMCB& timer) {
        return timer.taskID == taskID && (timer.cbptr == nullptr || timer.cbptr == timeout);
    };
    CancellableMutexGuardT guard(&tmcblistmutex);
    for (TMCB* timer = timerList; timer != nullptr;) {
        TMCB* next = timer->next;
        if (goes(*timer)) {
            Disarm(timer);
        }
        timer = next;
    }
    if (gDispatch.firing != nullptr && goes(gDispatch.copy)) {
        WaitForFiring();
    }
}

void tm_task_is_waited_for() {
    MutexGuardT guard(&tmcblistmutex);
    pthread_cond_broadcast(&gDispatch.changed);
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
    if (!gPoolMade) {
        MakePool();
        gPoolMade = true;
    }
    UInt32 task;
    if (t_create("tmtk", 66, 0, 0, 0, &task) == kTaskOk) {
        timerid = task;
        if (t_start(task, 0, TimerTask, nullptr) != kTaskOk) {
            timerid = 0;
            t_delete(task);
        }
    }
}

void tm_dispatch() {
    gEpochMillisecs += kMillisecondsPerTick;
    {
        MutexGuardT guard(&tmcblistmutex);
        for (TMCB* timer = timerList; timer != nullptr; timer = timer->next) {
            // One that was due already missed its turn when the timer task was deleted.
            Due(timer) = Due(timer) || --timer->ticks == 0;
        }
    }
    while (FireNext()) {
    }
}
