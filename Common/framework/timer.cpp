// Framework timers and the task that counts them down.
//
// Both lists are guarded by timerSemaphore, which lives as long as the timer task runs; TimerLockT
// keeps the task from deleting it while somebody is about to use it. A timer is put on the active
// list only by the timer task, as a deferred call; `running` says whether the owner wants it to
// run, so a stop holds even when a start request is still on its way. A timer counts those requests
// and a timer that goes takes them back.
#include "Common/framework/timer.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <bit>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/log.h"
#include "Common/framework/address.h"
#include "Common/framework/semguard.h"
#include "Common/framework/sharedfield.h"
#include "Common/framework/taskname.h"

std::atomic<eSysStateT> SysState{kSysStateRunning};
std::atomic<TimerT*> gTimers[kTimerMaxTimers];
std::atomic<int> numTimers{0};
UInt32 timerSemaphore;
std::atomic<Boolean> TimerTaskStarted{0};
TimerTaskT gTimerTask;

namespace {

constexpr UInt32 kTimerTaskPriority = 64;
constexpr UInt32 kPollMicroseconds = 200;

struct SignatureTextT {
    char text[4];
};
constexpr unsigned kSignature = std::bit_cast<unsigned>(SignatureTextT{{'T', 'I', 'M', '2'}});

// Where the timer task is in its life. It is told to end under gLifeMutex and ends by itself.
typedef enum : UInt32 { kStopped = 0, kStarted = 1, kEnding = 2 } TimerTaskLifeT;
std::atomic<TimerTaskLifeT> gLife{kStopped};
pthread_mutex_t gLifeMutex = PTHREAD_MUTEX_INITIALIZER;

std::atomic<UInt32> gTimerTaskID{0};
std::atomic<int> gLockUsers{0};

// The timers whose functions run just now in this task, the innermost first: a function may end its
// own timer, whose record is then not touched again.
struct ServingT {
    TimerT* pTimer;
    ServingT* outer;
};
thread_local ServingT* gServing;

UInt32 Self() {
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    return self;
}

TimerT* TimerOf(ListT* node) {
    return reinterpret_cast<TimerT*>(node);
}

// Holds timerSemaphore for a scope, if the timer task runs.
class TimerLockT {
  public:
    explicit TimerLockT(UInt32 opt = 0) {
        gLockUsers.fetch_add(1);
        if (TimerTaskStarted.load() != 0 && sm_p(timerSemaphore, opt, 0) == kSmOk) {
            held_ = true;
            if (TimerTaskStarted.load() == 0) {  // ended while this waited
                Release();
            }
        }
    }
    ~TimerLockT() {
        Release();
        gLockUsers.fetch_sub(1);
    }
    TimerLockT(const TimerLockT&) = delete;
    TimerLockT& operator=(const TimerLockT&) = delete;

    bool Held() const { return held_; }
    void Release() {
        if (held_) {
            held_ = false;
            sm_v(timerSemaphore);
        }
    }

  private:
    NoCancelT no_cancel_;
    bool held_ = false;
};

ListT** ListAt(TimerPlaceT place) {
    return place == kTimerActive ? &gTimerTask.pActiveTimers : &gTimerTask.pTimedOutTimers;
}

// The lock is held for the three that follow.
void TakeOffList(TimerT* pTimer) {
    if (pTimer->place != kTimerOffList) {
        ListExtractUnprot(ListAt(pTimer->place), &pTimer->list);
        pTimer->place = kTimerOffList;
    }
}

void PutOnList(TimerT* pTimer, TimerPlaceT place) {
    ListEnqueueUnprot(ListAt(place), &pTimer->list);
    pTimer->place = place;
}

// Calls `visit` for each timer of a list; it may take that timer off.
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

// Both run in the timer task.
void DeferredStart(void* userDefined, void* pArgs) {
    auto* pTimer = static_cast<TimerT*>(userDefined);
    int time;
    memcpy(&time, pArgs, sizeof(time));
    const TimerLockT lock;
    if (lock.Held() && FieldRead(pTimer->signature) == kSignature) {
        if (time != 0) {
            FieldWrite(pTimer->time, time);
        }
        const UInt32 now = RealTimeMilliSeconds();
        FieldWrite(pTimer->ticks, FieldRead(pTimer->time));
        FieldWrite(pTimer->rtms, now);
        FieldWrite(pTimer->lastTime, now);
        FieldWrite(pTimer->numExecs, 0U);
        FieldWrite(pTimer->maxLatency, 0U);
        FieldWrite(pTimer->maxExecTime, 0U);
        FieldWrite(pTimer->totalExecTime, 0U);
        if (pTimer->place == kTimerTimedOut) {
            TakeOffList(pTimer);
        }
        if (FieldRead(pTimer->running) != 0 && pTimer->place == kTimerOffList) {
            PutOnList(pTimer, kTimerActive);
        }
    }
    // The last that is done with the timer: see TimerExit.
    std::atomic_ref<unsigned>(pTimer->startsQueued).fetch_sub(1);
}

void DeferredStopTask(void*, void* pArgs) {
    UInt32 taskID;
    memcpy(&taskID, pArgs, sizeof(taskID));
    const TimerLockT lock;
    if (!lock.Held()) {
        return;
    }
    for (const TimerPlaceT place : {kTimerTimedOut, kTimerActive}) {
        ForEachTimer(place, [taskID](TimerT* pTimer) {
            if (pTimer->taskID == taskID) {
                FieldWrite(pTimer->running, 0U);
                TakeOffList(pTimer);
            }
        });
    }
}

void CountDown(TimerT* pTimer) {
    if (FieldRead(pTimer->running) == 0) {
        TakeOffList(pTimer);
        return;
    }
    const UInt32 now = RealTimeMilliSeconds();
    const int left = FieldRead(pTimer->ticks) - static_cast<int>(now - FieldRead(pTimer->rtms));
    FieldWrite(pTimer->ticks, left);
    FieldWrite(pTimer->rtms, now);
    if (left < 1) {
        TakeOffList(pTimer);
        PutOnList(pTimer, kTimerTimedOut);
        OsAssertText(pTimer->taskID != gTimerTask.mod.taskID,
                     "pTimer->taskID != gTimerTask.mod.taskID");
        ev_send(pTimer->taskID, kModEventTimer);
    }
}

void Tick() {
    {
        const TimerLockT lock(kSmNoWait);
        if (lock.Held()) {
            ForEachTimer(kTimerTimedOut, [](TimerT* pTimer) {
                if (FieldRead(pTimer->running) == 0) {
                    TakeOffList(pTimer);
                }
            });
        }
    }
    const TimerLockT lock;
    if (lock.Held()) {
        ForEachTimer(kTimerActive, CountDown);
    }
}

// The timer task's life: its destructor is the task's end, whatever brings it.
class TimerTaskRunT {
  public:
    TimerTaskRunT();
    ~TimerTaskRunT() noexcept(false);
    TimerTaskRunT(const TimerTaskRunT&) = delete;
    TimerTaskRunT& operator=(const TimerTaskRunT&) = delete;

  private:
    UInt32 tick_ = 0;
};

TimerTaskRunT::TimerTaskRunT() {
    const NoCancelT no_cancel;
    memset(&gTimerTask, 0, sizeof(gTimerTask));
    ModInit(&gTimerTask.mod, "TimerTask", 0, nullptr);
    OsAssert(sm_create("fwtm", 1, 0, &timerSemaphore) == kSmOk);
    tm_evevery(1, kModEventTimer, &tick_);
    gTimerTaskID.store(gTimerTask.mod.taskID, std::memory_order_release);
    TimerTaskStarted.store(1);
}

TimerTaskRunT::~TimerTaskRunT() noexcept(false) {
    const NoCancelT no_cancel;
    {
        const TimerLockT lock;
        ForEachTimer(kTimerActive, TakeOffList);
        ForEachTimer(kTimerTimedOut, TakeOffList);
        TimerTaskStarted.store(0);
    }
    while (gLockUsers.load() != 0) {
        udelay(kPollMicroseconds);
    }
    sm_delete(timerSemaphore);
    if (tick_ != 0) {
        tm_cancel(tick_);
    }
    ModExit(&gTimerTask.mod);
    gLife.store(kStopped, std::memory_order_release);
}

void TimerTask(UInt32, UInt32, UInt32, UInt32) {
    const TimerTaskRunT run;
    for (;;) {
        UInt32 events = 0;
        if (ev_receive(kModEventsAll, kEvAny, 0, &events) != kTaskOk) {
            return;
        }
        if ((events & kModEventDeferredFunc) != 0) {
            ModProcessDeferredFunctions();
        }
        if ((events & kModEventExit) != 0) {
            return;
        }
        if ((events & kModEventTimer) != 0 &&
            SysState.load(std::memory_order_relaxed) != kSysStateShuttingDown) {
            Tick();
        }
    }
}

// Starts the timer task unless it runs and waits until it does; gLifeMutex is held.
void InitTimerTask() {
    while (gLife.load(std::memory_order_acquire) == kEnding) {
        tm_wkafter(1);
    }
    if (gLife.load(std::memory_order_acquire) == kStarted) {
        return;
    }
    for (std::atomic<TimerT*>& slot : gTimers) {
        slot.store(nullptr, std::memory_order_relaxed);
    }
    numTimers.store(0, std::memory_order_relaxed);
    UInt32 task = 0;
    if (t_create("TMRT", kTimerTaskPriority, 0, 0, 0, &task) != kTaskOk) {
        puts("ERROR, can't create Timer task");
        return;
    }
    gLife.store(kStarted, std::memory_order_release);
    if (t_start(task, 0, TimerTask, nullptr) != kTaskOk) {
        gLife.store(kStopped, std::memory_order_release);
        t_delete(task);
        puts("ERROR, can't create Timer task");
        return;
    }
    while (TimerTaskStarted.load() == 0 && gLife.load(std::memory_order_acquire) == kStarted) {
        tm_wkafter(1);
    }
}

// Tells the timer task to end; gLifeMutex is held.
void EndTimerTask() {
    if (gLife.load(std::memory_order_acquire) == kStarted) {
        gLife.store(kEnding, std::memory_order_release);
        ev_send(gTimerTaskID.load(std::memory_order_acquire), kModEventExit);
    }
}

std::atomic<TimerT*>* FindInDiagnostics(const TimerT* pTimer) {
    for (std::atomic<TimerT*>& slot : gTimers) {
        if (slot.load(std::memory_order_relaxed) == pTimer) {
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
    pTimer->taskID = Self();
    FieldWrite(pTimer->signature, kSignature);
}

// The first expired timer of a task, taken off its list; null if there is none.
TimerT* TakeExpired(UInt32 self) {
    const TimerLockT lock;
    if (!lock.Held()) {
        return nullptr;
    }
    ListT* head = gTimerTask.pTimedOutTimers;
    for (ListT* at = head; at != nullptr; at = ListNextElement(head, at)) {
        if (TimerOf(at)->taskID == self) {
            TakeOffList(TimerOf(at));
            return TimerOf(at);
        }
    }
    return nullptr;
}

// Calls the timer's function. False when the function ended the timer.
bool CallFunction(TimerT* pTimer) {
    class ScopeT {
      public:
        explicit ScopeT(TimerT* timer) : serving_{timer, gServing} { gServing = &serving_; }
        ~ScopeT() { gServing = serving_.outer; }
        ScopeT(const ScopeT&) = delete;
        ScopeT& operator=(const ScopeT&) = delete;
        bool Alive() const { return serving_.pTimer != nullptr; }

      private:
        ServingT serving_;
    };
    const ScopeT scope(pTimer);
    pTimer->pFunc(pTimer->userDefined);
    return scope.Alive();
}

void Raise(unsigned* highest, unsigned value) {
    if (value > FieldRead(*highest)) {
        FieldWrite(*highest, value);
    }
}

void Serve(TimerT* pTimer) {
    if (FieldRead(pTimer->running) == 0) {
        return;
    }
    const UInt32 now = RealTimeMilliSeconds();
    Raise(&pTimer->maxLatency, now - FieldRead(pTimer->lastTime));
    FieldWrite(pTimer->lastTime, now);
    // A start request on its way is for after this expiry: the timer stays wanted.
    if (pTimer->periodic == 0 && FieldRead(pTimer->startsQueued) == 0) {
        FieldWrite(pTimer->running, 0U);
    }
    if (!CallFunction(pTimer)) {
        return;
    }
    const UInt32 took = RealTimeMilliSeconds() - now;
    FieldWrite(pTimer->totalExecTime, FieldRead(pTimer->totalExecTime) + took);
    Raise(&pTimer->maxExecTime, took);
    FieldWrite(pTimer->numExecs, FieldRead(pTimer->numExecs) + 1);
    if (pTimer->periodic != 0 && FieldRead(pTimer->running) != 0) {
        FieldWrite(pTimer->ticks, FieldRead(pTimer->time));
        FieldWrite(pTimer->rtms, RealTimeMilliSeconds());
        TimerStartWithTime(pTimer, 0);
    }
}

}  // namespace

eErrorT TimerManInit() {
    const NoCancelT no_cancel;
    const MutexGuardT guard(&gLifeMutex);
    InitTimerTask();
    return kNoError;
}

void TimerManExit() {
    const NoCancelT no_cancel;
    const MutexGuardT guard(&gLifeMutex);
    EndTimerTask();
}

eErrorT TimerInit(TimerT* pTimer, int time, TimerFuncPtrT pFunc, void* userDefined, int periodic) {
    OsAssert(pTimer);
    OsAssert(pFunc);
    const NoCancelT no_cancel;
    const MutexGuardT guard(&gLifeMutex);
    InitTimerTask();
    if (time < kTimerMinTime) {
        return kBadParameter;
    }
    if (FieldRead(pTimer->signature) == kSignature) {
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
            slot->store(pTimer, std::memory_order_release);
            numTimers.fetch_add(1, std::memory_order_relaxed);
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
    if (TimerTaskStarted.load() == 0) {
        return kNoError;
    }
    FieldWrite(pTimer->running, 1U);
    const std::atomic_ref<unsigned> starts(pTimer->startsQueued);
    starts.fetch_add(1);
    const eErrorT err = ModDeferFunctionCall(gTimerTaskID.load(std::memory_order_acquire),
                                             DeferredStart, pTimer, &time, sizeof(time));
    if (err != kNoError) {
        starts.fetch_sub(1);
        FieldWrite(pTimer->running, 0U);
    }
    return err;
}

eErrorT TimerStop(TimerT* pTimer) {
    OsAssert(pTimer);
    FieldWrite(pTimer->running, 0U);
    return kNoError;
}

Boolean TimerRunning(TimerT* pTimer) {
    OsAssert(pTimer);
    return FieldRead(pTimer->running);
}

eErrorT TimerExit(TimerT* pTimer) {
    OsAssert(pTimer);
    const NoCancelT no_cancel;
    TimerStop(pTimer);
    if (FieldRead(pTimer->signature) == kSignature) {
        if (FieldRead(pTimer->startsQueued) != 0) {
            ModCancelDeferredFunctions(DeferredStart, pTimer);
        }
        const TimerLockT lock;  // waits for a start request that is just being finished
        if (lock.Held()) {
            TakeOffList(pTimer);
        }
        FieldWrite(pTimer->signature, 0U);
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
    slot->store(nullptr, std::memory_order_release);
    const int left = numTimers.fetch_sub(1, std::memory_order_relaxed) - 1;
    OsAssertText(left >= 0, "numTimers >= 0");
    if (left == 0) {
        EndTimerTask();
    }
    return kNoError;
}

eErrorT TimerStopByTaskID(UInt32 taskID) {
    if (TimerTaskStarted.load() == 0) {
        return kNoError;
    }
    const UInt32 timer_task = gTimerTaskID.load(std::memory_order_acquire);
    if (Self() == timer_task) {
        DeferredStopTask(nullptr, &taskID);
        return kNoError;
    }
    // The task's number names the request, so that its end can be waited for: its maker is about to
    // give up the timers' memory.
    void* name = from_id<void>(taskID);
    const eErrorT err =
        ModDeferFunctionCall(timer_task, DeferredStopTask, name, &taskID, sizeof(taskID));
    while (err == kNoError && ModCountDeferredFunctions(DeferredStopTask, name) != 0) {
        udelay(kPollMicroseconds);
    }
    return err;
}

void TimerProcessAll() {
    const UInt32 self = Self();
    if (self == 0) {
        return;
    }
    while (TimerT* pTimer = TakeExpired(self)) {
        Serve(pTimer);
    }
}

void TimerDumpHeading() {
    puts("Timer    run task time(mS) maxLaten per timerID  pFunc    avgExec  maxExec ");
    puts("-------- --- ---- -------- -------- --- -------- -------- -------- --------");
}

void TimerDump(TimerT* pTimer, int) {
    OsAssert(pTimer);
    const unsigned runs = FieldRead(pTimer->numExecs);
    printf("%8.8x %3.3s %4.4s %8u %8u %3.3s %8.8x %8x %8u %8u\n", shown_address(pTimer),
           FieldRead(pTimer->running) != 0 ? " Y " : " N ", TaskNameT(pTimer->taskID).Text(),
           static_cast<unsigned>(FieldRead(pTimer->time)), FieldRead(pTimer->maxLatency),
           pTimer->periodic != 0 ? " Y " : " N ", pTimer->timerID, shown_address(pTimer->pFunc),
           runs != 0 ? FieldRead(pTimer->totalExecTime) / runs : 0, FieldRead(pTimer->maxExecTime));
}

void TimerDumpActive() {
    TimerDumpHeading();
    const TimerLockT lock;
    if (lock.Held()) {
        ForEachTimer(kTimerActive, [](TimerT* pTimer) { TimerDump(pTimer, 0); });
    }
}

void TimerDumpAll() {
    TimerDumpHeading();
    for (const std::atomic<TimerT*>& slot : gTimers) {
        // A timer that ends leaves its slot under the mutex: while it is held the record stays.
        const NoCancelT no_cancel;
        const MutexGuardT guard(&gLifeMutex);
        TimerT* pTimer = slot.load(std::memory_order_acquire);
        if (pTimer != nullptr) {
            TimerDump(pTimer, 0);
        }
    }
}
