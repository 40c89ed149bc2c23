// A task's name, copied: for lines about other tasks, which may go and give their control block to
// a new task while the line is made. Any thread may use it; waits for the task list's lock only.
#pragma once

#include <string.h>

#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/tasks.h"

class TaskNameT {
  public:
    // The name of a task (0 = self), "????" for an id that is no task.
    explicit TaskNameT(UInt32 taskID) {
        if (taskID == 0) {
            t_ident(nullptr, 0, &taskID);
        }
        const MutexGuardT guard(&tcblistmutex);
        memcpy(text_, taskID != 0 ? t_name(taskID) : "????", sizeof(text_) - 1);
    }
    const char* Text() const { return text_; }

  private:
    char text_[5] = {};
};
