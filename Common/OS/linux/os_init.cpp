// Mutexes with priority inheritance, and the one-time set-up of the layer's process-wide ones.
#include "Common/OS/linux/os_init.h"

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"

pthread_mutex_t logmsgmutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t logqueuemutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

pthread_once_t gOnce = PTHREAD_ONCE_INIT;

void InitAll() {
    InitInheritingMutex(&intsoffmutex, PTHREAD_MUTEX_RECURSIVE);
    InitInheritingMutex(&tmcblistmutex);
    InitInheritingMutex(&tcblistmutex);
    InitInheritingMutex(&logmsgmutex, PTHREAD_MUTEX_RECURSIVE);
    InitInheritingMutex(&logqueuemutex);
}

}  // namespace

int InitInheritingMutex(pthread_mutex_t* mutex, int type) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, type);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    const int err = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return err;
}

void os_init() {
    pthread_once(&gOnce, InitAll);
}
