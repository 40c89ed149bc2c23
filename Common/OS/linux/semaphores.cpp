// Semaphores over priority-inheritance mutexes. A wait is cut into slices so that a task deleted
// while it waits gets to see it: locking a mutex is no cancellation point.
#include "Common/OS/linux/semaphores.h"

#include <errno.h>
#include <string.h>
#include <time.h>

#include "Common/OS/linux/blockpool.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/log.h"

namespace {

constexpr char kSignature[4] = {'S', 'E', 'M', 'A'};
constexpr long kWaitSlice = 50 * 1000 * 1000;  // ns; how late a waiting task sees its deletion

// Who holds a semaphore is written under its mutex and read by others only to see that they do not.
// With the default order taking and giving back took four fifths longer on a workstation.
constexpr auto kHolderOrder = std::memory_order_relaxed;

BlockPoolT<SMCB> gPool;
pthread_mutex_t gPoolMutex = PTHREAD_MUTEX_INITIALIZER;

UInt32 SignatureWord() {
    UInt32 word;
    memcpy(&word, kSignature, sizeof(word));
    return word;
}

SMCB* Lookup(UInt32 smid) {
    SMCB* sm = gPool.Find(smid);
    return sm != nullptr && sm->signature == SignatureWord() ? sm : nullptr;
}

int WaitFor(pthread_mutex_t* mutex) {
    clockid_t clock = CLOCK_MONOTONIC;
    for (;;) {
        timespec end;
        clock_gettime(clock, &end);
        end.tv_nsec += kWaitSlice;
        if (end.tv_nsec >= 1000000000) {
            end.tv_nsec -= 1000000000;
            end.tv_sec++;
        }
        const int err = pthread_mutex_clocklock(mutex, clock, &end);
        if ((err == EINVAL || err == ENOSYS) && clock == CLOCK_MONOTONIC) {
            clock = CLOCK_REALTIME;  // kernels before 5.14 know no other for these mutexes
        } else if (err != ETIMEDOUT) {
            return err;
        }
        pthread_testcancel();
    }
}

}  // namespace

UInt32 sm_create(const SInt8* name, UInt32 tokencount, UInt32, UInt32* smid) {
    SMCB* sm;
    {
        MutexGuardT guard(&gPoolMutex);
        sm = gPool.Take();
    }
    if (sm == nullptr) {
        return kSmNoMemory;
    }
    memset(sm->name, 0, sizeof(sm->name));
    if (name != nullptr) {
        memcpy(sm->name, name, strnlen(name, sizeof(sm->name)));
    }
    sm->thread = pthread_self();
    sm->reentercount = 0;
    InitInheritingMutex(&sm->mutex);
    pthread_t holder = {};
    if (tokencount == 0) {
        const int err = pthread_mutex_lock(&sm->mutex);
        if (err != 0) {
            logcrit("os", "mutex_lock error in sm_create %d\n", err);
        }
        holder = pthread_self();
    }
    sm->holder.store(holder, kHolderOrder);
    sm->signature = SignatureWord();
    *smid = id_of(sm);
    return kSmOk;
}

UInt32 sm_p(UInt32 smid, UInt32 opt, UInt32) {
    SMCB* sm = Lookup(smid);
    if (sm == nullptr) {
        return kSmBadId;
    }
    const bool waits = (opt & kSmNoWait) == 0;
    int err = waits ? TryLockForAWhile(&sm->mutex) : pthread_mutex_trylock(&sm->mutex);
    if (err == EBUSY) {
        if (!waits) {
            return kSmTaken;
        }
        err = WaitFor(&sm->mutex);
    }
    if (err != 0) {
        logcrit("os", "sm_p pthread_mutex_lock error %d\n", err);
        return kSmOk;
    }
    sm->holder.store(pthread_self(), kHolderOrder);
    return kSmOk;
}

UInt32 sm_v(UInt32 smid) {
    SMCB* sm = Lookup(smid);
    if (sm == nullptr) {
        return kSmBadId;
    }
    int err = EPERM;
    if (sm->holder.load(kHolderOrder) == pthread_self()) {
        sm->holder.store(pthread_t{}, kHolderOrder);
        err = pthread_mutex_unlock(&sm->mutex);
    }
    if (err != 0) {
        logcrit("os", "sm_v pthread_mutex_unlock error %d\n", err);
    }
    return kSmOk;
}

UInt32 sm_delete(UInt32 smid) {
    SMCB* sm = Lookup(smid);
    if (sm == nullptr) {
        return kSmBadId;
    }
    sm->signature = 0;
    if (sm->holder.load(kHolderOrder) == pthread_self()) {
        sm->holder.store(pthread_t{}, kHolderOrder);
        pthread_mutex_unlock(&sm->mutex);
    }
    const int err = pthread_mutex_destroy(&sm->mutex);
    if (err != 0) {
        logcrit("os", "pthread_mutex_destroy error %d\n", err);
    }
    MutexGuardT guard(&gPoolMutex);
    gPool.Give(sm);
    return kSmOk;
}

void sm_release_all() {
    const pthread_t self = pthread_self();
    MutexGuardT guard(&gPoolMutex);
    gPool.ForEach([self](SMCB* sm) {
        if (sm->holder.load(kHolderOrder) == self) {
            sm->holder.store(pthread_t{}, kHolderOrder);
            pthread_mutex_unlock(&sm->mutex);
        }
    });
}
