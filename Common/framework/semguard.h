// Holds a semaphore for a scope in which the task's deletion is held off; when to use it stands in
// mutexguard.h. Any thread may use it.
#pragma once

#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/types.h"

// Holds a semaphore for a scope, waiting for it at the start (with kSmNoWait: only if it is free).
class SemGuardT {
  public:
    explicit SemGuardT(UInt32 smid, UInt32 opt = 0) : smid_(smid) {
        held_ = sm_p(smid, opt, 0) == kSmOk;
    }
    ~SemGuardT() { Release(); }
    SemGuardT(const SemGuardT&) = delete;
    SemGuardT& operator=(const SemGuardT&) = delete;

    // False when the semaphore does not exist, or was taken and is not waited for.
    bool Held() const { return held_; }

    void Release() {
        if (held_) {
            held_ = false;
            sm_v(smid_);
        }
    }

  private:
    NoCancelT no_cancel_;
    UInt32 smid_;
    bool held_;
};
