// The system tick (10 ms), sleeping calls, the millisecond clock, and software timers that send
// events to a task or call a function.
//
// Timers are driven by one task, "tmtk", once per tick; ticks run slightly long under load. A pool
// of 50 static blocks holds them all. Functions and event sends run in "tmtk" with no lock held, so
// a timer function may arm and cancel timers, delete tasks and log. A task that ends takes its
// event timers with it; functions that it armed go on being called until they return 0 or are
// cancelled.
#pragma once

#include <pthread.h>

#include <atomic>

#include "Common/OS/linux/board.h"
#include "Common/OS/types.h"

// A timer function: receives the argument it was armed with; returns non-zero to be armed again for
// the same number of ticks, 0 to end.
typedef UInt32 (*tm_callback_ptr)(void* pArgs);

// The most timers that can be armed at once.
constexpr int kTimerPoolSize = 50;

typedef struct _TMCB {
    UInt32 taskID;     // the task that armed it: receives the events
    UInt32 ticks;      // left until expiry
    UInt32 origTicks;  // reload value; 0 for a one-shot event timer
    UInt32 events;
    tm_callback_ptr cbptr;  // null for an event timer
    void* pArgs;
    struct _TMCB* next;
} TMCB;

// The tick's length in milliseconds: 10.
UInt32 GetMillisecondsPerTick();

// Frequency of the counter behind CYCLES(), in Hz: 66666664.
float GetProcessorFrequency();

// The low word of that counter; wraps after some 64 s.
UInt32 CYCLES();

// Sleeps for `ticks` of 10 ms; 0 returns at once. Returns 0. A cancellation point.
UInt32 tm_wkafter(UInt32 ticks);

// Sleeps for `delay` microseconds. A cancellation point.
void udelay(UInt32 delay);

// Starts the millisecond clock from 0, also one that runs already; done by the first reading too.
// Failures are logged.
void init_rtcp();

// Milliseconds since the clock started, 0 when it cannot be reached. millitime also stores them
// through `mstp` (null: not). The others count ticks and seconds of the same clock.
UInt32 RealTimeMilliSeconds();
UInt32 millitime(UInt32* mstp);
UInt32 GetTickCountLinux();
UInt32 RealTime();

// Arm a timer for the calling task and store its id through `tmid`: once after `ticks`, every
// `ticks`, or calling `cbhandler`(`pArgs`) after `ticks`. Always return 0. When all 50 timers are
// armed the log gets a critical line and the id stored is 0: no timer was armed. `ticks` of 0
// means 2^32 ticks.
UInt32 tm_evafter(UInt32 ticks, UInt32 events, UInt32* tmid);
UInt32 tm_evevery(UInt32 ticks, UInt32 events, UInt32* tmid);
UInt32 tm_callback_after(UInt32 ticks, UInt32* tmid, tm_callback_ptr cbhandler, void* pArgs);

// Disarms a timer. When its function is just running in "tmtk", waits for it to end (not when
// called from that function), so that what the function uses may go afterwards. A timer that is not
// armed is reported on standard output. Always returns 0.
UInt32 tm_cancel(UInt32 tmid);

// Makes the pool and starts the timer task, if not done yet. The first arming does it too.
void StartSystemTimer();

// Disarms, without a report, the timer that runs `cbhandler` for the task `taskID`, if it is still
// that timer; waits as tm_cancel does. A block that has been armed anew for something else is left
// alone.
void tm_cancel_own(UInt32 tmid, UInt32 taskID, tm_callback_ptr cbhandler);

// Disarms what only its task can use: a task's event timers, and `timeout`, the function of its
// timed wait. Waits for one of them that is just being fired; neither ever waits for a task. Called
// as a task ends.
void tm_end_of_task(UInt32 taskID, tm_callback_ptr timeout);

// Tells who waits for a firing to end that a task has begun to wait for another's end: the firing
// may wait for the waiter now.
void tm_task_is_waited_for();

// Returns a block to the pool. Null, a block still linked, and a block that is free already are
// logged. For the service itself.
void FreeTimer(TMCB* pTimer);

// One dispatch, as "tmtk" does once per tick: for tests and benchmarks in processes where that task
// does not run.
void tm_dispatch();

// Milliseconds counted by the ticks so far: 10 per tick; wraps.
extern std::atomic<UInt32> gEpochMillisecs;

extern pthread_mutex_t tmcblistmutex;  // guards both lists
extern TMCB* timerList;                // armed, in the order armed; under tmcblistmutex
extern TMCB* freetimerList;            // free, last freed first; under tmcblistmutex
extern std::atomic<UInt32> timerid;    // the timer task, 0 until started
