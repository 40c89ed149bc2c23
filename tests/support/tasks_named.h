// The tasks of a process, by name.
#pragma once

#include <string>

#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/tasks.h"

inline int TasksNamed(const std::string& name) {
    const MutexGuardT held(&tcblistmutex);
    int count = 0;
    for (TCB* tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        count += tcb->taskname == name ? 1 : 0;
    }
    return count;
}
