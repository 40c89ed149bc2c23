// Tasks over POSIX threads.
//
// Who frees a control block: the thread itself, in a thread-specific-data destructor, which runs
// after its stack has unwound, whatever ended it. Only when another thread has claimed the task
// (kTaskBeingDeleted) the dying thread leaves the block to it. Every change of `life` is made under
// tcblistmutex, so that exactly one of them frees the block and joins or detaches the thread.
#include "Common/OS/linux/psosapi/tasks.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Common/OS/linux/blockpool.h"
#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tcb.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/log.h"

TCB* tcblist;
TreeT* gTCBTree;
pthread_mutex_t tcblistmutex = PTHREAD_MUTEX_INITIALIZER;
int gLibPThreadNPTL = 1;

namespace {

BlockPoolT<TCB> gPool;  // under tcblistmutex
std::atomic<int> sched_policy{0};
std::atomic<void (*)()> gDeleteCallback{nullptr};
pthread_once_t gKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t gKey;         // its value is the thread's TCB, its destructor ends the task
thread_local TCB* gSelf;    // this thread's control block while gTCBTree has it
thread_local bool gEnding;  // the task has begun to end
pthread_cond_t gGone = PTHREAD_COND_INITIALIZER;  // a claimed task became kTaskGone

bool MakeSync(TCB* tcb) {
    if (!tcb->sync_made && InitInheritingMutex(&tcb->event_mutex) == 0) {
        pthread_cond_init(&tcb->event_cond, nullptr);
        tcb->sync_made = true;
    }
    return tcb->sync_made;
}

// A reused block keeps its lock and condition: a late sender may still be using them.
void Reset(TCB* tcb, const SInt8* name, UInt32 priority) {
    memset(tcb->taskname, 0, sizeof(tcb->taskname));
    if (name != nullptr) {
        memcpy(tcb->taskname, name, strnlen(name, sizeof(tcb->taskname)));
    }
    tcb->nameterm = 0;
    memset(tcb->args, 0, sizeof(tcb->args));
    tcb->priority = static_cast<int>(priority);
    tcb->task_start = nullptr;
    tcb->mode = tcb->event_mask = tcb->events_pending = 0;
    tcb->refcon = 0;
    tcb->events_captured = 0;
    tcb->incarnation++;
    tcb->closed = false;
    tcb->thread = pthread_t{};
    tcb->deleter = pthread_t{};
    tcb->prv_pri = {};
    tcb->tmid = 0;
    tcb->pid = tcb->tid = 0;
    tcb->systime = tcb->usrtime = 0;
    tcb->attached = false;
}

// Takes a block from the pool and appends it to the task list; null when there is none.
TCB* NewTcb(const SInt8* name, UInt32 priority, TaskLifeT life) {
    MutexGuardT guard(&tcblistmutex);
    TCB* tcb = gPool.Take();
    if (tcb == nullptr) {
        return nullptr;
    }
    if (!MakeSync(tcb)) {
        gPool.Give(tcb);
        return nullptr;
    }
    Reset(tcb, name, priority);
    TCB** link = &tcblist;
    while (*link != nullptr) {
        link = &(*link)->next;
    }
    *link = tcb;
    if (life == kTaskRunning) {  // the calling thread becomes the task
        tcb->attached = true;
        tcb->thread = pthread_self();
    }
    tcb->life = life;
    return tcb;
}

void RebuildTree() {
    if (gTCBTree == nullptr) {
        return;
    }
    BuildTree(gTCBTree, nullptr, 0);
    for (TCB* tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        if (tcb->tid != 0) {
            InsertItem(gTCBTree, static_cast<TreeKeyT>(tcb->thread), tcb);
        }
    }
}

// Unlinks and frees a block; tcblistmutex is held. Its lock and condition stay, see Reset.
void t_free_tcb(TCB* tcb) {
    for (TCB** link = &tcblist; *link != nullptr; link = &(*link)->next) {
        if (*link == tcb) {
            *link = tcb->next;
            break;
        }
    }
    tcb->life = kTaskFree;
    RebuildTree();
    gPool.Give(tcb);
}

// The end of every task, run by its own thread when nothing of it is left but this.
void EndOfTask(void* arg) {
    TCB* tcb = static_cast<TCB*>(arg);
    int old;
    // A thread that ended by returning could still be cancelled in here, and would leave the rest,
    // which a deleter waits for, undone.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    gEnding = true;
    if (void (*callback)() = gDeleteCallback) {
        callback();
    }
    sm_release_all();
    interrupts_release_all();
    tm_end_of_task(id_of(tcb), ev_receive_timeout);
    {
        MutexGuardT guard(&tcb->event_mutex);
        tcb->timedwait = tcb->timedout = tcb->taskWaiting = 0;
    }
    MutexGuardT guard(&tcblistmutex);
    gSelf = nullptr;
    if (tcb->life == kTaskBeingDeleted) {
        tcb->life = kTaskGone;
        pthread_cond_broadcast(&gGone);
        return;
    }
    if (!tcb->attached) {
        pthread_detach(tcb->thread);
    }
    t_free_tcb(tcb);
}

void MakeKey() {
    pthread_key_create(&gKey, EndOfTask);
}

// Enters the calling thread, now a task, in the registry.
void RegisterThread(TCB* tcb) {
    pthread_once(&gKeyOnce, MakeKey);
    pthread_setspecific(gKey, tcb);
    int err;
    {
        MutexGuardT guard(&tcblistmutex);
        tcb->pid = getpid();
        if (gLibPThreadNPTL == 1) {
            tcb->tid = gettid();
        }
        if (gTCBTree == nullptr) {
            gTCBTree = CreateTree();
        }
        err = gTCBTree == nullptr ? ENOMEM
                                  : InsertItem(gTCBTree, static_cast<TreeKeyT>(tcb->thread), tcb);
        gSelf = tcb;
    }
    if (err != 0) {
        logcrit("os", "pthread_entry InsertItem error %d\n", err);
    }
    if (gLibPThreadNPTL == 1) {
        logdebug("os", "task:%4.4s pid:%u thread %08x %d %08x\n", tcb->taskname,
                 static_cast<unsigned>(tcb->pid), static_cast<unsigned>(tcb->thread), tcb->tid,
                 id_of(tcb));
    } else {
        logdebug("os", "task:%4.4s pid:%u thread %d\n", tcb->taskname,
                 static_cast<unsigned>(tcb->pid), static_cast<int>(tcb->thread));
    }
}

void* pthread_entry(void* arg) {
    TCB* tcb = static_cast<TCB*>(arg);
    RegisterThread(tcb);
    tcb->task_start(tcb->args[0], tcb->args[1], tcb->args[2], tcb->args[3]);
    t_delete(0);
    return nullptr;
}

UInt32 InRange(UInt32 priority) {
    return priority <= kTaskMaxPriority ? priority : 0;
}

void ReportIfOutOfRange(UInt32 priority, const char* caller) {
    if (priority > kTaskMaxPriority) {
        logwarn("os", "%s priority %d out of range, setting to 0\n", caller,
                static_cast<int>(priority));
    }
}

// Ends the calling thread's task. The rest is EndOfTask's, when the stack has unwound.
[[noreturn]] void DeleteSelf(TCB* tcb) {
    gEnding = true;
    {
        MutexGuardT guard(&tcblistmutex);
        if (tcb != nullptr && tcb->life == kTaskRunning) {
            tcb->life = kTaskEnding;
        }
    }
    pthread_exit(nullptr);
}

// Waits for a claimed task to be past its last use of its block, and frees the block. A deleter
// that is cancelled itself while it waits hands the block back to the task.
class GoneWaitT {
  public:
    explicit GoneWaitT(TCB* tcb) : tcb_(tcb) {}
    ~GoneWaitT() {
        MutexGuardT guard(&tcblistmutex);
        if (tcb_->life == kTaskGone) {
            if (!joined_ && !tcb_->attached) {
                pthread_detach(tcb_->thread);
            }
            t_free_tcb(tcb_);
        } else {
            tcb_->deleter = pthread_t{};
            tcb_->life = kTaskEnding;
        }
    }
    GoneWaitT(const GoneWaitT&) = delete;
    GoneWaitT& operator=(const GoneWaitT&) = delete;

    void Wait() {
        CancellableMutexGuardT guard(&tcblistmutex);
        while (tcb_->life != kTaskGone) {
            pthread_cond_wait(&gGone, &tcblistmutex);
        }
        // The thread has only its exit before it: joining it is no wait worth cancelling. The
        // thread of an attached task is its maker's to join.
        if (!tcb_->attached) {
            int old;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
            const pthread_t thread = tcb_->thread;
            guard.Unlock();
            const int err = pthread_join(thread, nullptr);
            if (err != 0) {
                logerr("os", "deleted task failed to join: %d\n", err);
            }
            joined_ = true;
            pthread_setcancelstate(old, nullptr);
        }
    }

  private:
    TCB* tcb_;
    bool joined_ = false;
};

// `use` is the use of the block that the caller means: it may serve a new task by now.
void DeleteOther(TCB* tcb, UInt32 use) {
    {
        MutexGuardT guard(&tcblistmutex);
        if (tcb->incarnation != use) {
            return;
        }
        switch (tcb->life.load()) {
            case kTaskCreated:
                t_free_tcb(tcb);
                return;
            case kTaskRunning:
                tcb->life = kTaskBeingDeleted;
                tcb->deleter = pthread_self();
                pthread_cancel(tcb->thread);
                break;
            default:  // gone, or on its way
                return;
        }
    }
    GoneWaitT gone(tcb);
    tm_task_is_waited_for();
    gone.Wait();
}

// The task whose thread this is, null for none; tcblistmutex is held. A task that is gone may stand
// there still when its thread's handle is another's already.
const TCB* LivingTaskOf(pthread_t thread) {
    const TCB* tcb = tcblist;
    while (tcb != nullptr && (pthread_equal(tcb->thread, thread) == 0 || tcb->life == kTaskGone)) {
        tcb = tcb->next;
    }
    return tcb;
}

}  // namespace

TCB* t_self() {
    return gSelf;
}

TCB* t_resolve(UInt32 tid) {
    if (tid == 0) {
        return t_self();
    }
    TCB* tcb = gPool.Find(tid);
    return tcb != nullptr && tcb->life != kTaskFree ? tcb : nullptr;
}

bool t_is_waited_for_by(const TCB* task, pthread_t thread) {
    MutexGuardT guard(&tcblistmutex);
    // Tasks may delete each other in a circle: a way without one has each task once.
    for (const TCB* step = tcblist; step != nullptr && task != nullptr; step = step->next) {
        const pthread_t deleter = task->deleter;
        if (pthread_equal(deleter, thread) != 0) {
            return true;
        }
        task = deleter != pthread_t{} ? LivingTaskOf(deleter) : nullptr;
    }
    return false;
}

void TreeStub() {
    MutexGuardT guard(&tcblistmutex);
    if (gTCBTree == nullptr) {
        gTCBTree = CreateTree();
    }
}

UInt32 t_create(const SInt8* name, UInt32 priority, UInt32, UInt32, UInt32, UInt32* tid) {
    TCB* tcb = NewTcb(name, priority, kTaskCreated);
    if (tcb == nullptr) {
        return kTaskNoMemory;
    }
    *tid = id_of(tcb);
    return kTaskOk;
}

UInt32 t_start(UInt32 tid, UInt32 mode, fnptr* task_start, UInt32* params) {
    TCB* tcb = t_resolve(tid);
    if (tcb == nullptr) {
        return kTaskNotFound;
    }
    const int policy = get_sched_policy();
    // The thread's first act is to take this lock, so it sees the block complete.
    MutexGuardT guard(&tcblistmutex);
    if (tcb->life != kTaskCreated) {
        return kTaskNotFound;
    }
    const auto wanted = static_cast<UInt32>(tcb->priority);
    const UInt32 priority = InRange(wanted);
    tcb->mode = mode;
    tcb->task_start = task_start;
    tcb->priority = static_cast<int>(priority);
    tcb->prv_pri.sched_priority = policy != 0 ? tcb->priority : 0;
    if (params != nullptr) {
        memcpy(tcb->args, params, sizeof(tcb->args));
    }
    pthread_attr_init(&tcb->attr);
    pthread_attr_setinheritsched(&tcb->attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&tcb->attr, priority > 0 ? policy : SCHED_OTHER);
    pthread_attr_setschedparam(&tcb->attr, &tcb->prv_pri);
    tcb->life = kTaskRunning;
    const int err = pthread_create(&tcb->thread, &tcb->attr, pthread_entry, tcb);
    if (err != 0) {
        tcb->life = kTaskCreated;
    }
    pthread_attr_destroy(&tcb->attr);
    guard.Unlock();
    ReportIfOutOfRange(wanted, "t_start");
    if (err != 0) {
        errno = err;
        perror("pthread_create failed");
        return kTaskTimeOut;
    }
    return kTaskOk;
}

UInt32 t_delete(UInt32 tid) {
    return t_delete_incarnation(tid, 0);
}

UInt32 t_delete_incarnation(UInt32 tid, UInt32 incarnation) {
    TCB* self = t_self();
    const bool is_self = tid == 0 || tid == id_of(self);
    if (is_self && gEnding) {
        return kTaskOk;
    }
    TCB* tcb;
    char name[sizeof(TCB::taskname)] = {'?', '?', '?', '?'};
    int pid = -1;
    UInt32 use = 0;
    {
        MutexGuardT guard(&tcblistmutex);
        tcb = is_self ? self : t_resolve(tid);
        if (tcb != nullptr) {
            memcpy(name, tcb->taskname, sizeof(name));
            pid = tcb->pid;
            use = tcb->incarnation;
        }
    }
    if (incarnation != 0 && incarnation != use) {
        return kTaskOk;
    }
    logwarn("os", "task %4.4s deleted task:%4.4s, pid %d\n",
            self != nullptr ? self->taskname : "????", name, pid);
    if (is_self) {
        DeleteSelf(self);
    } else if (tcb != nullptr) {
        logwarn("os", "deleted task:%4.4s\n", name);
        DeleteOther(tcb, use);
    }
    return kTaskOk;
}

UInt32 t_ident(const SInt8* name, UInt32, UInt32* tid) {
    *tid = 0;
    if (name == nullptr) {
        *tid = id_of(t_self());
    } else {
        char wanted[sizeof(TCB::taskname)] = {};
        memcpy(wanted, name, strnlen(name, sizeof(wanted)));
        MutexGuardT guard(&tcblistmutex);
        for (TCB* tcb = tcblist; tcb != nullptr && *tid == 0; tcb = tcb->next) {
            if (memcmp(tcb->taskname, wanted, sizeof(wanted)) == 0) {
                *tid = id_of(tcb);
            }
        }
    }
    return *tid != 0 ? kTaskOk : kTaskNotFound;
}

UInt32 t_attach(const SInt8* name, UInt32 priority, UInt32*) {
    if (t_self() != nullptr) {
        return kTaskOk;
    }
    ReportIfOutOfRange(priority, "t_attach");
    TCB* tcb = NewTcb(name, InRange(priority), kTaskRunning);
    if (tcb == nullptr) {
        return kTaskNoMemory;
    }
    const int policy = get_sched_policy();
    tcb->prv_pri.sched_priority = policy != 0 ? tcb->priority : 0;
    pthread_setschedparam(pthread_self(), policy, &tcb->prv_pri);
    RegisterThread(tcb);
    return kTaskOk;
}

UInt32 t_setpri(UInt32 tid, UInt32 newPriority, UInt32* oldPriority) {
    TCB* tcb = t_resolve(tid);
    if (tcb == nullptr) {
        return kTaskNotFound;
    }
    MutexGuardT guard(&tcblistmutex);
    if (tcb->life == kTaskFree) {
        return kTaskNotFound;
    }
    const int old = tcb->priority;
    if (oldPriority != nullptr) {
        *oldPriority = static_cast<UInt32>(old);
    }
    if (static_cast<UInt32>(old) == newPriority) {
        return kTaskOk;
    }
    const UInt32 wanted = InRange(newPriority);
    tcb->priority = static_cast<int>(wanted);
    const int policy = wanted == 0 ? SCHED_OTHER : old == 0 ? SCHED_RR : get_sched_policy();
    tcb->prv_pri.sched_priority = policy != SCHED_OTHER ? tcb->priority : 0;
    int err = 0;
    if (tcb->life == kTaskRunning && pthread_equal(tcb->thread, pthread_t{}) == 0) {
        err = pthread_setschedparam(tcb->thread, policy, &tcb->prv_pri);
    }
    guard.Unlock();
    ReportIfOutOfRange(newPriority, "t_setpri");
    if (err != 0) {
        logdebug("os", "t_setpri pthread_setschedparam error %d\n", err);
    }
    return kTaskOk;
}

const char* t_name(UInt32 tid) {
    TCB* tcb = t_resolve(tid);
    return tcb != nullptr ? tcb->taskname : "????";
}

UInt32 t_setRefCon(UInt32 taskID, UInt32 refCon) {
    TCB* tcb = t_resolve(taskID);
    if (tcb == nullptr) {
        return kTaskNotFound;
    }
    tcb->refcon = refCon;
    return kTaskOk;
}

UInt32 t_getRefCon(UInt32 taskID) {
    TCB* tcb = t_resolve(taskID);
    return tcb != nullptr ? tcb->refcon.load() : 0;
}

Boolean t_exists(UInt32 tid) {
    return t_resolve(tid) != nullptr ? 1 : 0;
}

void t_close() {
    TCB* tcb = t_self();
    if (tcb != nullptr) {
        tcb->closed = true;
    }
}

Boolean t_is_open(UInt32 tid) {
    const TCB* tcb = t_resolve(tid);
    return tcb != nullptr && !tcb->closed ? 1 : 0;
}

UInt32 t_incarnation(UInt32 tid) {
    const TCB* tcb = t_resolve(tid);
    return tcb != nullptr ? tcb->incarnation.load() : 0;
}

int get_sched_policy() {
    return sched_policy;
}

void set_sched_policy(int policy) {
    sched_policy = policy;
}

void t_set_delete_callback(void (*callback)()) {
    gDeleteCallback = callback;
}

const char* t_name_and_pri_from_pid(int pid, int* priority) {
    MutexGuardT guard(&tcblistmutex);
    for (TCB* tcb = tcblist; tcb != nullptr; tcb = tcb->next) {
        if (tcb->tid == pid && pid != 0) {
            *priority = tcb->priority;
            return tcb->taskname;
        }
    }
    *priority = -1;
    return "????";
}

const char* t_name_from_pid(int pid) {
    int priority;
    return t_name_and_pri_from_pid(pid, &priority);
}

extern "C" pid_t gettid(void) noexcept {
    return static_cast<pid_t>(syscall(SYS_gettid));
}
