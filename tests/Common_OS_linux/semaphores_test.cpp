// Semaphores and the interrupts-off section, also once os_init has made it nest.
#include "Common/OS/linux/semaphores.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>

#include <thread>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/os_init.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

namespace {

UInt32 Create(UInt32 tokens) {
    UInt32 id = 0;
    EXPECT_EQ(sm_create(nullptr, tokens, 0, &id), kSmOk);
    return id;
}

template <typename ActionT>
void InAnotherThread(ActionT action) {
    std::thread(action).join();
}

std::atomic<int> gWallClockAhead{0};  // seconds

}  // namespace

// The wall clock as long as it is wrong: what ends by it ends late.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_REALTIME) {
        now->tv_sec += gWallClockAhead;
    }
    return result;
}

TEST(Semaphore, IdsThatAreNoSemaphoreAreRefusedByEveryCall) {
    const UInt32 deleted = Create(1);
    ASSERT_EQ(sm_delete(deleted), kSmOk);
    static UInt32 block[32] = {};
    for (const UInt32 id : {0U, 1U, 0xFFFFFFFFU, deleted, deleted + 4, id_of(block)}) {
        EXPECT_EQ(sm_p(id, 0, 0), kSmBadId) << id;
        EXPECT_EQ(sm_v(id), kSmBadId) << id;
        EXPECT_EQ(sm_delete(id), kSmBadId) << id;
    }
}

TEST(Semaphore, ItsOneTokenIsGivenTwiceOrByOneWhoDoesNotHoldIt) {
    const UInt32 id = Create(5);  // any count makes one
    const auto taken = [id] { EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmTaken); };
    EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmOk);
    taken();
    InAnotherThread([&] { EXPECT_EQ(sm_v(id), kSmOk); });
    InAnotherThread(taken);
    EXPECT_EQ(sm_v(id), kSmOk);
    EXPECT_EQ(sm_v(id), kSmOk);
}

TEST(Semaphore, ZeroTokensMeanTakenByTheCreatorAndAWaiterCanBeDeleted) {
    const UInt32 id = Create(0);
    std::atomic<int> got{0};
    UInt32 waiters[2];
    gWallClockAhead = 1000;
    for (UInt32& waiter : waiters) {
        waiter = Spawn("wait", [&] {
            EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmTaken);
            EXPECT_EQ(sm_p(id, 0, 1), kSmOk);  // the time-out is ignored
            got++;
            EXPECT_EQ(sm_v(id), kSmOk);
        });
    }
    usleep(150000);
    t_delete(waiters[0]);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(sm_v(id), kSmOk);
    EXPECT_TRUE(Eventually([&] { return t_exists(waiters[1]) == 0; }));
    EXPECT_EQ(got, 1);
    EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmOk);
}

TEST(InterruptsOff, MisuseLeavesTheLockUsable) {
    const StdoutFile out;
    InitSyslogInterface();
    interruptsRestore(1);  // not inside
    EXPECT_EQ(interruptsOff(), 1U);
    InAnotherThread([] { interruptsRestore(1); });  // not the holder
    interruptsRestore(7);                           // wrong token: still left
    InAnotherThread([] { const InterruptsOffT off; });
    EXPECT_TRUE(out.WaitFor("inconsistent intsoffcount: 1 oldie: 7\n"));
}

TEST(InterruptsOff, NestsInOneTaskStillExcludesOthersAndEndsWithTheTask) {
    os_init();
    os_init();
    std::atomic<bool> entered{false};
    EXPECT_EQ(interruptsOff(), 1U);
    EXPECT_EQ(interruptsOff(), 2U);
    const UInt32 id = Spawn("nest", [&] {
        interruptsOff();
        entered = true;
        interruptsOff();
    });
    interruptsRestore(2);
    usleep(50000);
    EXPECT_FALSE(entered);
    interruptsRestore(1);
    EXPECT_TRUE(Eventually([&] { return t_exists(id) == 0; }));
    EXPECT_TRUE(entered);
    EXPECT_EQ(interruptsOff(), 1U);
}
