// Event flags over each task's mutex and condition.
//
// The event mutex and the timer list's lock are never held together: a wait arms its time-out
// before it settles down to wait and disarms it after it has let go of the event mutex, and the
// timer service runs the time-out with its own lock released.
#include "Common/OS/linux/psosapi/events.h"

#include <errno.h>
#include <time.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tcb.h"
#include "Common/OS/log.h"

namespace {

// Holds the caller's event mutex while it looks and waits; a cancelled wait comes back with the
// mutex held and leaves through the destructor.
class EventLockT {
  public:
    explicit EventLockT(TCB* tcb) : tcb_(tcb) { Lock(); }
    ~EventLockT() {
        if (held_) {
            tcb_->timedwait = 0;
            pthread_mutex_unlock(&tcb_->event_mutex);
        }
    }
    EventLockT(const EventLockT&) = delete;
    EventLockT& operator=(const EventLockT&) = delete;

    void Lock() {
        const int err = pthread_mutex_lock(&tcb_->event_mutex);
        held_ = true;
        if (err != 0) {
            logerr("os", "ev_receive mutex_lock error %d, potential thread-safe problem\n", err);
        }
    }

    void Unlock() {
        held_ = false;
        const int err = pthread_mutex_unlock(&tcb_->event_mutex);
        if (err != 0) {
            logerr("os", "ev_receive mutex_unlock error %d\n", err);
        }
    }

  private:
    TCB* tcb_;
    bool held_ = false;
};

// The time-out of one wait. Disarmed however the wait ends; the service gave no timer when all were
// in use, and the wait then keeps time by itself.
class TimeOutT {
  public:
    TimeOutT(TCB* tcb, UInt32 ticks) : tcb_(tcb) {
        clock_gettime(CLOCK_MONOTONIC, &end_);
        const UInt64 ns = static_cast<UInt64>(end_.tv_nsec) + static_cast<UInt64>(ticks) * 10000000;
        end_.tv_sec += static_cast<time_t>(ns / 1000000000);
        end_.tv_nsec = static_cast<long>(ns % 1000000000);
        tm_callback_after(ticks, &tcb_->tmid, ev_receive_timeout, tcb_);
    }
    ~TimeOutT() noexcept(false) {
        if (tcb_->tmid != 0) {
            tm_cancel_own(tcb_->tmid, id_of(tcb_), ev_receive_timeout);
            tcb_->tmid = 0;
        }
    }
    TimeOutT(const TimeOutT&) = delete;
    TimeOutT& operator=(const TimeOutT&) = delete;

    int Wait() {
        if (tcb_->tmid != 0) {
            return pthread_cond_wait(&tcb_->event_cond, &tcb_->event_mutex);
        }
        const int err =
            pthread_cond_clockwait(&tcb_->event_cond, &tcb_->event_mutex, CLOCK_MONOTONIC, &end_);
        if (err == ETIMEDOUT) {
            tcb_->timedout = 1;
            return 0;
        }
        return err;
    }

  private:
    TCB* tcb_;
    timespec end_{};
};

// Takes the matched events if the wait is over; 0 while it is not.
UInt32 Match(const TCB* tcb, UInt32 mask, UInt32 opt) {
    return events_matched(tcb->events_captured, mask, opt);
}

void Consume(TCB* tcb, UInt32 matched, UInt32* captured) {
    *captured = matched;
    tcb->events_captured &= ~matched;
}

// Waits with the event mutex held. Returns the matched events, or 0 when `timedout` was set.
template <typename WaitT>
UInt32 WaitForMatch(TCB* tcb, UInt32 mask, UInt32 opt, WaitT wait) {
    for (;;) {
        const UInt32 matched = Match(tcb, mask, opt);
        if (matched != 0 || tcb->timedout != 0) {
            return matched;
        }
        const int err = wait();
        if (err != 0) {
            logcrit("os", "ev_receive cond_wait error %d\n", err);
        }
    }
}

UInt32 WaitForEver(TCB* tcb, EventLockT* lock, UInt32 mask, UInt32 opt, UInt32* captured) {
    const UInt32 matched = WaitForMatch(
        tcb, mask, opt, [tcb] { return pthread_cond_wait(&tcb->event_cond, &tcb->event_mutex); });
    Consume(tcb, matched, captured);
    lock->Unlock();
    return 0;
}

UInt32 WaitTimed(TCB* tcb, EventLockT* lock, UInt32 mask, UInt32 opt, UInt32 ticks,
                 UInt32* captured) {
    if (const UInt32 present = Match(tcb, mask, opt)) {
        Consume(tcb, present, captured);
        lock->Unlock();
        return 0;
    }
    tcb->timedwait = 1;
    lock->Unlock();
    TimeOutT timeout(tcb, ticks);
    EventLockT relock(tcb);
    const UInt32 matched = WaitForMatch(tcb, mask, opt, [&timeout] { return timeout.Wait(); });
    tcb->timedwait = 0;
    if (matched != 0) {
        Consume(tcb, matched, captured);
    }
    relock.Unlock();
    return matched != 0 ? 0U : 1U;
}

void UnlockLogged(TCB* tcb, int place) {
    const int err = pthread_mutex_unlock(&tcb->event_mutex);
    if (err != 0) {
        logerr("os", "ev_receive_timeout mutex_unlock %d error %d\n", place, err);
    }
}

}  // namespace

UInt32 events_matched(UInt32 captured, UInt32 mask, UInt32 opt) {
    if ((opt & kEvAny) != 0) {
        return captured & mask;
    }
    return (captured & mask) == mask ? mask : 0;
}

UInt32 ev_send(UInt32 tid, UInt32 new_events) {
    TCB* tcb = t_resolve(tid);
    if (tcb == nullptr || tcb->closed) {
        return kTaskNotFound;
    }
    tcb->events_captured |= new_events;
    int err = pthread_mutex_lock(&tcb->event_mutex);
    if (err != 0) {
        logerr("os", "ev_send mutex_lock failed %d, potential reentrancy problem\n", err);
    }
    const bool waiting = tcb->taskWaiting != 0;
    err = pthread_mutex_unlock(&tcb->event_mutex);
    if (waiting) {
        err = pthread_cond_signal(&tcb->event_cond);
        if (err != 0) {
            logerr("os", "ev_send cond_signal failed %d\n", err);
            return static_cast<UInt32>(err);
        }
    } else if (err != 0) {
        logerr("os", "ev_send mutex_unlock failed %d\n", err);
    }
    return kTaskOk;
}

UInt32 ev_receive(UInt32 mask, UInt32 opt, UInt32 max_wait, UInt32* captured) {
    TCB* tcb = t_self();
    if (tcb == nullptr) {
        return kTaskNotATask;
    }
    if (mask == 0) {
        *captured = tcb->events_captured;
        return kTaskOk;
    }
    EventLockT lock(tcb);
    if ((opt & kEvNoWait) != 0) {
        const UInt32 matched = Match(tcb, mask, opt);
        if (matched != 0) {
            Consume(tcb, matched, captured);
        }
        lock.Unlock();
        return matched != 0 ? kTaskOk : kTaskNoEvents;
    }
    tcb->timedout = 0;
    tcb->taskWaiting = 1;
    if (max_wait == 0) {
        return WaitForEver(tcb, &lock, mask, opt, captured);
    }
    return WaitTimed(tcb, &lock, mask, opt, max_wait, captured);
}

UInt32 ev_receive_timeout(void* pArgs) {
    TCB* tcb = static_cast<TCB*>(pArgs);
    int err = pthread_mutex_lock(&tcb->event_mutex);
    if (err != 0) {
        logerr("os", "ev_receive_timeout mutex_lock error %d, potential thread-safe problem\n",
               err);
    }
    if (tcb->timedwait == 0) {
        UnlockLogged(tcb, 3);
        return 0;
    }
    tcb->timedout = 1;
    if (tcb->taskWaiting == 0) {
        UnlockLogged(tcb, 2);
        logwarn("os", "ev_receive_timeout timed out without task waiting %4.4s\n", tcb->taskname);
        return 0;
    }
    UnlockLogged(tcb, 1);
    err = pthread_cond_signal(&tcb->event_cond);
    if (err != 0) {
        logcrit("os", "ev_receive_timeout cond_signal error %d\n", err);
    }
    return 0;
}
