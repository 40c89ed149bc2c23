/* The event wait with a time-out, against the timer dispatch, a cancel and the end of the task.
 *
 * Processes: the receiver (ev_receive with a time-out, twice in a row), a sender (ev_send), the
 * timer task (one dispatch that fires the receiver's timer, then another), and a deleter that may
 * cancel the receiver at any point at which it waits.
 *
 * What the code does, one step per lock operation:
 *   - the receiver arms its timer before it settles down to wait and disarms it after it has let
 *     go of the event mutex; the two locks are never held together;
 *   - the dispatcher marks due timers under the list lock, lets go of it, and fires them one by
 *     one; a cancel waits until a firing of the same timer is over;
 *   - whoever frees the control block first disarms its timers in the same way.
 *
 * Checked: no deadlock (invalid end states), no use of a control block or timer after it was freed
 * (assertions), no lost wake-up (a wait with a time-out that has fired, or whose event was sent,
 * ends: the receiver reaches its end).
 *
 * -DFOREVER waits without a time-out for one event that is sent: a lost wake-up is then a deadlock.
 *
 * Broken on purpose: with -DINVERTED the receiver arms and cancels while it holds the event mutex
 * and the dispatcher fires with the list lock held: the checker finds the deadlock. With -DNOWAIT a
 * cancel does not wait for the firing: it finds the use after free. With -DFOREVER -DSIGNALFIRST
 * the sender signals before it records: it finds the lost wake-up.
 */

#ifdef FOREVER
#define WAITS 1
#else
#define WAITS 2
#endif

bool listLock, eventLock;       /* true: held */
bool captured;                  /* the event the receiver waits for */
bool timedwait, timedout;
bool sleeping;                  /* the receiver is in the condition wait */
bool armed, due, firing, gone;  /* the receiver's timer */
bool cancelled;                 /* the deleter has cancelled the receiver */
bool freed;                     /* the control block is gone */
bool finished;

inline lock(l)   { atomic { !l -> l = true } }
inline unlock(l) { l = false }
/* pthread_cond_signal */
inline signal()  { sleeping = false }
/* pthread_cond_wait: releases, sleeps, comes back with the lock held, also when cancelled. */
inline condwait() {
    atomic { sleeping = true; eventLock = false };
    atomic { ((!sleeping || cancelled) && !eventLock) -> sleeping = false; eventLock = true }
}

inline waitFiring() {
#ifndef NOWAIT
    do
    :: !firing -> break
    :: else ->
        unlock(listLock);
        firing == false;
        lock(listLock)
    od
#else
    skip
#endif
}

inline arm() {
    lock(listLock);
    armed = true; due = false;
    unlock(listLock)
}

inline disarm() {
    lock(listLock);
    if
    :: armed -> armed = false; due = false; if :: firing -> gone = true :: else fi
    :: else
    fi;
    waitFiring();
    unlock(listLock)
}

proctype Receiver() {
    byte n = 0;
    bool match;
    do
    :: n == WAITS || cancelled -> break
    :: else ->
        lock(eventLock);
        if
        :: captured -> captured = false; unlock(eventLock)
        :: else ->
            timedout = false; timedwait = true;
#if defined(FOREVER)
            skip;
#elif defined(INVERTED)
            arm();
#else
            unlock(eventLock);
            arm();
            lock(eventLock);
#endif
            do
            :: captured || timedout || cancelled -> break
            :: else -> condwait()
            od;
            timedwait = false;
            match = captured;
            if :: match && !cancelled -> captured = false :: else fi;
#ifdef INVERTED
            disarm();
            unlock(eventLock);
#else
            unlock(eventLock);
            disarm();
#endif
        fi;
        n++
    od;
    /* The task ends: nothing of it is armed, and its block goes. */
    disarm();
    freed = true;
    finished = true
}

/* ev_receive_timeout */
inline timeout_routine() {
    assert(!freed);
    lock(eventLock);
    assert(!freed);
    if
    :: timedwait -> timedout = true; unlock(eventLock); signal()
    :: else -> unlock(eventLock)
    fi;
    assert(!freed)
}

proctype TimerTask() {
    do
    :: finished -> break
    :: armed ->
        /* One tick. Ticks at which nothing is armed change nothing. */
        lock(listLock);
#ifdef INVERTED
        if
        :: armed -> timeout_routine(); armed = false
        :: else
        fi;
        unlock(listLock)
#else
        if :: armed -> due = true :: else fi;
        unlock(listLock);
        lock(listLock);
        if
        :: due && armed ->
            due = false; firing = true; gone = false;
            unlock(listLock);
            timeout_routine();
            lock(listLock);
            if :: !gone -> armed = false :: else fi;
            firing = false;
            unlock(listLock)
        :: else -> unlock(listLock)
        fi
#endif
    od
}

proctype Sender() {
    if
    :: true ->
#ifdef SIGNALFIRST
        signal();
        captured = true
#else
        /* The record is atomic and precedes the lock; the lock orders it with the receiver's look
           before it sleeps; the signal follows the unlock. The id was checked to be live, and the
           block's lock outlives the task. */
        captured = true;
        lock(eventLock);
        unlock(eventLock);
        signal()
#endif
#ifndef FOREVER
    :: true  /* or sends nothing at all: the time-out must end the wait */
#endif
    fi
}

proctype Deleter() {
    if
#ifndef FOREVER
    :: cancelled = true
#endif
    :: skip
    fi
}

init {
    atomic { run Receiver(); run TimerTask(); run Sender(); run Deleter() }
}

ltl ends { <> finished }
