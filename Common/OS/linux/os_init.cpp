// One-time set-up of the layer's process-wide locks.
#include "Common/OS/linux/os_init.h"

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"

pthread_mutex_t logmsgmutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t logqueuemutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

pthread_once_t gOnce = PTHREAD_ONCE_INIT;

void InitMutex(pthread_mutex_t* mutex, int type) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, type);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

void InitAll() {
    InitMutex(&intsoffmutex, PTHREAD_MUTEX_RECURSIVE);
    InitMutex(&tmcblistmutex, PTHREAD_MUTEX_DEFAULT);
    InitMutex(&tcblistmutex, PTHREAD_MUTEX_DEFAULT);
    InitMutex(&logmsgmutex, PTHREAD_MUTEX_RECURSIVE);
    InitMutex(&logqueuemutex, PTHREAD_MUTEX_DEFAULT);
}

}  // namespace

void os_init() {
    pthread_once(&gOnce, InitAll);
}
