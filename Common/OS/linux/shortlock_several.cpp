// How a mutex is taken that is held for short times, where there may be several processors.
#include <errno.h>
#include <unistd.h>

#include "Common/OS/linux/mutexguard.h"

namespace {

constexpr int kAttempts = 200;  // well under the time of a wake-up

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
    const int err = TryLockForAWhile(mutex);
    return err == EBUSY ? pthread_mutex_lock(mutex) : err;
}
