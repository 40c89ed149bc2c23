// Makes a POSIX mutex, takes it, and holds it for a scope.
//
// Which guard to use, for mutexes and semaphores alike, depends on what happens when the task is
// deleted inside the scope:
//   MutexGuardT, SemGuardT: the deletion is held off until the scope ends, so nothing that is
//     guarded is left half changed. This is the rule. The scope waits for nothing but short-held
//     locks and calls no user function, or the deleter would wait as long.
//   CancellableMutexGuardT, CancellableSemGuardT: the task goes where it waits, and the lock is
//     released on its way. Only for scopes that wait or call user functions, and only where what is
//     guarded is whole at each of those places.
//   InterruptsOffT: for sections without any place at which a task can be deleted; it costs least.
#pragma once

#include <pthread.h>

#include "Common/OS/linux/nocancel.h"

// Makes a mutex with priority inheritance, of a POSIX type. Results: pthread_mutex_init's.
int InitInheritingMutex(pthread_mutex_t* mutex, int type = PTHREAD_MUTEX_DEFAULT);

// Takes a mutex that others hold for short times, whatever its kind. On a machine with several
// processors most holders run on another one and are done sooner than a wait would have begun, and
// a lock with priority inheritance that is once waited for is handed on through the kernel from
// then on; so there this looks a few times (about 2 us on a workstation) before it waits. Results:
// pthread_mutex_lock's.
int LockShortHeld(pthread_mutex_t* mutex);

// The looking alone, as often as it pays: takes the mutex, or returns EBUSY and the caller waits.
// Other results: pthread_mutex_lock's.
int TryLockForAWhile(pthread_mutex_t* mutex);

// Releases also when a cancelled thread unwinds through the scope. Unlocking is no cancellation
// point, so an ordinary destructor serves.
class CancellableMutexGuardT {
  public:
    explicit CancellableMutexGuardT(pthread_mutex_t* mutex) : mutex_(mutex) {
        LockShortHeld(mutex_);
    }
    ~CancellableMutexGuardT() { Unlock(); }
    CancellableMutexGuardT(const CancellableMutexGuardT&) = delete;
    CancellableMutexGuardT& operator=(const CancellableMutexGuardT&) = delete;

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

class MutexGuardT {
  public:
    explicit MutexGuardT(pthread_mutex_t* mutex) : guard_(mutex) {}

    // Releases before the scope ends; the deletion stays held off until then.
    void Unlock() { guard_.Unlock(); }

  private:
    NoCancelT no_cancel_;
    CancellableMutexGuardT guard_;
};
