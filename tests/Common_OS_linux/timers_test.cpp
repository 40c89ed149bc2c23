// The timer service. Lengths of ticks are real time and allow for a loaded machine: waits have
// lower bounds only.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"

namespace {

int Length(TMCB** list) {
    pthread_mutex_lock(&tmcblistmutex);
    int length = 0;
    for (TMCB* timer = *list; timer != nullptr; timer = timer->next) {
        length++;
    }
    pthread_mutex_unlock(&tmcblistmutex);
    return length;
}

// Whether every block is back in the pool.
bool AllFree() {
    return Length(&timerList) == 0 && Length(&freetimerList) == kTimerPoolSize;
}

UInt32 CountCalls(void* calls) {
    ++*static_cast<std::atomic<int>*>(calls);
    return 1;
}

// Arms a timer that calls `*function` until it returns 0.
void CallAfter(UInt32 ticks, UInt32* id, std::function<UInt32()>* function) {
    const auto call = [](void* arg) { return (*static_cast<std::function<UInt32()>*>(arg))(); };
    tm_callback_after(ticks, id, call, function);
}

}  // namespace

TEST(Clock, SleepsEndEarlyBeyondASecondOrAClockDisagrees) {
    const UInt32 start = RealTimeMilliSeconds();
    const UInt32 cycles = CYCLES();
    std::thread other([] { EXPECT_GE(MillisecondsOf([] { udelay(1050000); }), 1050.0); });
    EXPECT_GE(MillisecondsOf([] { tm_wkafter(105); }), 1050.0);
    other.join();
    const UInt32 later = RealTimeMilliSeconds();
    EXPECT_GE(later - start, 1049U);
    EXPECT_LE(GetTickCountLinux() - later / 10, 500U);
    EXPECT_GE(CYCLES() - cycles, 66666664U);
}

TEST(Timers, OneShotAndPeriodicTimersSendTheirEventsAndReturnToThePool) {
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
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
    EXPECT_TRUE(AllFree());
}

TEST(Timers, TheFiftyFirstOrASecondCancelGoesUnreported) {
    const StdoutFile out;
    InitSyslogInterface();
    UInt32 ids[kTimerPoolSize];
    for (UInt32& id : ids) {
        tm_evafter(100000, 1, &id);
        ASSERT_NE(id, 0U);
    }
    UInt32 extra = 99;
    EXPECT_EQ(tm_evafter(1, 2, &extra), 0U);
    EXPECT_EQ(extra, 0U);
    EXPECT_TRUE(out.WaitFor("os: AllocTimer failed\n")) << out.Text();
    for (const UInt32 id : ids) {
        tm_cancel(id);
    }
    EXPECT_FALSE(out.Has("RemoveTimer"));
    EXPECT_EQ(tm_cancel(extra) + tm_cancel(ids[7]), 0U);
    EXPECT_TRUE(out.WaitFor("RemoveTimer: (nil) not found\nRemoveTimer: 0x"));
    EXPECT_TRUE(AllFree());
}

TEST(Timers, AFunctionMayCancelItselfAndOneThatIsDueArmOthersAndDeleteATask) {
    const UInt32 task = Spawn("vict", [] {
        UInt32 captured;
        ev_receive(1, 0, 100000, &captured);
    });
    UInt32 ids[3];
    std::atomic<int> calls{0};
    std::atomic<bool> done{false};
    std::function<UInt32()> other = [&] {
        t_delete(task);
        done = true;
        return 0;
    };
    std::function<UInt32()> function = [&] {
        tm_cancel(ids[2]);
        tm_cancel(ids[0]);              // itself: must not wait for itself
        CallAfter(1, &ids[1], &other);  // in the same block
        return 0;
    };
    CallAfter(3, &ids[0], &function);
    tm_callback_after(3, &ids[2], CountCalls, &calls);
    ASSERT_TRUE(Eventually([&] { return done.load(); }));
    EXPECT_EQ(t_exists(task), 0U);
    EXPECT_TRUE(Eventually(AllFree));
    EXPECT_EQ(calls, 0);
}

TEST(Timers, CancelsRacingExpiriesLoseABlockOrCostPeriodicTimersTheirPaceUnderLoad) {
    constexpr int kRacers = 4;
    constexpr int kPeriodic = kTimerPoolSize - kRacers;
    const StdoutFile out;  // takes the not-found lines
    StartSystemTimer();
    std::atomic<int> calls[kPeriodic] = {};
    UInt32 ids[kPeriodic];
    const UInt32 start = gEpochMillisecs;
    for (int i = 0; i < kPeriodic; i++) {
        tm_callback_after(static_cast<UInt32>(1 + i % 5), &ids[i], CountCalls, &calls[i]);
    }
    const UInt32 armed = gEpochMillisecs;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kRacers; i++) {
        threads.emplace_back([&stop, i] {
            t_attach("race", 0, nullptr);
            std::mt19937 random(i);
            std::atomic<int> called{0};
            while (!stop) {
                UInt32 id;
                const UInt32 kind = random() % 4;
                kind == 0   ? tm_callback_after(1, &id, CountCalls, &called)
                : kind == 1 ? tm_evevery(1, 1, &id)
                            : tm_evafter(kind - 1, 1, &id);
                udelay(static_cast<UInt32>(random() % 25000));
                tm_cancel(id);
                // Cancelled: nothing may run any more when `called` goes.
            }
        });
        threads.emplace_back([&stop] {
            while (!stop) {
            }
        });
    }
    ASSERT_TRUE(Eventually([&] { return gEpochMillisecs - armed >= 1000; }));
    for (const UInt32 id : ids) {
        tm_cancel(id);
    }
    const auto ticks = static_cast<int>((gEpochMillisecs - start) / 10);
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < kPeriodic; i++) {
        EXPECT_LE(calls[i], ticks / (1 + i % 5)) << i;
        EXPECT_GE(calls[i], 90 / (1 + i % 5)) << i;
    }
    EXPECT_TRUE(AllFree());
}

TEST(Timers, TheTimerTaskMayBeDeletedAndStartsAnewWithTheNextTimer) {
    std::atomic<int> first_runs{0};
    std::atomic<int> second_runs{0};
    std::function<UInt32()> stay = [&] {
        first_runs++;
        return 1 + tm_wkafter(100000);
    };
    // Both are due at once, and the task is deleted while it runs the first.
    UInt32 ids[3];
    CallAfter(5, &ids[2], &stay);
    tm_callback_after(5, &ids[0], CountCalls, &second_runs);
    ASSERT_TRUE(Eventually([&] { return first_runs == 1; }));
    t_delete(timerid);
    EXPECT_EQ(timerid, 0U);
    EXPECT_EQ(second_runs, 0);
    tm_evafter(100000, 1, &ids[1]);
    EXPECT_TRUE(Eventually([&] { return second_runs > 1; }));  // it has not missed its turn
    tm_cancel(ids[0]);
    tm_cancel(ids[1]);
    EXPECT_TRUE(AllFree());
}
