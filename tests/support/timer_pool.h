// What the timer service has armed and what it has left.
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
