// The timer service. Lengths of ticks are real time and allow for a loaded machine: waits have
// lower bounds only.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/syslogq.h"
#include "tests/support/eventually.h"
#include "tests/support/stdout_file.h"

namespace {

int Length(pthread_mutex_t* mutex, TMCB** list) {
    pthread_mutex_lock(mutex);
    int length = 0;
    for (TMCB* timer = *list; timer != nullptr; timer = timer->next) {
        length++;
    }
    pthread_mutex_unlock(mutex);
    return length;
}

int Armed() {
    return Length(&tmcblistmutex, &timerList);
}
int Free() {
    return Length(&tmcblistmutex, &freetimerList);
}

UInt32 CountCalls(void* calls) {
    ++*static_cast<std::atomic<int>*>(calls);
    return 1;
}

}  // namespace

TEST(Sleep, TicksAndMicrosecondsBeyondASecondAreSleptWhole) {
    EXPECT_GE(MillisecondsOf([] { tm_wkafter(125); }), 1250.0);
    EXPECT_GE(MillisecondsOf([] { udelay(1200000); }), 1200.0);
    EXPECT_EQ(tm_wkafter(0), 0U);
}

TEST(Clock, MillisecondsTicksAndSecondsAgreeAndAdvance) {
    UInt32 now = 99;
    const UInt32 start = millitime(&now);
    EXPECT_EQ(start, now);
    tm_wkafter(5);
    const UInt32 later = RealTimeMilliSeconds();
    EXPECT_GE(later - start, 49U);
    EXPECT_LE(GetTickCountLinux() - later / 10, 500U);
    EXPECT_LE(RealTime(), RealTimeMilliSeconds() / 1000);
    const UInt32 cycles = CYCLES();
    udelay(10000);
    EXPECT_GE(CYCLES() - cycles, 600000U);  // 10 ms at 66.7 MHz
}

TEST(Timers, OneShotAndPeriodicTimersSendTheirEventsAndReturnToThePool) {
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    StartSystemTimer();
    ASSERT_EQ(Free(), kTimerPoolSize);
    UInt32 once;
    UInt32 periodic;
    UInt32 captured;
    EXPECT_EQ(tm_evafter(3, 0x1, &once), 0U);
    EXPECT_EQ(tm_evevery(2, 0x2, &periodic), 0U);
    EXPECT_EQ(ev_receive(0x1, 0, 0, &captured), kTaskOk);
    const double ms = MillisecondsOf([&] {
        for (int i = 0; i < 10; i++) {
            EXPECT_EQ(ev_receive(0x2, 0, 0, &captured), kTaskOk);
        }
    });
    EXPECT_GE(ms, 150.0);  // ten periods of 20 ms, one or two of them pending at the start
    EXPECT_EQ(tm_cancel(periodic), 0U);
    EXPECT_EQ(Armed(), 0);
    EXPECT_EQ(Free(), kTimerPoolSize);
    ev_receive(0x3, kEvAny | kEvNoWait, 0, &captured);
    tm_wkafter(6);
    EXPECT_EQ(ev_receive(0x3, kEvAny | kEvNoWait, 0, &captured), kTaskNoEvents);
}

TEST(Timers, TheFiftyFirstIsReportedAndATimedWaitStillEnds) {
    const StdoutFile out;
    InitSyslogInterface();
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    std::vector<UInt32> ids(kTimerPoolSize);
    for (UInt32& id : ids) {
        tm_evafter(100000, 1, &id);
        ASSERT_NE(id, 0U);
    }
    UInt32 extra = 99;
    EXPECT_EQ(tm_evafter(1, 2, &extra), 0U);
    EXPECT_EQ(extra, 0U);
    EXPECT_TRUE(out.WaitFor("os: AllocTimer failed\n")) << out.Text();
    UInt32 captured;
    EXPECT_EQ(ev_receive(4, 0, 3, &captured), kTaskTimeOut);
    EXPECT_EQ(tm_cancel(extra), 0U);
    EXPECT_TRUE(out.WaitFor("RemoveTimer: (nil) not found\n"));
    for (const UInt32 id : ids) {
        tm_cancel(id);
    }
    EXPECT_EQ(Free(), kTimerPoolSize);
}

TEST(Timers, CancellingTwiceIsReportedAndHarmless) {
    const StdoutFile out;
    std::atomic<int> calls{0};
    UInt32 id;
    tm_callback_after(1000, &id, CountCalls, &calls);
    tm_cancel(id);
    EXPECT_EQ(out.Text(), "");
    tm_cancel(id);
    EXPECT_TRUE(out.Has(" not found\n")) << out.Text();
    EXPECT_EQ(Free(), kTimerPoolSize);
    EXPECT_EQ(calls, 0);
}

TEST(Timers, AnInconsistentReturnIsReportedAndCostsNoBlock) {
    const StdoutFile out;
    InitSyslogInterface();
    StartSystemTimer();
    FreeTimer(nullptr);
    EXPECT_TRUE(out.WaitFor("FreeTimer called with NULL pTimer\n"));
    FreeTimer(freetimerList->next);
    EXPECT_TRUE(out.WaitFor("FreeTimer pTimer is not consistent pTimer: "));
    EXPECT_TRUE(out.WaitFor("FreeTimer pList is not consistent pList: "));
    EXPECT_EQ(Free(), kTimerPoolSize);
}

TEST(Timers, AFunctionMayCancelItselfArmOthersAndDeleteATask) {
    static std::atomic<UInt32> self_id;
    static std::atomic<UInt32> victim;
    static std::atomic<int> done;
    UInt32 task;
    ASSERT_EQ(t_create("vict", 0, 0, 0, 0, &task), kTaskOk);
    victim = task;
    t_start(
        task, 0,
        [](UInt32, UInt32, UInt32, UInt32) {
            UInt32 captured;
            ev_receive(1, 0, 100000, &captured);
        },
        nullptr);
    UInt32 id;
    tm_callback_after(
        3, &id,
        [](void*) -> UInt32 {
            tm_cancel(self_id);  // itself: must not wait for itself
            UInt32 other;
            tm_callback_after(
                1, &other,
                [](void*) -> UInt32 {
                    t_delete(victim);
                    done = 1;
                    return 0;
                },
                nullptr);
            return 1;  // cancelled meanwhile: not armed again
        },
        nullptr);
    self_id = id;
    ASSERT_TRUE(Eventually([] { return done == 1; }));
    EXPECT_EQ(t_exists(task), 0U);
    EXPECT_TRUE(Eventually([] { return Armed() == 0; }));
    EXPECT_EQ(Free(), kTimerPoolSize);
}

TEST(Timers, AFunctionMayDeleteATaskThatCancelsThatVeryTimer) {
    static std::atomic<UInt32> timer;
    static std::atomic<UInt32> victim;
    static std::atomic<int> stage;
    struct CancelT {
        ~CancelT() { tm_cancel(timer); }
    };
    UInt32 task;
    t_create("canc", 0, 0, 0, 0, &task);
    victim = task;
    t_start(
        task, 0,
        [](UInt32, UInt32, UInt32, UInt32) {
            const CancelT cancel;
            stage = 1;
            tm_wkafter(100000);
        },
        nullptr);
    ASSERT_TRUE(Eventually([] { return stage == 1; }));
    UInt32 id;
    tm_callback_after(
        20, &id,
        [](void*) -> UInt32 {
            t_delete(victim);
            stage = 2;
            return 1;
        },
        nullptr);
    timer = id;
    EXPECT_TRUE(Eventually([] { return stage == 2; }));
    EXPECT_TRUE(Eventually([] { return Free() == kTimerPoolSize; }));
}

TEST(Timers, CancelWaitsForAFunctionThatIsRunning) {
    struct RunT {
        std::atomic<int> stage{0};
    } run;
    UInt32 id;
    tm_callback_after(
        1, &id,
        [](void* arg) -> UInt32 {
            auto* r = static_cast<RunT*>(arg);
            r->stage = 1;
            udelay(100000);
            r->stage = 2;
            return 1;
        },
        &run);
    ASSERT_TRUE(Eventually([&] { return run.stage == 1; }));
    tm_cancel(id);
    EXPECT_EQ(run.stage, 2);
    tm_wkafter(5);
    EXPECT_EQ(run.stage, 2);
}

TEST(Timers, CancelsRacingExpiriesLoseNoBlock) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const StdoutFile out;  // takes the not-found lines
    for (unsigned i = 0; i < 4; i++) {
        threads.emplace_back([&, i] {
            t_attach("race", 0, nullptr);
            std::mt19937 random(i);
            std::atomic<int> calls{0};
            while (!stop) {
                UInt32 id = 0;
                switch (random() % 3) {
                    case 0:
                        tm_evafter(1 + random() % 2, 1, &id);
                        break;
                    case 1:
                        tm_evevery(1, 1, &id);
                        break;
                    default:
                        tm_callback_after(1, &id, CountCalls, &calls);
                        break;
                }
                udelay(static_cast<UInt32>(random() % 25000));
                tm_cancel(id);
                // Cancelled: nothing may run any more when `calls` goes.
            }
        });
    }
    tm_wkafter(200);
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(Armed(), 0);
    EXPECT_EQ(Free(), kTimerPoolSize);
}

TEST(Timers, FiftyPeriodicTimersAllKeepTheirPaceUnderLoad) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> load;
    for (int i = 0; i < 4; i++) {
        load.emplace_back([&] {
            while (!stop) {
            }
        });
    }
    static std::atomic<int> calls[kTimerPoolSize];
    UInt32 ids[kTimerPoolSize];
    StartSystemTimer();
    const UInt32 start = gEpochMillisecs;
    for (int i = 0; i < kTimerPoolSize; i++) {
        tm_callback_after(static_cast<UInt32>(1 + i % 5), &ids[i], CountCalls, &calls[i]);
    }
    ASSERT_TRUE(Eventually([&] { return gEpochMillisecs - start >= 1000; }));
    for (const UInt32 id : ids) {
        tm_cancel(id);
    }
    const auto ticks = static_cast<int>((gEpochMillisecs - start) / 10);
    stop = true;
    for (auto& thread : load) {
        thread.join();
    }
    for (int i = 0; i < kTimerPoolSize; i++) {
        const int period = 1 + i % 5;
        EXPECT_LE(calls[i], ticks / period) << i;
        EXPECT_GE(calls[i], 90 / period) << i;
    }
}

TEST(Timers, TheTimerTaskMayBeDeletedAndStartsAnewWithTheNextTimer) {
    static std::atomic<int> first_runs;
    static std::atomic<int> second_runs;
    UInt32 ids[3];
    // Both are due at once, and the task is deleted while it runs the first.
    tm_callback_after(
        5, &ids[0],
        [](void*) -> UInt32 {
            first_runs++;
            tm_wkafter(100000);
            return 1;
        },
        nullptr);
    tm_callback_after(5, &ids[1], CountCalls, &second_runs);
    ASSERT_TRUE(Eventually([] { return first_runs == 1; }));
    t_delete(timerid);
    EXPECT_EQ(timerid, 0U);
    EXPECT_EQ(second_runs, 0);
    tm_evafter(100000, 1, &ids[2]);
    EXPECT_TRUE(Eventually([] { return second_runs > 1; }));  // it has not missed its turn
    tm_cancel(ids[1]);
    tm_cancel(ids[2]);
    EXPECT_EQ(Free(), kTimerPoolSize);
}
