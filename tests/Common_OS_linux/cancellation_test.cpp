// Tasks deleted at random points: whatever they were doing, no lock stays held, no timer armed, no
// control block on a list, and the deleter returns.
#include <gtest/gtest.h>
#include <sys/select.h>

#include <atomic>
#include <random>
#include <string>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/log.h"
#include "Common/OS/syslogq.h"
#include "tests/support/eventually.h"
#include "tests/support/stdout_file.h"

namespace {

UInt32 gSemaphore;
UInt32 gPartner;  // a task that lives throughout and takes any event

void WaitForEvents(UInt32) {
    UInt32 captured;
    ev_receive(0x1, 0, 0, &captured);
}

void WaitWithTimeOut(UInt32 seed) {
    UInt32 captured;
    ev_receive(0x3, kEvAny, 1 + seed % 3, &captured);
}

void Log(UInt32 seed) {
    logwarn("test", "line %u of a task that will be deleted\n", seed);
}

void HalfALine(UInt32) {
    logwarn("test", "an unfinished line");
}

void HoldASemaphore(UInt32 seed) {
    const SemaphoreGuardT guard(gSemaphore);
    udelay(seed % 300);
}

void HoldWithoutAGuard(UInt32 seed) {
    sm_p(gSemaphore, 0, 0);
    udelay(seed % 300);
    sm_v(gSemaphore);
}

void InterruptsOff(UInt32 seed) {
    const UInt32 token = interruptsOff();
    udelay(seed % 100);
    interruptsRestore(token);
}

void Timers(UInt32 seed) {
    UInt32 id;
    tm_evevery(1 + seed % 2, 2, &id);
    udelay(seed % 2000);
    tm_callback_after(
        1, &id, [](void*) -> UInt32 { return 1; }, nullptr);
    tm_wkafter(1);
}

void Select(UInt32) {
    timeval time = {0, 3000};
    select(0, nullptr, nullptr, nullptr, &time);
}

void Send(UInt32 seed) {
    ev_send(gPartner, 1U << seed % 16);
    ev_send(0, 1);
}

void SpawnAndDelete(UInt32) {
    UInt32 id;
    if (t_create("chld", 0, 0, 0, 0, &id) == kTaskOk) {
        t_start(
            id, 0, [](UInt32, UInt32, UInt32, UInt32) { tm_wkafter(100000); }, nullptr);
        t_delete(id);
    }
}

void (*const kActions[])(UInt32) = {
    WaitForEvents, WaitWithTimeOut, Log,    HalfALine, HoldASemaphore, HoldWithoutAGuard,
    InterruptsOff, Timers,          Select, Send,      SpawnAndDelete};

// Each life works through the actions, beginning with its own, until it is deleted.
void Victim(UInt32 seed, UInt32, UInt32, UInt32) {
    for (UInt32 i = seed;; i++) {
        kActions[i % std::size(kActions)](seed * 7 + i);
        pthread_testcancel();
    }
}

int ListLength(TMCB* list) {
    int length = 0;
    for (; list != nullptr; list = list->next) {
        length++;
    }
    return length;
}

}  // namespace

TEST(Cancellation, TenThousandTasksDeletedAtRandomPointsLeaveEveryServiceWorking) {
    const StdoutFile out;
    InitSyslogInterface();
    syslogSetLogLevel(2);  // the writer need not print ten thousand lives; lines still pass the log
    ASSERT_EQ(t_attach("test", 0, nullptr), kTaskOk);
    ASSERT_EQ(sm_create("SHAR", 1, 0, &gSemaphore), kSmOk);
    ASSERT_EQ(t_create("part", 0, 0, 0, 0, &gPartner), kTaskOk);
    t_start(
        gPartner, 0,
        [](UInt32, UInt32, UInt32, UInt32) {
            UInt32 captured;
            for (;;) {
                ev_receive(0xFFFFFFFF, kEvAny, 0, &captured);
            }
        },
        nullptr);
    StartSystemTimer();
    std::mt19937 engine(20);
    const auto random = [&engine](UInt32 below) { return static_cast<UInt32>(engine() % below); };
    constexpr int kAtOnce = 8;
    constexpr int kRounds = 1250;
    for (int round = 0; round < kRounds; round++) {
        UInt32 ids[kAtOnce];
        for (UInt32& id : ids) {
            ASSERT_EQ(t_create("vict", random(3), 0, 0, 0, &id), kTaskOk);
            UInt32 args[4] = {random(100000), 0, 0, 0};
            ASSERT_EQ(t_start(id, 0, Victim, args), kTaskOk);
        }
        for (const UInt32 id : ids) {
            udelay(random(400));
            ASSERT_EQ(t_delete(id), 0U);
        }
    }
    // Children of deleted parents may outlive them by the time it takes to end.
    UInt32 found;
    ASSERT_TRUE(Eventually([&] {
        if (t_ident("chld", 0, &found) == kTaskOk) {
            t_delete(found);
        }
        return t_ident("chld", 0, &found) != kTaskOk;
    }));
    EXPECT_EQ(t_ident("vict", 0, &found), kTaskNotFound);
    EXPECT_EQ(sm_p(gSemaphore, kSmNoWait, 0), kSmOk);
    sm_v(gSemaphore);
    EXPECT_EQ(interruptsOff(), 1U);
    interruptsRestore(1);
    EXPECT_EQ(pthread_mutex_trylock(&tmcblistmutex), 0);
    EXPECT_EQ(timerList, nullptr);
    EXPECT_EQ(ListLength(freetimerList), kTimerPoolSize);
    pthread_mutex_unlock(&tmcblistmutex);
    UInt32 captured;
    EXPECT_EQ(ev_receive(1, 0, 2, &captured), kTaskTimeOut);
    EXPECT_EQ(ev_send(gPartner, 1), kTaskOk);
    syslogSetLogLevel(7);
    logwarn("test", "\n");  // ends whatever line was left half
    logwarn("test", "the log still works\n");
    EXPECT_TRUE(out.WaitFor("test: the log still works\n"));
    t_delete(gPartner);
}

TEST(Cancellation, ATaskThatWaitsForTheDeletersSemaphoreCanBeDeleted) {
    ASSERT_EQ(sm_create("MINE", 0, 0, &gSemaphore), kSmOk);
    static std::atomic<int> stage;
    UInt32 id;
    ASSERT_EQ(t_create("wait", 0, 0, 0, 0, &id), kTaskOk);
    t_start(
        id, 0,
        [](UInt32, UInt32, UInt32, UInt32) {
            stage = 1;
            sm_p(gSemaphore, 0, 0);
            stage = 2;
        },
        nullptr);
    ASSERT_TRUE(Eventually([] { return stage == 1; }));
    udelay(20000);
    EXPECT_EQ(t_delete(id), 0U);
    EXPECT_EQ(stage, 1);
    EXPECT_EQ(sm_v(gSemaphore), kSmOk);
    EXPECT_EQ(sm_p(gSemaphore, kSmNoWait, 0), kSmOk);
}

TEST(Cancellation, ADeleterThatIsDeletedWhileItWaitsStrandsNobody) {
    for (int round = 0; round < 300; round++) {
        static std::atomic<UInt32> stubborn;
        static std::atomic<int> stage;
        stage = 0;
        UInt32 victim;
        UInt32 deleter;
        ASSERT_EQ(t_create("stub", 0, 0, 0, 0, &victim), kTaskOk);
        stubborn = victim;
        t_start(
            victim, 0,
            [](UInt32, UInt32, UInt32, UInt32) {
                int old;
                pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
                stage = 1;
                udelay(2000);
                pthread_setcancelstate(old, nullptr);
                tm_wkafter(100000);
            },
            nullptr);
        ASSERT_EQ(t_create("dele", 0, 0, 0, 0, &deleter), kTaskOk);
        t_start(
            deleter, 0,
            [](UInt32, UInt32, UInt32, UInt32) {
                while (stage == 0) {
                    udelay(10);
                }
                t_delete(stubborn);
            },
            nullptr);
        udelay(static_cast<UInt32>(round) * 10);
        t_delete(deleter);
        t_delete(victim);
        ASSERT_TRUE(Eventually([&] { return t_exists(victim) == 0; })) << round;
        ASSERT_TRUE(Eventually([&] { return t_exists(deleter) == 0; })) << round;
    }
}
