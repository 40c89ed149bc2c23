// The interrupts-off section over one process-wide mutex.
#include "Common/OS/linux/intsoff.h"

#include <atomic>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/log.h"

pthread_mutex_t intsoffmutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Written inside the section only; read outside it to report misuse. Explicit orders for the same
// reason as in semaphores.cpp.
std::atomic<pthread_t> intsoffthread{};
std::atomic<int> intsoffcount{0};

// Threads print as 32 bits: what tells two of them apart, not their whole native width.
unsigned Printable(pthread_t thread) {
    return static_cast<unsigned>(thread);
}

}  // namespace

UInt32 interruptsOff() {
    const int err = LockShortHeld(&intsoffmutex);
    if (err != 0) {
        logerr("os", "interruptsOff mutex_lock error %d\n", err);
    }
    const pthread_t self = pthread_self();
    const int depth = intsoffcount.load(std::memory_order_relaxed);
    if (depth == 0) {
        intsoffthread.store(self, std::memory_order_relaxed);
    } else if (intsoffthread.load(std::memory_order_relaxed) != self) {
        logerr("os", "interruptsOff re-entered intsoffthread: %08x curthread: %08x\n",
               Printable(intsoffthread.load(std::memory_order_relaxed)), Printable(self));
    }
    intsoffcount.store(depth + 1, std::memory_order_relaxed);
    return static_cast<UInt32>(depth + 1);
}

void interruptsRestore(UInt32 oldie) {
    const pthread_t self = pthread_self();
    const int depth = intsoffcount.load(std::memory_order_relaxed);
    const pthread_t holder = intsoffthread.load(std::memory_order_relaxed);
    // A thread that is not inside has nothing to leave: giving back another's lock would let two
    // threads in.
    if (depth == 0) {
        logerr("os", "interruptsRestore called without interruptsOff curthread: %08x\n",
               Printable(self));
        return;
    }
    if (holder != self) {
        logerr("os", "interruptsRestore call re-entered intsoffthread: %08x curthread: %08x\n",
               Printable(holder), Printable(self));
        return;
    }
    if (static_cast<UInt32>(depth) != oldie) {
        logerr("os", "interruptsRestore call inconsistent intsoffcount: %d oldie: %d\n", depth,
               static_cast<int>(oldie));
    }
    if (depth == 1) {
        intsoffthread.store(pthread_t{}, std::memory_order_relaxed);
    }
    intsoffcount.store(depth - 1, std::memory_order_relaxed);
    pthread_mutex_unlock(&intsoffmutex);
}

void interrupts_release_all() {
    while (intsoffthread.load(std::memory_order_relaxed) == pthread_self()) {
        interruptsRestore(static_cast<UInt32>(intsoffcount.load(std::memory_order_relaxed)));
    }
}
