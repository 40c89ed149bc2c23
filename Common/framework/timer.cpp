// Framework timers and the task that counts them down.
//
// A timer is on one of the timer task's lists or on none; `running` says whether its owner wants it
// to run, so a stop only clears that. Lists and timers change under timerSemaphore, and a timer
// changes its place in Move alone:
//
//   from         to         by
//   off          active     a start request, in the timer task
//   active       timed out  the tick that finds no time left
//   timed out    off        its owner, who is about to run its function or starts it anew
//   any          off        its end, its owner task's end, the tick that finds it stopped
//
// A start is a deferred call to the timer task. The timer's time is set anew at once as well: a
// timer that is about to expire, or has expired and not been served, does not run for its old
// start. timerSemaphore is made with the first timer task and stays for the later ones. gLifeMutex
// covers the timer task's life and gTimers, and is taken before timerSemaphore.
#include "Common/framework/timer.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <bit>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/log.h"
#include "Common/framework/address.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"
#include "Common/framework/taskname.h"

std::atomic<eSysStateT> SysState{kSysStateRunning};
std::atomic<TimerT*> gTimers[kTimerMaxTimers];
std::atomic<int> numTimers{0};
std::atomic<UInt32> timerSemaphore{0};
std::atomic<Boolean> TimerTaskStarted{0};
TimerTaskT gTimerTask;

namespace {

constexpr UInt32 kTimerTaskPriority = 64;
constexpr UInt32 kPollMicroseconds = 200;

struct SignatureTextT {
    char text[4];
};
constexpr unsigned kSignature = std::bit_cast<unsigned>(SignatureTextT{{'T', 'I', 'M', '2'}});

// The timer task's life: made and told to end under gLifeMutex; it runs and ends by itself.
enum class LifeT { kStopped, kStarting, kRunning, kEnding };
std::atomic<LifeT> gLife{LifeT::kStopped};
pthread_mutex_t gLifeMutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<UInt32> gTimerTaskID{0};

// The lists and timers for a scope.
struct TimerLockT : SemGuardT {
    TimerLockT() : SemGuardT(timerSemaphore) {}
};

struct ServingT;
thread_local ServingT* gServing;

// A timer whose function runs just now in this task, the innermost first. A function may end a
// timer; the record, then null here, is not touched again.
struct ServingT {
    explicit ServingT(TimerT* timer) : pTimer(timer), outer(gServing) { gServing = this; }
    ~ServingT() { gServing = outer; }
    ServingT(const ServingT&) = delete;
    ServingT& operator=(const ServingT&) = delete;

    TimerT* pTimer;
    ServingT* outer;
};

TimerT* TimerOf(ListT* node) {
    return reinterpret_cast<TimerT*>(node);
}

ListT** ListAt(TimerPlaceT place) {
    return place == kTimerActive ? &gTimerTask.pActiveTimers : &gTimerTask.pTimedOutTimers;
}

// timerSemaphore is held for what follows, down to Tick.
void Move(TimerT* pTimer, TimerPlaceT place) {
    if (pTimer->place != kTimerOffList) {
        ListExtractUnprot(ListAt(pTimer->place), &pTimer->list);
    }
    if (place != kTimerOffList) {
        ListEnqueueUnprot(ListAt(place), &pTimer->list);
    }
    pTimer->place = place;
}

void TakeOff(TimerT* pTimer) {
    Move(pTimer, kTimerOffList);
}

// Calls `visit` for each timer of a list; it may move that timer.
template <typename VisitT>
void ForEachTimer(TimerPlaceT place, VisitT visit) {
    ListT** list = ListAt(place);
    int left = ListLenUnprot(list);
    for (ListT* at = *list; left > 0; left--) {
        ListT* next = at->next;
        visit(TimerOf(at));
        at = next;
    }
}

// Begins a timer's full time and its statistics. A `time` of 0 keeps the timer's.
void Rewind(TimerT* pTimer, int time) {
    if (time != 0) {
        pTimer->time = time;
    }
    pTimer->ticks = pTimer->time;
    pTimer->rtms = pTimer->lastTime = RealTimeMilliSeconds();
    pTimer->numExecs = 0;
    pTimer->maxLatency = 0;
    pTimer->maxExecTime = 0;
    pTimer->totalExecTime = 0;
    if (pTimer->place == kTimerTimedOut) {
        TakeOff(pTimer);
    }
}

void CountDown(TimerT* pTimer, UInt32 now) {
    // A clock that was started anew is behind: that is no time.
    pTimer->ticks -= std::max(static_cast<int>(now - pTimer->rtms), 0);
    pTimer->rtms = now;
    if (pTimer->ticks < 1) {
        Move(pTimer, kTimerTimedOut);
        OsAssertText(pTimer->taskID != gTimerTask.mod.taskID,
                     "pTimer->taskID != gTimerTask.mod.taskID");
        ev_send(pTimer->taskID, kModEventTimer);
    }
}

void Tick() {
    const TimerLockT lock;
    const UInt32 now = RealTimeMilliSeconds();
    for (const TimerPlaceT place : {kTimerTimedOut, kTimerActive}) {
        ForEachTimer(place, [place, now](TimerT* pTimer) {
            if (pTimer->running == 0) {
                TakeOff(pTimer);
            } else if (place == kTimerActive) {
                CountDown(pTimer, now);
            }
        });
    }
}

// Both run in the timer task.
void DeferredStart(void* userDefined, void* pArgs) {
    auto* pTimer = static_cast<TimerT*>(userDefined);
    int time;
    memcpy(&time, pArgs, sizeof(time));
    const TimerLockT lock;
    if (TimerTaskStarted == 0 || pTimer->signature != kSignature) {
        return;
    }
    Rewind(pTimer, time);
    if (pTimer->running != 0 && pTimer->place == kTimerOffList) {
        Move(pTimer, kTimerActive);
    }
}

void DeferredStopTask(void*, void* pArgs) {
    UInt32 taskID;
    memcpy(&taskID, pArgs, sizeof(taskID));
    const TimerLockT lock;
    for (const TimerPlaceT place : {kTimerTimedOut, kTimerActive}) {
        ForEachTimer(place, [taskID](TimerT* pTimer) {
            if (pTimer->taskID == taskID) {
                pTimer->running = 0;
                TakeOff(pTimer);
            }
        });
    }
}

// The timer task's run: its destructor is the task's end, whatever brings it.
class TimerTaskRunT {
  public:
    TimerTaskRunT();
    ~TimerTaskRunT();
    TimerTaskRunT(const TimerTaskRunT&) = delete;
    TimerTaskRunT& operator=(const TimerTaskRunT&) = delete;

    // Waits for events, a tick being one of them. False when the task cannot go on.
    bool Wait(UInt32* events) const;

  private:
    UInt32 tick_ = 0;
};

TimerTaskRunT::TimerTaskRunT() {
    const NoCancelT no_cancel;
    gTimerTask.mod = {};
    ModInit(&gTimerTask.mod, "TimerTask", 0, nullptr);
    UInt32 smid = timerSemaphore;
    if (smid == 0) {
        OsAssert(sm_create("fwtm", 1, 0, &smid) == kSmOk);
        timerSemaphore = smid;
    }
    tm_evevery(1, kModEventTimer, &tick_);
    if (tick_ == 0) {
        logwarn(
            "TIMER",
            "no system timer is free: the task of the framework timers sleeps from tick to tick\n");
    }
    TimerTaskStarted = 1;
    gLife = LifeT::kRunning;
}

TimerTaskRunT::~TimerTaskRunT() {
    const NoCancelT no_cancel;
    {
        const TimerLockT lock;
        ForEachTimer(kTimerActive, TakeOff);
        ForEachTimer(kTimerTimedOut, TakeOff);
        TimerTaskStarted = 0;
    }
    if (tick_ != 0) {
        tm_cancel(tick_);
    }
    ModExit(&gTimerTask.mod);
    gLife = LifeT::kStopped;
}

bool TimerTaskRunT::Wait(UInt32* events) const {
    if (tick_ != 0) {
        return ev_receive(kModEventsAll, kEvAny, 0, events) == kTaskOk;
    }
    tm_wkafter(1);
    *events = 0;
    ev_receive(kModEventsAll, kEvAny | kEvNoWait, 0, events);
    *events |= kModEventTimer;
    return true;
}

void TimerTask(UInt32, UInt32, UInt32, UInt32) {
    const TimerTaskRunT run;
    UInt32 events = 0;
    while ((events & kModEventExit) == 0 && run.Wait(&events)) {
        if ((events & kModEventDeferredFunc) != 0) {
            ModProcessDeferredFunctions();
        }
        if ((events & kModEventTimer) != 0 && SysState != kSysStateShuttingDown) {
            Tick();
        }
    }
}

// Makes the timer task. False when that fails; gLifeMutex is held, as for the two that follow.
bool MakeTimerTask() {
    for (std::atomic<TimerT*>& slot : gTimers) {
        slot = nullptr;
    }
    numTimers = 0;
    UInt32 task = 0;
    if (t_create("TMRT", kTimerTaskPriority, 0, 0, 0, &task) == kTaskOk) {
        gTimerTaskID = task;
        gLife = LifeT::kStarting;
        if (t_start(task, 0, TimerTask, nullptr) == kTaskOk) {
            return true;
        }
        gLife = LifeT::kStopped;
        t_delete(task);
    }
    puts("ERROR, can't create Timer task");
    return false;
}

// Makes the timer task unless it runs, and waits until it does.
void InitTimerTask() {
    while (gLife != LifeT::kRunning) {
        if (gLife == LifeT::kStopped && !MakeTimerTask()) {
            return;
        }
        tm_wkafter(1);
    }
}

void EndTimerTask() {
    LifeT running = LifeT::kRunning;
    if (gLife.compare_exchange_strong(running, LifeT::kEnding)) {
        ev_send(gTimerTaskID, kModEventExit);
    }
}

std::atomic<TimerT*>* FindInDiagnostics(const TimerT* pTimer) {
    for (std::atomic<TimerT*>& slot : gTimers) {
        if (slot == pTimer) {
            return &slot;
        }
    }
    return nullptr;
}

void FillTimer(TimerT* pTimer, int time, TimerFuncPtrT pFunc, void* userDefined, int periodic) {
    *pTimer = {};
    pTimer->time = time;
    pTimer->pFunc = pFunc;
    pTimer->userDefined = userDefined;
    pTimer->periodic = periodic;
    pTimer->list.next = &pTimer->list;
    pTimer->list.prev = &pTimer->list;
    pTimer->taskID = ModSelf();
    pTimer->signature = kSignature;
}

// The first expired timer of a task that is still to run, off its list and begun; null if there is
// none.
TimerT* BeginService(UInt32 self) {
    const TimerLockT lock;
    TimerT* found = nullptr;
    ForEachTimer(kTimerTimedOut, [self, &found](TimerT* pTimer) {
        if (found == nullptr && pTimer->taskID == self) {
            TakeOff(pTimer);
            found = pTimer->running != 0 ? pTimer : nullptr;
        }
    });
    if (found != nullptr) {
        const UInt32 now = RealTimeMilliSeconds();
        found->maxLatency = std::max(found->maxLatency, now - found->lastTime);
        found->lastTime = now;
        if (found->periodic == 0) {
            found->running = 0;
        }
    }
    return found;
}

// Counts a run of `took` ms. Returns whether the timer is to be armed again.
bool EndService(TimerT* pTimer, unsigned took) {
    const TimerLockT lock;
    pTimer->totalExecTime += took;
    pTimer->maxExecTime = std::max(pTimer->maxExecTime, took);
    pTimer->numExecs++;
    return pTimer->periodic != 0 && pTimer->running != 0;
}

// Prints a timer, whose fields `timer` holds.
void Print(const TimerT* pTimer, const TimerT& timer) {
    printf("%8.8x %3.3s %4.4s %8u %8u %3.3s %8.8x %8x %8u %8u\n", shown_address(pTimer),
           timer.running != 0 ? " Y " : " N ", TaskNameT(timer.taskID).Text(),
           static_cast<unsigned>(timer.time), timer.maxLatency, timer.periodic != 0 ? " Y " : " N ",
           timer.timerID, shown_address(timer.pFunc),
           timer.numExecs != 0 ? timer.totalExecTime / timer.numExecs : 0, timer.maxExecTime);
}

}  // namespace

eErrorT TimerManInit() {
    const MutexGuardT guard(&gLifeMutex);
    InitTimerTask();
    return kNoError;
}

void TimerManExit() {
    const MutexGuardT guard(&gLifeMutex);
    EndTimerTask();
}

eErrorT TimerInit(TimerT* pTimer, int time, TimerFuncPtrT pFunc, void* userDefined, int periodic) {
    OsAssert(pTimer);
    OsAssert(pFunc);
    const MutexGuardT guard(&gLifeMutex);
    InitTimerTask();
    if (time < kTimerMinTime) {
        return kBadParameter;
    }
    if (pTimer->signature == kSignature) {
        printf("TimerInit: ERROR, this timer has already been initialized! Timer = 0x%x\n",
               shown_address(pTimer));
        return kFuncReturnedError;
    }
    std::atomic<TimerT*>* slot = FindInDiagnostics(pTimer);
    if (slot != nullptr) {
        printf("TimerInit: WARN, this timer is already in diagnostics list! Timer = 0x%x\n",
               shown_address(pTimer));
        puts("TimerInit: Timer signature is wrong. This is inconsistency.");
    }
    FillTimer(pTimer, time, pFunc, userDefined, periodic);
    if (slot == nullptr) {
        slot = FindInDiagnostics(nullptr);
        if (slot != nullptr) {
            *slot = pTimer;
            numTimers++;
        } else {
            puts("WARN: TimerInit : Cannot add timer to list of timers, list full. ");
        }
    }
    return kNoError;
}

eErrorT TimerStart(TimerT* pTimer) {
    return TimerStartWithTime(pTimer, 0);
}

eErrorT TimerStartWithTime(TimerT* pTimer, int time) {
    OsAssert(pTimer);
    if (gLife != LifeT::kRunning) {
        return kNoError;
    }
    {
        const TimerLockT lock;
        Rewind(pTimer, time);
        pTimer->running = 1;
    }
    if (ModDeferFunctionCall(gTimerTaskID, DeferredStart, pTimer, &time, sizeof(time)) !=
        kNoError) {
        TimerStop(pTimer);  // the timer task has just ended
    }
    return kNoError;
}

eErrorT TimerStop(TimerT* pTimer) {
    OsAssert(pTimer);
    const TimerLockT lock;
    pTimer->running = 0;
    return kNoError;
}

Boolean TimerRunning(TimerT* pTimer) {
    OsAssert(pTimer);
    const TimerLockT lock;
    return pTimer->running;
}

eErrorT TimerExit(TimerT* pTimer) {
    OsAssert(pTimer);
    const NoCancelT no_cancel;
    TimerStop(pTimer);
    if (pTimer->signature == kSignature) {
        ModCancelDeferredFunctions(DeferredStart, pTimer);  // waits for one that is being done
        const TimerLockT lock;
        TakeOff(pTimer);
        pTimer->signature = 0;
    }
    for (ServingT* serving = gServing; serving != nullptr; serving = serving->outer) {
        if (serving->pTimer == pTimer) {
            serving->pTimer = nullptr;
        }
    }
    const MutexGuardT guard(&gLifeMutex);
    std::atomic<TimerT*>* slot = FindInDiagnostics(pTimer);
    if (slot == nullptr) {
        puts("TimerExit: Error! pTimer is not in gTimers diagnostics list");
        return kBadParameter;
    }
    *slot = nullptr;
    const int left = --numTimers;
    OsAssertText(left >= 0, "numTimers >= 0");
    if (left == 0) {
        EndTimerTask();
    }
    return kNoError;
}

eErrorT TimerStopByTaskID(UInt32 taskID) {
    if (TimerTaskStarted == 0) {
        return kNoError;
    }
    // In the timer task, after all start requests of the task. The task's number names the request,
    // so that its end can be waited for: its maker is about to give up the timers' memory.
    const UInt32 timer_task = gTimerTaskID;
    void* name = from_id<void>(taskID);
    if (ModSelf() == timer_task || ModDeferFunctionCall(timer_task, DeferredStopTask, name, &taskID,
                                                        sizeof(taskID)) != kNoError) {
        DeferredStopTask(nullptr, &taskID);
        return kNoError;
    }
    while (ModCountDeferredFunctions(DeferredStopTask, name) != 0) {
        udelay(kPollMicroseconds);
    }
    return kNoError;
}

void TimerProcessAll() {
    const UInt32 self = ModSelf();
    while (TimerT* pTimer = self != 0 ? BeginService(self) : nullptr) {
        const UInt32 began = RealTimeMilliSeconds();
        const ServingT serving(pTimer);
        pTimer->pFunc(pTimer->userDefined);
        if (serving.pTimer != nullptr && EndService(pTimer, RealTimeMilliSeconds() - began)) {
            TimerStartWithTime(pTimer, 0);
        }
    }
}

void TimerDumpHeading() {
    puts("Timer    run task time(mS) maxLaten per timerID  pFunc    avgExec  maxExec ");
    puts("-------- --- ---- -------- -------- --- -------- -------- -------- --------");
}

void TimerDump(TimerT* pTimer, int) {
    OsAssert(pTimer);
    TimerT timer;
    {
        const TimerLockT lock;
        timer = *pTimer;
    }
    Print(pTimer, timer);
}

void TimerDumpActive() {
    TimerDumpHeading();
    const TimerLockT lock;
    ForEachTimer(kTimerActive, [](TimerT* pTimer) { Print(pTimer, *pTimer); });
}

void TimerDumpAll() {
    TimerDumpHeading();
    for (const std::atomic<TimerT*>& slot : gTimers) {
        // A timer that ends leaves its slot under the mutex: while it is held the record stays.
        const MutexGuardT guard(&gLifeMutex);
        if (TimerT* pTimer = slot) {
            TimerDump(pTimer, 0);
        }
    }
}
