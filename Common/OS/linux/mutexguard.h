// Holds a POSIX mutex for a scope. Releases it also when a cancelled thread unwinds through the
// scope. Unlocking is no cancellation point, so an ordinary destructor serves.
#pragma once

#include <pthread.h>

class MutexGuardT {
  public:
    explicit MutexGuardT(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
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
