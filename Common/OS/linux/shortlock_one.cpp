// How a mutex is taken that is held for short times, where there is one processor: a holder that
// is not running cannot be done before the caller waits. Also for ThreadSanitizer, which learns the
// order of locks from waits only.
#include "Common/OS/linux/mutexguard.h"

int TryLockForAWhile(pthread_mutex_t* mutex) {
    return pthread_mutex_trylock(mutex);
}

int LockShortHeld(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}
