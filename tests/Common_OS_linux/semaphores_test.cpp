// Semaphores and the interrupts-off section.
#include "Common/OS/linux/semaphores.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/lowmem.h"
#include "tests/support/eventually.h"

namespace {
UInt32 Create(UInt32 tokens) {
    UInt32 id = 0;
    EXPECT_EQ(sm_create("TEST", tokens, 0, &id), kSmOk);
    return id;
}
}  // namespace

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

TEST(Semaphore, ANullNameAndAnyTokenCountMakeOneToken) {
    UInt32 id;
    ASSERT_EQ(sm_create(nullptr, 5, 0, &id), kSmOk);
    EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmOk);
    EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmTaken);
    EXPECT_EQ(sm_v(id), kSmOk);
    EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmOk);
}

TEST(Semaphore, ZeroTokensMeanTakenByTheCreator) {
    const UInt32 id = Create(0);
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmTaken);
        EXPECT_EQ(sm_p(id, 0, 1), kSmOk);  // the time-out is ignored
        got = true;
        EXPECT_EQ(sm_v(id), kSmOk);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_FALSE(got);
    EXPECT_EQ(sm_v(id), kSmOk);
    waiter.join();
    EXPECT_TRUE(got);
}

TEST(Semaphore, GivingBackWhatAnotherThreadHoldsChangesNothing) {
    const UInt32 id = Create(1);
    ASSERT_EQ(sm_p(id, 0, 0), kSmOk);
    std::thread([&] { EXPECT_EQ(sm_v(id), kSmOk); }).join();
    std::thread([&] { EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmTaken); }).join();
    EXPECT_EQ(sm_v(id), kSmOk);
    EXPECT_EQ(sm_v(id), kSmOk);
    EXPECT_EQ(sm_p(id, kSmNoWait, 0), kSmOk);
}

TEST(Semaphore, ExcludesUnderContention) {
    const UInt32 id = Create(1);
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&] {
            for (int k = 0; k < 2000; k++) {
                const SemaphoreGuardT guard(id);
                counter++;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 16000);
}

TEST(Semaphore, ReleaseAllGivesBackOnlyTheCallersOwn) {
    const UInt32 mine = Create(1);
    const UInt32 other = Create(0);
    std::thread([&] {
        sm_p(mine, 0, 0);
        sm_release_all();
    }).join();
    EXPECT_EQ(sm_p(mine, kSmNoWait, 0), kSmOk);
    std::thread([&] { EXPECT_EQ(sm_p(other, kSmNoWait, 0), kSmTaken); }).join();
}

TEST(InterruptsOff, MisuseIsReportedAndLeavesTheLockUsable) {
    interruptsRestore(1);  // not inside
    EXPECT_EQ(interruptsOff(), 1U);
    std::thread([] { interruptsRestore(1); }).join();  // not the holder
    interruptsRestore(7);                              // wrong token: still left
    int counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            for (int k = 0; k < 5000; k++) {
                const InterruptsOffT section;
                counter++;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 20000);
}
