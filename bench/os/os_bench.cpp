// The operating-system floor beside what one would use without it, in one run: event hand-over
// beside a bare mutex with condition variable and beside a pair of eventfds, semaphores beside a
// mutex, the interrupts-off section, the timer dispatch, and tasks beside bare threads.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"

namespace {

// One iteration of each hand-over is a round trip: there and back.

UInt32 gMain;

void EventEcho(UInt32, UInt32, UInt32, UInt32) {
    UInt32 captured;
    while (ev_receive(0x3, kEvAny, 0, &captured) == kTaskOk && (captured & 0x2) == 0) {
        ev_send(gMain, 0x1);
    }
}

void EventRoundTrip(benchmark::State& state) {
    t_attach("main", 0, nullptr);
    t_ident(nullptr, 0, &gMain);
    UInt32 echo;
    t_create("echo", 0, 0, 0, 0, &echo);
    t_start(echo, 0, EventEcho, nullptr);
    UInt32 captured;
    for (auto _ : state) {
        ev_send(echo, 0x1);
        ev_receive(0x1, kEvAny, 0, &captured);
    }
    ev_send(echo, 0x2);
}
BENCHMARK(EventRoundTrip)->UseRealTime();

void EventRoundTripWithTimeOut(benchmark::State& state) {
    t_attach("main", 0, nullptr);
    t_ident(nullptr, 0, &gMain);
    UInt32 echo;
    t_create("echo", 0, 0, 0, 0, &echo);
    t_start(echo, 0, EventEcho, nullptr);
    UInt32 captured;
    for (auto _ : state) {
        ev_send(echo, 0x1);
        ev_receive(0x1, kEvAny, 100, &captured);
    }
    ev_send(echo, 0x2);
}
BENCHMARK(EventRoundTripWithTimeOut)->UseRealTime();

// The same exchange by hand: a flag word under a mutex, signalled after the unlock.
struct BareT {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    unsigned flags = 0;

    void Send(unsigned flag) {
        pthread_mutex_lock(&mutex);
        flags |= flag;
        pthread_mutex_unlock(&mutex);
        pthread_cond_signal(&cond);
    }
    unsigned Receive() {
        pthread_mutex_lock(&mutex);
        while (flags == 0) {
            pthread_cond_wait(&cond, &mutex);
        }
        const unsigned got = flags;
        flags = 0;
        pthread_mutex_unlock(&mutex);
        return got;
    }
};

BareT gThere;
BareT gBack;

void* BareEcho(void*) {
    while ((gThere.Receive() & 0x2) == 0) {
        gBack.Send(0x1);
    }
    return nullptr;
}

void BareRoundTrip(benchmark::State& state) {
    pthread_t echo;
    pthread_create(&echo, nullptr, BareEcho, nullptr);
    for (auto _ : state) {
        gThere.Send(0x1);
        gBack.Receive();
    }
    gThere.Send(0x2);
    pthread_join(echo, nullptr);
}
BENCHMARK(BareRoundTrip)->UseRealTime();

int gThereFd;
int gBackFd;

void* EventfdEcho(void*) {
    eventfd_t value;
    while (eventfd_read(gThereFd, &value) == 0 && value != 2) {
        eventfd_write(gBackFd, 1);
    }
    return nullptr;
}

void EventfdRoundTrip(benchmark::State& state) {
    gThereFd = eventfd(0, 0);
    gBackFd = eventfd(0, 0);
    pthread_t echo;
    pthread_create(&echo, nullptr, EventfdEcho, nullptr);
    eventfd_t value;
    for (auto _ : state) {
        eventfd_write(gThereFd, 1);
        eventfd_read(gBackFd, &value);
    }
    eventfd_write(gThereFd, 2);
    pthread_join(echo, nullptr);
    close(gThereFd);
    close(gBackFd);
}
BENCHMARK(EventfdRoundTrip)->UseRealTime();

void Semaphore(benchmark::State& state) {
    static UInt32 id;
    if (state.thread_index() == 0 && id == 0) {
        sm_create("BNCH", 1, 0, &id);
    }
    for (auto _ : state) {
        sm_p(id, 0, 0);
        sm_v(id);
    }
}
BENCHMARK(Semaphore)->UseRealTime();
BENCHMARK(Semaphore)->Threads(2)->UseRealTime();

// Of the same kind as the semaphore's: with priority inheritance.
pthread_mutex_t* PriorityMutex() {
    static pthread_mutex_t mutex;
    static const bool made = [] {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
        return pthread_mutex_init(&mutex, &attr) == 0;
    }();
    benchmark::DoNotOptimize(made);
    return &mutex;
}

void MutexPriorityInheritance(benchmark::State& state) {
    pthread_mutex_t* mutex = PriorityMutex();
    for (auto _ : state) {
        pthread_mutex_lock(mutex);
        pthread_mutex_unlock(mutex);
    }
}
BENCHMARK(MutexPriorityInheritance)->UseRealTime();
BENCHMARK(MutexPriorityInheritance)->Threads(2)->UseRealTime();

void MutexDefault(benchmark::State& state) {
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}
BENCHMARK(MutexDefault)->UseRealTime();
BENCHMARK(MutexDefault)->Threads(2)->UseRealTime();

void InterruptsOff(benchmark::State& state) {
    for (auto _ : state) {
        const UInt32 token = interruptsOff();
        interruptsRestore(token);
    }
}
BENCHMARK(InterruptsOff);

void InterruptsOffNested(benchmark::State& state) {
    const UInt32 outer = interruptsOff();
    for (auto _ : state) {
        const UInt32 token = interruptsOff();
        interruptsRestore(token);
    }
    interruptsRestore(outer);
}
BENCHMARK(InterruptsOffNested);

// One tick with so many timers armed, none of them due.
void TimerDispatch(benchmark::State& state) {
    StartSystemTimer();
    UInt32 ids[kTimerPoolSize];
    const auto count = static_cast<int>(state.range(0));
    for (int i = 0; i < count; i++) {
        tm_evafter(0xFFFFFFFF, 1, &ids[i]);
    }
    for (auto _ : state) {
        tm_dispatch();
    }
    for (int i = 0; i < count; i++) {
        tm_cancel(ids[i]);
    }
}
BENCHMARK(TimerDispatch)->Arg(1)->Arg(10)->Arg(50);

// One tick at which every timer is due, runs its function and is armed again.
void TimerDispatchAllDue(benchmark::State& state) {
    UInt32 ids[kTimerPoolSize];
    const auto count = static_cast<int>(state.range(0));
    for (int i = 0; i < count; i++) {
        tm_callback_after(
            1, &ids[i], [](void*) -> UInt32 { return 1; }, nullptr);
    }
    t_delete(timerid);  // the bench dispatches by itself
    for (auto _ : state) {
        tm_dispatch();
    }
    for (int i = 0; i < count; i++) {
        tm_cancel(ids[i]);
    }
}
BENCHMARK(TimerDispatchAllDue)->Arg(1)->Arg(10)->Arg(50);

void TaskCreateStartDelete(benchmark::State& state) {
    for (auto _ : state) {
        UInt32 id;
        t_create("task", 0, 0, 0, 0, &id);
        t_start(
            id, 0, [](UInt32, UInt32, UInt32, UInt32) { tm_wkafter(1000); }, nullptr);
        t_delete(id);
    }
}
BENCHMARK(TaskCreateStartDelete)->UseRealTime();

void ThreadCreateCancelJoin(benchmark::State& state) {
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(
            &thread, nullptr,
            [](void*) -> void* {
                sleep(1000);
                return nullptr;
            },
            nullptr);
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
    }
}
BENCHMARK(ThreadCreateCancelJoin)->UseRealTime();

void ThreadCreateJoin(benchmark::State& state) {
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(
            &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
        pthread_join(thread, nullptr);
    }
}
BENCHMARK(ThreadCreateJoin)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    os_init();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
