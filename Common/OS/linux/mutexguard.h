// Takes a POSIX mutex, and holds it for a scope.
#pragma once

#include <pthread.h>

// Takes a mutex that others hold for short times, whatever its kind. Most holders run on another
// processor and are done sooner than a wait would have begun, and a lock with priority inheritance
// that is once waited for is handed on through the kernel from then on; so this looks a few times
// (about 2 us on a workstation) before it waits. With one processor there is nothing to look for.
// Results: pthread_mutex_lock's.
int LockShortHeld(pthread_mutex_t* mutex);

// The looking alone: takes the mutex, or gives up. Results: pthread_mutex_trylock's.
int TryLockForAWhile(pthread_mutex_t* mutex);

// Releases also when a cancelled thread unwinds through the scope. Unlocking is no cancellation
// point, so an ordinary destructor serves.
class MutexGuardT {
  public:
    explicit MutexGuardT(pthread_mutex_t* mutex) : mutex_(mutex) { LockShortHeld(mutex_); }
    ~MutexGuardT() { Unlock(); }
    MutexGuardT(const MutexGuardT&) = delete;
    MutexGuardT& operator=(const MutexGuardT&) = delete;

    // Releases before the scope ends; later calls do nothing.
    void Unlock() {
        if (mutex_ != nullptr) {
            pthread_mutex_unlock(mutex_);
            mutex_ = nullptr;
        }
    }

  private:
    pthread_mutex_t* mutex_;
};
