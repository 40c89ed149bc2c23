// What the timer service has armed and what it has left, and a function for timers.
#pragma once

#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/ptimer.h"

inline int Length(TMCB** list) {
    const MutexGuardT guard(&tmcblistmutex);
    int length = 0;
    for (const TMCB* timer = *list; timer != nullptr; timer = timer->next) {
        length++;
    }
    return length;
}

// Whether every block is back in the pool.
inline bool AllFree() {
    return Length(&timerList) == 0 && Length(&freetimerList) == kTimerPoolSize;
}

// A timer function that counts its calls and goes on.
inline UInt32 CountCalls(void* calls) {
    ++*static_cast<std::atomic<int>*>(calls);
    return 1;
}
