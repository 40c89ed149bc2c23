// Framework timers: one-shot or periodic, in milliseconds, for tasks that host modules. A timer's
// function runs in the task that initialised the timer, from its module loop. One task, "TMRT",
// counts all timers down on the operating system's tick (10 ms), which is their resolution: a timer
// expires on the first tick that finds no time left. TMRT lives while timers exist.
//
// A timer is started, stopped and ended by its owner task; the other calls may come from any task.
// All may wait as long as the timer task goes through its lists.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/list.h"
#include "Common/framework/mod.h"

constexpr int kTimerMaxTimers = 600;  // entries of the diagnostics list
constexpr int kTimerMinTime = 10;     // milliseconds

typedef void (*TimerFuncPtrT)(void* userDefined);

// On which of the timer task's lists a timer is; private to the service.
typedef enum : UInt32 { kTimerOffList = 0, kTimerActive = 1, kTimerTimedOut = 2 } TimerPlaceT;

// A timer, embedded in its owner's record, which is zeroed before TimerInit and lives until
// TimerExit. Its fields change under timerSemaphore.
typedef struct TimerS {
    ListT list;
    void* userDefined;
    TimerFuncPtrT pFunc;
    int time;                  // period or delay, ms
    int periodic;              // non-zero: armed again after each expiry
    unsigned int timerID;      // left 0 by the framework
    int ticks;                 // ms left until expiry
    unsigned int rtms;         // ms clock when ticks was brought up to date
    unsigned int taskID;       // the owner task
    Boolean running;           // armed
    unsigned int lastTime;     // ms clock at start or at the last expiry served
    unsigned int maxLatency;   // longest interval from lastTime to the serving of an expiry, ms
    unsigned int maxExecTime;  // longest run of pFunc, ms
    unsigned int totalExecTime;
    unsigned int numExecs;   // runs since the last start
    unsigned int signature;  // the characters "TIM2" in memory order while initialised
    // Private to the service:
    TimerPlaceT place;
} TimerT;

// The timer task's module and its two lists, under timerSemaphore.
typedef struct TimerTaskS {
    ModT mod;
    ListT* pActiveTimers;    // armed
    ListT* pTimedOutTimers;  // expired, not yet served
} TimerTaskT;

// What the system is about. A program sets SysState; while it is kSysStateShuttingDown no timer is
// counted down.
typedef enum : UInt32 { kSysStateRunning = 0, kSysStateShuttingDown = 1 } eSysStateT;
extern std::atomic<eSysStateT> SysState;

extern std::atomic<TimerT*> gTimers[kTimerMaxTimers];  // initialised timers, for diagnostics
extern std::atomic<int> numTimers;                     // timers in gTimers
extern std::atomic<UInt32> timerSemaphore;
extern std::atomic<Boolean> TimerTaskStarted;
extern TimerTaskT gTimerTask;

// Starts the timer task if it does not run and waits until it does. Always kNoError. The tick is a
// timer of the operating system; when it has none left the log says so, and the timer task sleeps
// from tick to tick.
eErrorT TimerManInit();

// Asks the timer task to end; armed timers are then no longer counted.
void TimerManExit();

// Initialises a timer for the calling task: `pFunc`(`userDefined`) runs `time` ms after a start,
// and if `periodic` again every `time` ms. Starts the timer task if needed, and then waits for it.
// Returns kNoError, kBadParameter for a time under 10, or kFuncReturnedError for a timer that is
// initialised already. The 601st timer works but is missing from the dumps.
eErrorT TimerInit(TimerT* pTimer, int time, TimerFuncPtrT pFunc, void* userDefined, int periodic);

// Arm a timer; a running or expired one begins its full period anew and does not run for the old
// one. A non-zero `time` replaces the timer's. Statistics start at 0. Always kNoError; nothing
// happens while no timer task runs.
eErrorT TimerStart(TimerT* pTimer);
eErrorT TimerStartWithTime(TimerT* pTimer, int time);

// Disarms a timer: its function will not begin any more. Always kNoError.
eErrorT TimerStop(TimerT* pTimer);

// 1 while the timer is armed; 0 within a one-shot timer's own function.
Boolean TimerRunning(TimerT* pTimer);

// Ends a timer: nothing refers to it afterwards. May be called from the timer's own function. Ends
// the timer task with the last timer. May wait for the timer task to finish a request just begun.
// Returns kNoError, or kBadParameter for a timer that is not in the diagnostics list.
eErrorT TimerExit(TimerT* pTimer);

// Stops and unlinks every timer of a task and waits until it is done; the timers stay initialised.
// Always kNoError.
eErrorT TimerStopByTaskID(UInt32 taskID);

// Runs the functions of the calling task's expired timers. Called by ModProcessEvents.
void TimerProcessAll();

// Diagnostics, to standard output.
void TimerDump(TimerT* pTimer, int verbose);
void TimerDumpHeading();
void TimerDumpActive();
void TimerDumpAll();
