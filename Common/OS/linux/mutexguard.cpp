// How a mutex is taken that is held for short times.
#include "Common/OS/linux/mutexguard.h"

#include <errno.h>
#include <unistd.h>

namespace {

constexpr int kAttempts = 200;  // well under the time of a wake-up

// ThreadSanitizer learns the order of locks from waits only: an attempt that may fail deadlocks
// with nothing, so it would find no wrong order any more.
#ifdef __SANITIZE_THREAD__
constexpr bool kLookFirst = false;
#else
constexpr bool kLookFirst = true;
#endif

}  // namespace

int TryLockForAWhile(pthread_mutex_t* mutex) {
    int err = pthread_mutex_trylock(mutex);
    if (err == EBUSY) {
        static const bool others = sysconf(_SC_NPROCESSORS_ONLN) > 1;
        for (int i = 0; others && err == EBUSY && i < kAttempts; i++) {
            err = pthread_mutex_trylock(mutex);
        }
    }
    return err;
}

int LockShortHeld(pthread_mutex_t* mutex) {
    const int err = kLookFirst ? TryLockForAWhile(mutex) : EBUSY;
    return err == EBUSY ? pthread_mutex_lock(mutex) : err;
}
