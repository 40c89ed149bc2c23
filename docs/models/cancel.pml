/* A cancel that waits for a firing, against the fired function that deletes the canceller.
 *
 * The canceller cannot be cancelled itself: it holds deletion off, or is in its delete callback.
 * The function may begin to delete it before the canceller waits, while it waits, or never.
 *
 * Checked: no deadlock, and the cancel returns during the firing only if the firing waits for the
 * canceller.
 *
 * Broken on purpose: with -DASKONCE the canceller looks once, before it waits, whether the firing
 * deletes it; with -DNOWAKE the deleter does not wake it. Both deadlock. With -DWAKEFIRST the
 * deleter wakes before it says whom it deletes, which is lost.
 */

bool listLock;     /* tmcblistmutex */
bool deletes;      /* the canceller's `deleter` is the firing's thread */
bool firing = true;
bool sleeping;     /* the canceller is in the condition wait */
bool gone;         /* the canceller has ended */

inline lock(l)   { atomic { !l -> l = true } }
inline unlock(l) { l = false }
inline wake()    { lock(listLock); sleeping = false; unlock(listLock) }

proctype Canceller() {
    bool mine;
    lock(listLock);
    mine = deletes;
    do
    :: !firing || mine -> break
    :: else ->
        atomic { sleeping = true; listLock = false };
        atomic { !sleeping && !listLock -> listLock = true };
#ifndef ASKONCE
        mine = deletes
#endif
    od;
    assert(!firing || deletes);
    unlock(listLock);
    gone = true
}

proctype Function() {
    if
    :: true ->
        /* t_delete: claims the canceller, wakes it, waits for its end. */
#ifdef WAKEFIRST
        wake();
        deletes = true;
#else
        deletes = true;
#ifndef NOWAKE
        wake();
#endif
#endif
        gone
    :: true
    fi;
    lock(listLock);
    firing = false;
    sleeping = false;
    unlock(listLock)
}

init {
    atomic { run Canceller(); run Function() }
}
