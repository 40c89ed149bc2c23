// Tasks: threads with a four-character name, a number that is the address of their control block,
// and a priority. An id of 0 always means the calling task.
//
// Life of a control block: t_create makes it, t_start gives it a thread, and it goes when the task
// ends: by returning from its entry function, by deleting itself, or by being deleted. A task that
// ends gives back the semaphores and the interrupts-off section that it holds and leaves no event
// timer armed. Memory of control blocks is reused only for control blocks, so an id that outlived
// its task is recognised as stale (or names a newer task), and never touches foreign memory.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <atomic>

#include "Common/OS/bintree.h"
#include "Common/OS/types.h"

// Results of the task and event calls.
constexpr UInt32 kTaskOk = 0;
constexpr UInt32 kTaskTimeOut = 1;      // the timed wait expired; t_start: no thread
constexpr UInt32 kTaskNotATask = 6;     // the caller of ev_receive is not a task
constexpr UInt32 kTaskNotFound = 9;     // no such task
constexpr UInt32 kTaskNoMemory = 14;    // no memory for a control block
constexpr UInt32 kTaskNoEvents = 0x3C;  // non-waiting receive: no wanted event present

// The highest priority; a higher one is forced to 0 with a warning.
constexpr UInt32 kTaskMaxPriority = 99;

// Where a task is in its life; private to the task service.
typedef enum : UInt32 {
    kTaskFree = 0,          // not a task: the block is on the free list
    kTaskCreated = 1,       // block only, no thread yet
    kTaskRunning = 2,       // has a thread
    kTaskBeingDeleted = 3,  // another thread has cancelled it and waits for it
    kTaskGone = 4,          // as before, and its thread is past its last use of the block
    kTaskEnding = 5         // ends by itself and frees its own block
} TaskLifeT;

typedef struct _TCB {
    char taskname[4];
    int nameterm;  // always 0, ends the name
    UInt32 args[4];
    int priority;  // 0 to 99
    fnptr* task_start;
    UInt32 mode;
    std::atomic<UInt32> refcon;
    UInt32 event_mask;
    std::atomic<UInt32> events_captured;  // sent and not yet received
    UInt32 events_pending;
    pthread_t thread;
    pthread_attr_t attr;
    sched_param prv_pri;
    int timedwait;  // 1 while a wait with a time-out is armed; under event_mutex
    int timedout;   // set by the time-out; under event_mutex
    UInt32 tmid;    // timer of the current timed wait, 0 for none
    pthread_mutex_t event_mutex;
    pthread_cond_t event_cond;
    int taskWaiting;  // 1 from the task's first wait on; under event_mutex
    int pid;
    int tid;      // kernel thread id
    int systime;  // ticks of the last usage report
    int usrtime;
    struct _TCB* next;  // list of all tasks, in creation order
    // Private to the service:
    std::atomic<TaskLifeT> life;
    std::atomic<UInt32> incarnation;  // counts the uses of the block
    std::atomic<bool> closed;         // takes no more events
    std::atomic<pthread_t> deleter;   // the thread that waits for this task's end, 0 for none
    bool attached;                    // the thread was not made by t_start
    bool sync_made;  // event_mutex and event_cond exist; they are kept while the block is free
} TCB;

// Creates the task registry if it does not exist yet. Called first of all by a program that may
// make no task at all.
void TreeStub();

// Makes a control block and stores its id through `tid`; no thread yet. `name` gives four
// characters (null: none). Stack sizes and mode are ignored. Returns kTaskOk or kTaskNoMemory.
UInt32 t_create(const SInt8* name, UInt32 priority, UInt32 sysstack, UInt32 userstack, UInt32 mode,
                UInt32* tid);

// Starts the task's thread. `params` points at four words that become the entry function's
// arguments (null: zeros). Returns kTaskOk, kTaskTimeOut when no thread can be made (printed on
// standard error), or kTaskNotFound for an id that is no task.
UInt32 t_start(UInt32 tid, UInt32 mode, fnptr* task_start, UInt32* params);

// Ends a task (0 = self, then it does not return). Another task is cancelled at its next
// cancellation point and waited for: the caller blocks until it is gone. A task already being
// deleted, or an id that is no task, is left alone. A block that was never started is freed.
// Always returns 0.
UInt32 t_delete(UInt32 tid);

// t_delete for the use of the id that t_incarnation named (0: any): a newer task is left alone.
UInt32 t_delete_incarnation(UInt32 tid, UInt32 incarnation);

// With a null name, stores the caller's id; otherwise the first task with that four-character
// name. `node` is ignored. Returns kTaskOk, or kTaskNotFound with 0 stored.
UInt32 t_ident(const SInt8* name, UInt32 node, UInt32* tid);

// Makes the calling thread a task. `tid` is not written: callers find their id with t_ident.
// Returns kTaskOk or kTaskNoMemory. A thread that is a task already stays what it is.
UInt32 t_attach(const SInt8* name, UInt32 priority, UInt32* tid);

// Changes a task's priority (0 = self) and stores the old one through `oldPriority` (null: not).
// Returns kTaskOk, or kTaskNotFound for an id that is no task.
UInt32 t_setpri(UInt32 tid, UInt32 newPriority, UInt32* oldPriority);

// The task's name (0 = self), ended by a NUL and valid while the task lives; "????" for an id that
// is no task.
const char* t_name(UInt32 tid);

// A word that a client attaches to a task (0 = self). t_setRefCon returns kTaskOk or
// kTaskNotFound; t_getRefCon returns the word, 0 for an id that is no task.
UInt32 t_setRefCon(UInt32 taskID, UInt32 refCon);
UInt32 t_getRefCon(UInt32 taskID);

// 1 while `tid` names a task that exists, else 0. 0 names the caller. Does not block.
Boolean t_exists(UInt32 tid);

// Closes the calling task to new work: from now on events sent to it are refused as for a task that
// does not exist. For who finishes a dying task's work and must know when the last of it has come.
// Does not block.
void t_close();

// 1 while `tid` names a task that takes events (0 = self), else 0. Does not block.
Boolean t_is_open(UInt32 tid);

// Which use of the id this is (0 = self): ids are used again, and a number differs from those of
// the tasks that had the id before. 0 for an id that is no task. Does not block.
UInt32 t_incarnation(UInt32 tid);

// The scheduling policy of tasks with a non-zero priority: 0 (time-sharing) unless set.
int get_sched_policy();
void set_sched_policy(int policy);

// Registers the function that a dying task runs, in its own thread, before its control block goes
// (null: none). The module framework uses it to finish the task's pending work. However the task
// ends, its stack has unwound before, and it can be cancelled no more.
void t_set_delete_callback(void (*callback)());

// Maps a kernel thread id back to its task. t_name_from_pid returns the name, "????" if no task
// has that id; t_name_and_pri_from_pid also stores the priority (-1 if none).
const char* t_name_from_pid(int pid);
const char* t_name_and_pri_from_pid(int pid, int* priority);

// The calling thread's kernel id. Replaces the C library's function of this name.
extern "C" pid_t gettid(void) noexcept;

// The task list and its locks, for the services of this layer and for diagnostics.
extern TCB* tcblist;     // under tcblistmutex
extern TreeT* gTCBTree;  // under tcblistmutex
extern pthread_mutex_t tcblistmutex;
extern int gLibPThreadNPTL;  // 1: every thread has a kernel id of its own

// The calling thread's control block, null when it is no task. Takes no lock.
TCB* t_self();
