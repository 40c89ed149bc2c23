// Taking mutexes under ThreadSanitizer, which learns the order of locks from waits only: an attempt
// that may fail deadlocks with nothing. So nobody looks before waiting here, and the one kind of
// wait that the sanitizer does not know is told to it.
#include <dlfcn.h>
#include <errno.h>
#include <sanitizer/tsan_interface.h>

#include "Common/OS/linux/mutexguard.h"

int TryLockForAWhile(pthread_mutex_t*) {
    return EBUSY;
}

int LockShortHeld(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}

// Stands before the C library's function of this name.
extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                       const timespec* end) noexcept {
    static const auto wait = reinterpret_cast<decltype(&pthread_mutex_clocklock)>(
        dlsym(RTLD_NEXT, "pthread_mutex_clocklock"));
    __tsan_mutex_pre_lock(mutex, 0);
    const int err = wait(mutex, clock, end);
    __tsan_mutex_post_lock(mutex, err == 0 ? 0 : __tsan_mutex_try_lock_failed, 0);
    return err;
}
