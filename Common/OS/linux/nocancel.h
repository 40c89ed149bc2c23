// Holds off cancellation. Any thread may use it.
#pragma once

#include <pthread.h>

// Holds off the calling thread's cancellation for a scope.
class NoCancelT {
  public:
    NoCancelT() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancelT() {
        int ignored;
        pthread_setcancelstate(before_, &ignored);
    }
    NoCancelT(const NoCancelT&) = delete;
    NoCancelT& operator=(const NoCancelT&) = delete;

  private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};
