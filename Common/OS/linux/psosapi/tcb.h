// What the task and event services share about control blocks; not for others.
#pragma once

#include "Common/OS/linux/psosapi/tasks.h"

// The control block of an id (0 = the caller's), null when the id is no task. Takes no lock: the
// task may end at any time afterwards, but the block stays a control block.
TCB* t_resolve(UInt32 tid);

// Whether `thread` waits in t_delete for `task` (null: no) to end, or for a task that does so in
// turn, and so on. Takes tcblistmutex.
bool t_is_waited_for_by(const TCB* task, pthread_t thread);

// The event time-out: a timer function whose argument is the waiting task's control block.
UInt32 ev_receive_timeout(void* pArgs);
