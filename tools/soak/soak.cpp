// The soak: event exchanges with time-outs, timers up to the last one, contended semaphores, eight
// loggers and deletions at random points, all at once for as long as asked (seconds, default 600).
// Ends with status 0 only if every event is accounted for and the process has the threads,
// descriptors and control-block memory with which it began.
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <iterator>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/log.h"
#include "Common/OS/syslogq.h"

namespace {

constexpr double kSeconds = 600;
constexpr double kMostSeconds = 1e6;
constexpr int kPairs = 3;
constexpr int kLoggers = 8;
constexpr int kVictims = 4;

std::atomic<bool> gStop{false};
UInt32 gSemaphore;
int gGuarded;  // under gSemaphore
std::atomic<long> gGuardedEntries{0};
std::atomic<long> gRoundTrips{0}, gTimeOuts{0}, gLines{0}, gFirings{0}, gDeletions{0};
std::atomic<int> gLost{0};
std::atomic<UInt32> gPartner[kPairs];

int CountEntries(const char* folder) {
    int count = 0;
    if (DIR* dir = opendir(folder)) {
        while (readdir(dir) != nullptr) {
            count++;
        }
        closedir(dir);
    }
    return count;
}

constexpr long kCachedStacks = 32;

struct CountsT {
    int threads;
    int descriptors;
    size_t low_bytes;
    int free_timers;
    size_t heap_bytes;
};

CountsT Counts() {
    int free_timers = 0;
    pthread_mutex_lock(&tmcblistmutex);
    for (const TMCB* timer = freetimerList; timer != nullptr; timer = timer->next) {
        free_timers++;
    }
    pthread_mutex_unlock(&tmcblistmutex);
    return {CountEntries("/proc/self/task"), CountEntries("/proc/self/fd"), LowBytesInUse(),
            free_timers, mallinfo2().uordblks};
}

// Answers each event 0x1 with 0x2 to the asker, which counts that every answer comes.
void Answerer(UInt32 asker, UInt32, UInt32, UInt32) {
    UInt32 events;
    while (!gStop) {
        if (ev_receive(0x1, 0, 3, &events) == kTaskOk) {
            ev_send(asker, 0x2);
        } else {
            gTimeOuts++;
        }
    }
}

void Asker(UInt32 pair, UInt32, UInt32, UInt32) {
    UInt32 events;
    for (UInt32 i = 0; !gStop; i++) {
        ev_send(gPartner[pair], 0x1);
        if (ev_receive(0x2, 0, 3000, &events) == kTaskOk) {
            gRoundTrips++;
        } else if (!gStop) {
            gLost++;
        }
        if (i % 64 == 0) {
            tm_wkafter(4);  // long enough for the partner's wait to expire
        }
    }
}

void Logger(UInt32 number, UInt32, UInt32, UInt32) {
    for (UInt32 i = 0; !gStop; i++) {
        logwarn("soak", "line %u of logger %u\n", i, number);
        gLines++;
        udelay(500);
    }
}

void TimerUser(UInt32, UInt32, UInt32, UInt32) {
    static std::atomic<long> calls;
    while (!gStop) {
        UInt32 ids[kTimerPoolSize + 1];
        for (UInt32 i = 0; i < std::size(ids); i++) {
            if (i % 2 == 0) {
                tm_evevery(1 + i % 5, 0x4, &ids[i]);
            } else {
                tm_callback_after(
                    1 + i % 5, &ids[i],
                    [](void*) -> UInt32 {
                        calls++;
                        return 1;
                    },
                    nullptr);
            }
        }
        tm_wkafter(10);
        for (const UInt32 id : ids) {
            if (id != 0) {
                tm_cancel(id);
            }
        }
        gFirings = calls.load();
    }
}

void Victim(UInt32 seed, UInt32, UInt32, UInt32) {
    UInt32 events;
    for (;; seed++) {
        switch (seed % 4) {
            case 0:
                ev_receive(0x1, 0, 1 + seed % 3, &events);
                break;
            case 1: {
                const CancellableSemGuardT guard(gSemaphore);
                gGuarded++;
                gGuardedEntries++;
                udelay(50);
                break;
            }
            case 2:
                logwarn("soak", "a victim's line\n");
                break;
            default:
                udelay(seed % 700);
                break;
        }
        pthread_testcancel();
    }
}

UInt32 Spawn(const char* name, fnptr* body, UInt32 argument) {
    UInt32 id;
    UInt32 args[4] = {argument, 0, 0, 0};
    if (t_create(name, 0, 0, 0, 0, &id) != kTaskOk || t_start(id, 0, body, args) != kTaskOk) {
        fprintf(stderr, "soak: no task\n");
        exit(1);
    }
    return id;
}

void DeleteAtRandom(double seconds) {
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    unsigned random = 1;
    for (timespec now = start; static_cast<double>(now.tv_sec - start.tv_sec) +
                                   static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9 <
                               seconds;
         clock_gettime(CLOCK_MONOTONIC, &now)) {
        UInt32 victims[kVictims];
        for (UInt32& id : victims) {
            id = Spawn("vict", Victim, static_cast<UInt32>(rand_r(&random)) % 10000);
        }
        udelay(static_cast<UInt32>(rand_r(&random)) % 3000);
        for (const UInt32 id : victims) {
            t_delete(id);
            gDeletions++;
        }
    }
}

void WaitForEnd(const char* name) {
    UInt32 id;
    while (t_ident(name, 0, &id) == kTaskOk) {
        tm_wkafter(1);
    }
}

// All of the load at once, for a while. Returns when every task that took part has ended.
void Load(double seconds) {
    gStop = false;
    for (std::atomic<UInt32>& partner : gPartner) {
        partner = 0;
    }
    for (UInt32 i = 0; i < kPairs; i++) {
        const UInt32 asker = Spawn(
            "askr",
            [](UInt32 pair, UInt32, UInt32, UInt32) {
                while (gPartner[pair] == 0) {
                    tm_wkafter(1);
                }
                Asker(pair, 0, 0, 0);
            },
            i);
        gPartner[i] = Spawn("answ", Answerer, asker);
    }
    for (UInt32 i = 0; i < kLoggers; i++) {
        Spawn("logg", Logger, i);
    }
    Spawn("tmus", TimerUser, 0);
    DeleteAtRandom(seconds);
    gStop = true;
    for (const char* name : {"askr", "answ", "logg", "tmus", "vict"}) {
        WaitForEnd(name);
    }
    tm_wkafter(20);
}

bool Same(const char* what, long before, long after) {
    fprintf(stderr, "soak: %-20s %ld before, %ld after%s\n", what, before, after,
            before == after ? "" : "  DIFFERENT");
    return before == after;
}

// 0 for what is no time.
double SecondsOf(const char* text) {
    char* end = nullptr;
    const double seconds = strtod(text, &end);
    return end != text && *end == '\0' && seconds > 0 && seconds <= kMostSeconds ? seconds : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? SecondsOf(argv[1]) : kSeconds;
    if (argc > 2 || seconds == 0) {
        fprintf(stderr, "usage: soak [SECONDS], above 0 and at most %.0f (default %.0f)\n",
                kMostSeconds, kSeconds);
        return 2;
    }
    os_init();
    // The log's lines go where nobody reads them; the reports go to standard error.
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    InitSyslogInterface();
    t_attach("main", 0, nullptr);
    sm_create("soak", 1, 0, &gSemaphore);
    StartSystemTimer();
    Load(1);  // pools, stacks and the heap reach the size that this load needs
    const CountsT before = Counts();

    Load(seconds);
    const CountsT after = Counts();
    fprintf(
        stderr,
        "soak: %.0f s: %ld round trips, %ld time-outs, %ld lines, %ld timer calls, %ld deletions\n",
        seconds, gRoundTrips.load(), gTimeOuts.load(), gLines.load(), gFirings.load(),
        gDeletions.load());
    bool good = Same("lost events", 0, gLost);
    good &= Same("threads", before.threads, after.threads);
    good &= Same("descriptors", before.descriptors, after.descriptors);
    good &= Same("free timers", before.free_timers, after.free_timers);
    good &= Same("guarded sections", gGuardedEntries, gGuarded);
    good &= Same("control block bytes", static_cast<long>(before.low_bytes),
                 static_cast<long>(after.low_bytes));
    // The C library keeps some hundred bytes with each stack that it caches for later threads, so
    // the heap depends a little on how many lived at once.
    const long growth = static_cast<long>(after.heap_bytes) - static_cast<long>(before.heap_bytes);
    const bool kept = growth > kCachedStacks * 512;
    fprintf(stderr, "soak: heap: %+ld bytes%s\n", growth, kept ? "  LEAKED" : "");
    good &= !kept;
    return good ? 0 : 1;
}
