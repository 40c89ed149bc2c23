// Semaphores of one token: mutual-exclusion locks named by a 32-bit id. Any thread may call, a task
// or not. The thread that took a semaphore is the one that gives it back. A task that ends while it
// holds semaphores gives them back as it goes; a thread that is no task does not.
#pragma once

#include <pthread.h>

#include <atomic>

#include "Common/OS/types.h"

// Results of the semaphore calls.
constexpr UInt32 kSmOk = 0;
constexpr UInt32 kSmBadId = 9;      // the id is not that of a semaphore
constexpr UInt32 kSmNoMemory = 65;  // no memory for a semaphore
constexpr UInt32 kSmTaken = 66;     // a non-waiting sm_p found it taken

// Option bit of sm_p: do not wait.
constexpr UInt32 kSmNoWait = 0x01;

// The control block; a semaphore id is its address.
typedef struct _SMCB {
    UInt32 signature;  // the characters "SEMA" in memory order while the semaphore is valid
    char name[4];
    pthread_t thread;  // the creating thread
    int reentercount;  // always 0
    pthread_mutex_t mutex;
    // Private to the service:
    std::atomic<pthread_t> holder;  // the thread that has it, 0 when free
    struct _SMCB* next;             // list of free blocks
} SMCB;

// Makes a semaphore and stores its id through `smid`. `name` gives four characters (null: none).
// A `tokencount` of 0 creates it already taken by the caller, any other count free: there is no
// counting beyond one token. `opt` is ignored. Returns kSmOk or kSmNoMemory.
UInt32 sm_create(const SInt8* name, UInt32 tokencount, UInt32 opt, UInt32* smid);

// Takes a semaphore. With kSmNoWait in `opt` returns kSmTaken when it is held; otherwise waits
// until it is free, however long: `max_wait` is ignored. A task that is deleted while it waits
// leaves the wait. Returns kSmOk, kSmTaken or kSmBadId.
UInt32 sm_p(UInt32 smid, UInt32 opt, UInt32 max_wait);

// Gives a semaphore back. Returns kSmOk or kSmBadId; a caller that does not hold it gets kSmOk, a
// line in the log, and no effect. Does not block.
UInt32 sm_v(UInt32 smid);

// Deletes a semaphore that nobody holds or waits for. Its id is invalid afterwards. Returns kSmOk
// or kSmBadId.
UInt32 sm_delete(UInt32 smid);

// Gives back every semaphore that the calling thread holds. Called as a task ends.
void sm_release_all();

// Holds a semaphore for a scope in which the task may be deleted, see mutexguard.h. A wait that is
// cancelled leaves it free.
class CancellableSemGuardT {
  public:
    explicit CancellableSemGuardT(UInt32 smid) : smid_(smid) { sm_p(smid_, 0, 0); }
    ~CancellableSemGuardT() noexcept(false) { Release(); }
    CancellableSemGuardT(const CancellableSemGuardT&) = delete;
    CancellableSemGuardT& operator=(const CancellableSemGuardT&) = delete;

    // Gives it back before the scope ends; later calls do nothing.
    void Release() {
        if (smid_ != 0) {
            const UInt32 smid = smid_;
            smid_ = 0;
            sm_v(smid);
        }
    }

  private:
    UInt32 smid_;
};
