/* A cancel that waits for a firing, against the fired function that deletes the canceller, or
 * deletes a task that deletes the canceller.
 *
 * The canceller cannot be cancelled itself: it holds deletion off, or is in its delete callback.
 * Deletions may begin before the canceller waits, while it waits, or never, in either order.
 *
 * Checked: no deadlock, and the cancel returns during the firing only if the firing waits for the
 * canceller.
 *
 * Broken on purpose: with -DASKONCE the canceller looks once, before it waits, whether the firing
 * deletes it; with -DNOWAKE the deleter does not wake it; with -DONESTEP it asks for its own
 * deleter only. All deadlock. With -DWAKEFIRST the deleter wakes before it says whom it deletes,
 * which is lost.
 */

bool listLock;     /* tmcblistmutex */
/* The tasks, and who deletes each: its `deleter`. The function's thread is deleted by nobody. */
#define kNobody 0
#define kCanceller 1
#define kBetween 2
#define kFunction 3
byte deleter[3];
bool gone[3];      /* the task has ended */
bool firing = true;
bool sleeping;     /* the canceller is in the condition wait */

#ifdef ONESTEP
#define LOOK (deleter[kCanceller] == kFunction)
#else
#define LOOK (deleter[kCanceller] == kFunction || \
              (deleter[kCanceller] == kBetween && deleter[kBetween] == kFunction))
#endif

inline lock(l)   { atomic { !l -> l = true } }
inline unlock(l) { l = false }
inline wake()    { lock(listLock); sleeping = false; unlock(listLock) }

/* t_delete: claims the task unless another has, wakes who waits for a firing, waits for its end. */
inline claim(task, self) {
    atomic {
        if
        :: deleter[task] == kNobody && !gone[task] -> deleter[task] = self; claimed = true
        :: else -> claimed = false
        fi
    }
}
inline delete(task, self) {
#ifdef WAKEFIRST
    wake();
    claim(task, self);
#else
    claim(task, self);
#ifndef NOWAKE
    wake();
#endif
#endif
    if
    :: claimed -> gone[task]
    :: else
    fi
}

proctype Canceller() {
    bool mine;
    lock(listLock);
    mine = LOOK;
    do
    :: !firing || mine -> break
    :: else ->
        atomic { sleeping = true; listLock = false };
        atomic { !sleeping && !listLock -> listLock = true };
#ifndef ASKONCE
        mine = LOOK
#endif
    od;
    assert(!firing || mine);
    unlock(listLock);
    gone[kCanceller] = true
}

proctype Between() {
    bool claimed;
    if
    :: true -> delete(kCanceller, kBetween)
    :: true
    fi;
    gone[kBetween] = true
}

proctype Function() {
    bool claimed;
    if
    :: true -> delete(kCanceller, kFunction)
    :: true -> delete(kBetween, kFunction)
    :: true
    fi;
    lock(listLock);
    firing = false;
    sleeping = false;
    unlock(listLock)
}

init {
    atomic { run Canceller(); run Between(); run Function() }
}
