// How a mutex is taken that is held for short times, where there is one processor: a holder that
// does not run is not done any sooner for being looked at again.
#include "Common/OS/linux/mutexguard.h"

int TryLockForAWhile(pthread_mutex_t* mutex) {
    return pthread_mutex_trylock(mutex);
}

int LockShortHeld(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}
