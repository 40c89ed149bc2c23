// Tasks deleted at random points: whatever they were doing, no lock stays held, no timer armed, no
// control block on a list, and the deleter returns.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/log.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"
#include "tests/support/timer_pool.h"

namespace {

UInt32 gSemaphore;
// Read one after the other: a pair that does not belong together is no task.
struct VictimT {
    std::atomic<UInt32> id, incarnation;
} gVictims[8];
UInt32 gPartner;  // a task that lives throughout and takes any event
thread_local UInt32 tCaptured;

void (*const kActions[])(UInt32) = {
    [](UInt32) { ev_receive(0x1, 0, 0, &tCaptured); },
    [](UInt32 n) { ev_receive(0x3, kEvAny, 1 + n % 3, &tCaptured); },
    [](UInt32 n) { logwarn("test", "line %u of a task that will be deleted\n", n); },
    [](UInt32) { logwarn("test", "an unfinished line"); },
    [](UInt32 n) {
        const CancellableSemGuardT guard(gSemaphore);
        udelay(n % 300);
    },
    [](UInt32 n) {
        sm_p(gSemaphore, 0, 0);
        udelay(n % 300);
        sm_v(gSemaphore);
    },
    [](UInt32 n) {
        const UInt32 token = interruptsOff();
        udelay(n % 100);
        interruptsRestore(token);
    },
    [](UInt32 n) {
        UInt32 id;
        tm_evevery(1 + n % 2, 2, &id);
        udelay(n % 2000);
        tm_callback_after(
            1, &id, [](void*) { return 0U; }, nullptr);
        tm_wkafter(1);
    },
    [](UInt32 n) {
        const NoCancelT no_cancel;  // what the function uses goes
        std::atomic<int> calls{0};
        UInt32 id;
        tm_callback_after(1, &id, CountCalls, &calls);
        udelay(n % 20 == 0 ? 10000 : 100);
        tm_cancel(id);
    },
    [](UInt32) { udelay(3000); },  // in select
    [](UInt32 n) {                 // each other, and themselves
        const VictimT& other = gVictims[n / 13 % 8];
        t_delete_incarnation(other.id, other.incarnation);
    },
    [](UInt32 n) {
        ev_send(gPartner, 1U << n % 16);
        ev_send(0, 1);
    },
    [](UInt32) {
        UInt32 id;
        t_create("chld", 0, 0, 0, 0, &id);
        t_start(
            id, 0, [](UInt32, UInt32, UInt32, UInt32) { tm_wkafter(100000); }, nullptr);
        t_delete(id);
    }};

// Each life works through the actions, beginning with its own, until it is deleted.
void Victim(UInt32 own) {
    for (UInt32 i = own;; i++) {
        kActions[i % std::size(kActions)](own * 7 + i);
        pthread_testcancel();
    }
}

}  // namespace

TEST(Cancellation, TenThousandTasksDeletedAtRandomPointsLeaveEveryServiceWorking) {
    const StdoutFile out;
    InitSyslogInterface();
    syslogSetLogLevel(2);  // the writer need not print ten thousand lives; lines still pass the log
    ASSERT_EQ(t_attach("test", 0, nullptr), kTaskOk);
    ASSERT_EQ(sm_create("SHAR", 1, 0, &gSemaphore), kSmOk);
    gPartner = Spawn("part", [] {
        for (;;) {
            ev_receive(0xFFFFFFFF, kEvAny, 0, &tCaptured);
        }
    });
    std::mt19937 engine(20);
    const auto random = [&engine](UInt32 below) { return static_cast<UInt32>(engine() % below); };
    for (int round = 0; round < 1250; round++) {
        for (auto& victim : gVictims) {
            victim.id = Spawn(
                "vict", [own = random(100000)] { Victim(own); }, random(3));
            victim.incarnation = std::max(t_incarnation(victim.id), 1U);
        }
        for (const auto& victim : gVictims) {
            udelay(random(400));
            ASSERT_EQ(t_delete(victim.id), 0U);
        }
    }
    // Who was deleted by others, and children, may outlive their time by the time it takes to end.
    for (const char* name : {"vict", "chld"}) {
        UInt32 found;
        ASSERT_TRUE(Eventually(
            [&] { return t_ident(name, 0, &found) != kTaskOk || t_delete(found) != kTaskOk; }));
    }
    EXPECT_EQ(sm_p(gSemaphore, kSmNoWait, 0), kSmOk);
    EXPECT_EQ(interruptsOff(), 1U);
    interruptsRestore(1);
    EXPECT_TRUE(Eventually(AllFree));  // what the last ones left to be called once is called
    EXPECT_EQ(ev_receive(1, 0, 2, &tCaptured), kTaskTimeOut);
    EXPECT_EQ(ev_send(gPartner, 1), kTaskOk);
    syslogSetLogLevel(7);
    logwarn("test", "\n");  // ends whatever line was left half
    logwarn("test", "the log still works\n");
    EXPECT_TRUE(out.WaitFor("test: the log still works\n"));
    t_delete(gPartner);
}
