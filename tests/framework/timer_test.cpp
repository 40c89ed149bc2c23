// Framework timers.
#include "Common/framework/timer.h"

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/framework/sharedfield.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

// A timer and what its function saw, used in the main task.
struct ProbeT {
    TimerT timer = {};
    int runs = 0;
    Boolean running_inside = 99;
    void (*inside)(ProbeT* probe) = nullptr;
};

void Fire(void* userDefined) {
    auto* probe = static_cast<ProbeT*>(userDefined);
    probe->runs++;
    probe->running_inside = TimerRunning(&probe->timer);
    if (probe->inside != nullptr) {
        probe->inside(probe);
    }
}

void Init(ProbeT* probe, int time, bool periodic) {
    ASSERT_EQ(TimerInit(&probe->timer, time, Fire, probe, periodic), kNoError);
}

// Serves the calling task's events until `condition()`.
template <typename ConditionT>
bool ServeUntil(ConditionT condition) {
    return Eventually([&] {
        UInt32 events = 0;
        if (ev_receive(kModEventsAll, kEvAny | kEvNoWait, 0, &events) == kTaskOk) {
            ModProcessEvents(events);
        }
        return condition();
    });
}

// Serves events for a number of ticks.
void ServeFor(UInt32 ticks) {
    const UInt32 end = RealTimeMilliSeconds() + ticks * 10;
    ServeUntil([end] { return static_cast<SInt32>(RealTimeMilliSeconds() - end) >= 0; });
}

// Waits until the timer has expired; its function has not run yet.
void LetExpire(ProbeT* probe) {
    ASSERT_TRUE(Eventually([probe] {
        const UInt32 id = SelfId();
        UInt32 events = 0;
        ev_receive(0, 0, 0, &events);
        return (events & kModEventTimer) != 0 && id == probe->timer.taskID;
    }));
}

UInt32 TimerTaskId() {
    UInt32 id = 0;
    t_ident("TMRT", 0, &id);
    return id;
}

}  // namespace

TEST(Timer, InitChecksTimeSignatureAndDiagnosticsList) {
    const UInt32 self = Attach();
    const StdoutFile out;
    ProbeT probe;
    EXPECT_EQ(TimerInit(&probe.timer, 9, Fire, &probe, 0), kBadParameter);
    EXPECT_EQ(numTimers, 0);
    EXPECT_EQ(TimerInit(&probe.timer, 10, Fire, &probe, 0), kNoError);
    EXPECT_EQ(memcmp(&probe.timer.signature, "TIM2", 4), 0);
    EXPECT_EQ(probe.timer.taskID, self);
    EXPECT_EQ(TimerInit(&probe.timer, 10, Fire, &probe, 0), kFuncReturnedError);
    EXPECT_TRUE(out.Has("TimerInit: ERROR, this timer has already been initialized! Timer = 0x"));
    probe.timer.signature = 0;
    EXPECT_EQ(TimerInit(&probe.timer, 10, Fire, &probe, 0), kNoError);
    EXPECT_TRUE(out.Has("TimerInit: WARN, this timer is already in diagnostics list! Timer = 0x"));
    EXPECT_TRUE(out.Has("\nTimerInit: Timer signature is wrong. This is inconsistency.\n"));
    EXPECT_EQ(numTimers, 1);
    EXPECT_EQ(TimerExit(&probe.timer), kNoError);
    EXPECT_EQ(probe.timer.signature, 0U);
    EXPECT_EQ(TimerExit(&probe.timer), kBadParameter);
    EXPECT_TRUE(out.Has("TimerExit: Error! pTimer is not in gTimers diagnostics list\n"));
}

TEST(Timer, AOneShotTimerRunsOnceAndIsNotRunningInside) {
    Attach();
    ProbeT probe;
    Init(&probe, 30, false);
    EXPECT_EQ(TimerRunning(&probe.timer), 0U);
    const UInt32 start = RealTimeMilliSeconds();
    EXPECT_EQ(TimerStart(&probe.timer), kNoError);
    EXPECT_EQ(TimerRunning(&probe.timer), 1U);
    ASSERT_TRUE(ServeUntil([&] { return probe.runs == 1; }));
    EXPECT_GE(RealTimeMilliSeconds() - start, 29U);
    EXPECT_EQ(probe.running_inside, 0U);
    ServeFor(8);
    EXPECT_EQ(probe.runs, 1);
    EXPECT_EQ(probe.timer.numExecs, 1U);
    EXPECT_GE(probe.timer.maxLatency, 29U);
    TimerExit(&probe.timer);
}

TEST(Timer, APeriodicTimerRunsOnUntilItIsStoppedInItsOwnFunction) {
    Attach();
    ProbeT probe;
    probe.inside = [](ProbeT* p) {
        if (p->runs == 3) {
            TimerStop(&p->timer);
        }
    };
    Init(&probe, 10, true);
    TimerStart(&probe.timer);
    ASSERT_TRUE(ServeUntil([&] { return probe.runs == 3; }));
    EXPECT_EQ(probe.running_inside, 1U);
    EXPECT_EQ(TimerRunning(&probe.timer), 0U);
    ServeFor(8);
    EXPECT_EQ(probe.runs, 3);
    TimerExit(&probe.timer);
}

TEST(Timer, StoppingHoldsEvenWhileARequestToStartIsOnItsWay) {
    Attach();
    ProbeT probe;
    Init(&probe, 10, true);
    for (int round = 0; round < 200; round++) {
        TimerStart(&probe.timer);
        TimerStop(&probe.timer);
    }
    ServeFor(6);
    EXPECT_EQ(probe.runs, 0);
    EXPECT_EQ(TimerRunning(&probe.timer), 0U);
    // Started for good after that it runs all the same.
    TimerStart(&probe.timer);
    EXPECT_TRUE(ServeUntil([&] { return probe.runs == 2; }));
    TimerExit(&probe.timer);
}

TEST(Timer, StartingARunningTimerBeginsItsPeriodAndItsStatisticsAnew) {
    Attach();
    ProbeT probe;
    ProbeT marker;
    Init(&probe, 10, false);
    Init(&marker, 10, false);
    TimerStart(&probe.timer);
    ASSERT_TRUE(ServeUntil([&] { return probe.runs == 1; }));
    EXPECT_EQ(probe.timer.numExecs, 1U);
    EXPECT_EQ(TimerStartWithTime(&probe.timer, 60000), kNoError);
    EXPECT_EQ(TimerStart(&probe.timer), kNoError);  // keeps the new time
    TimerStart(&marker.timer);
    ASSERT_TRUE(ServeUntil([&] { return marker.runs == 1; }));
    EXPECT_EQ(probe.timer.time, 60000);
    EXPECT_EQ(probe.timer.numExecs, 0U);
    EXPECT_GT(probe.timer.ticks, 30000);
    EXPECT_EQ(probe.runs, 1);
    EXPECT_EQ(TimerStartWithTime(&probe.timer, 10), kNoError);
    EXPECT_TRUE(ServeUntil([&] { return probe.runs == 2; }));
    TimerExit(&probe.timer);
    TimerExit(&marker.timer);
}

TEST(Timer, ARestartBetweenExpiryAndServiceIsNotLost) {
    Attach();
    ProbeT probe;
    Init(&probe, 10, false);
    TimerStart(&probe.timer);
    LetExpire(&probe);
    TimerStart(&probe.timer);
    EXPECT_TRUE(ServeUntil([&] { return probe.runs >= 1; }));
    ServeFor(6);
    EXPECT_EQ(TimerRunning(&probe.timer), 0U);
    TimerExit(&probe.timer);
}

TEST(Timer, ATimerThatExpiredAndWasStoppedOrDeletedDoesNotRun) {
    Attach();
    ProbeT stopped;
    auto deleted = std::make_unique<ProbeT>();
    Init(&stopped, 10, true);
    Init(deleted.get(), 10, true);
    TimerStart(&stopped.timer);
    TimerStart(&deleted->timer);
    LetExpire(&stopped);
    tm_wkafter(3);
    TimerStop(&stopped.timer);
    TimerExit(&deleted->timer);
    deleted.reset();  // nothing may touch it any more
    TimerProcessAll();
    ServeFor(5);
    EXPECT_EQ(stopped.runs, 0);
    TimerExit(&stopped.timer);
}

TEST(Timer, ATimerMayEndAndFreeItselfInItsFunctionAndRightAfterAStart) {
    Attach();
    static int ended;
    ended = 0;
    for (const bool periodic : {false, true}) {
        auto* probe = new ProbeT;
        probe->inside = [](ProbeT* p) {
            TimerExit(&p->timer);
            delete p;
            ended++;
        };
        Init(probe, 10, periodic);
        TimerStart(&probe->timer);
    }
    ASSERT_TRUE(ServeUntil([] { return ended == 2; }));
    for (int round = 0; round < 50; round++) {
        auto probe = std::make_unique<ProbeT>();
        Init(probe.get(), 10, true);
        TimerStart(&probe->timer);
        TimerStartWithTime(&probe->timer, 20);
        if (round % 8 == 0) {
            tm_wkafter(1);
        }
        TimerExit(&probe->timer);
    }
    EXPECT_TRUE(Eventually([] { return gFreeDeferredFuncsAvailable == kModNumDeferredFuncs; }));
}

TEST(Timer, TheTimerTaskEndsWithTheLastTimerAndStartsAnew) {
    Attach();
    ProbeT one;
    ProbeT two;
    EXPECT_EQ(TimerStart(&one.timer), kNoError);  // no timer task: nothing happens
    EXPECT_EQ(TimerRunning(&one.timer), 0U);
    Init(&one, 10, false);
    Init(&two, 10, false);
    const UInt32 task = TimerTaskId();
    EXPECT_NE(task, 0U);
    EXPECT_NE(ModFindByName("TimerTask", 0), nullptr);
    TimerExit(&one.timer);
    EXPECT_EQ(TimerTaskId(), task);
    TimerExit(&two.timer);
    EXPECT_TRUE(Eventually([] { return TimerTaskId() == 0; }));
    EXPECT_EQ(ModFindByName("TimerTask", 0), nullptr);
    for (int round = 0; round < 5; round++) {  // also while the old one is still ending
        Init(&one, 10, false);
        one.runs = 0;
        TimerStart(&one.timer);
        EXPECT_TRUE(ServeUntil([&] { return one.runs == 1; }));
        TimerExit(&one.timer);
    }
    EXPECT_EQ(TimerManInit(), kNoError);
    EXPECT_NE(TimerTaskId(), 0U);
    Init(&one, 10, true);
    TimerStart(&one.timer);
    one.runs = 0;
    TimerManExit();
    EXPECT_TRUE(Eventually([] { return TimerTaskStarted == 0 && TimerTaskId() == 0; }));
    EXPECT_EQ(TimerStopByTaskID(SelfId()), kNoError);
    TimerManExit();
    one.timer.running = 0;
    EXPECT_EQ(TimerStart(&one.timer), kNoError);
    EXPECT_EQ(TimerRunning(&one.timer), 0U);
}

TEST(Timer, The601stTimerWorksButIsNotListed) {
    Attach();
    const StdoutFile out;
    const auto timers = std::make_unique<ProbeT[]>(kTimerMaxTimers + 1);
    for (size_t i = 0; i < kTimerMaxTimers; i++) {
        Init(&timers[i], 10, false);
    }
    EXPECT_FALSE(out.Has("WARN"));
    ProbeT* last = &timers[kTimerMaxTimers];
    Init(last, 10, false);
    EXPECT_TRUE(out.Has("WARN: TimerInit : Cannot add timer to list of timers, list full. \n"));
    for (size_t i = 0; i < 300; i++) {  // as many requests as the pool of calls has room for
        TimerStart(&timers[i].timer);
    }
    TimerStart(&last->timer);
    EXPECT_TRUE(ServeUntil([&] { return last->runs == 1 && timers[299].runs == 1; }));
    EXPECT_EQ(TimerExit(&last->timer), kBadParameter);
    EXPECT_EQ(numTimers, kTimerMaxTimers);
    for (size_t i = 0; i < kTimerMaxTimers; i++) {
        EXPECT_EQ(TimerExit(&timers[i].timer), kNoError);
    }
}

TEST(Timer, NothingIsCountedDownWhileTheSystemShutsDown) {
    Attach();
    ProbeT probe;
    Init(&probe, 10, true);
    SysState = kSysStateShuttingDown;
    TimerStart(&probe.timer);
    ServeFor(6);
    EXPECT_EQ(probe.runs, 0);
    SysState = kSysStateRunning;
    EXPECT_TRUE(ServeUntil([&] { return probe.runs > 0; }));
    TimerExit(&probe.timer);
}

TEST(Timer, ATaskThatGoesTakesItsTimersWithIt) {
    Attach();
    for (const bool served : {true, false}) {
        ProbeT kept;
        Init(&kept, 10, true);
        TimerStart(&kept.timer);
        {
            auto timers = std::make_unique<ProbeT[]>(3);
            static std::atomic<int> ready;
            ready = 0;
            ModuleTask task("ownr");
            task.Post([&] {
                Init(&timers[0], 10, true);
                Init(&timers[1], 10, false);
                Init(&timers[2], 60000, false);
                for (size_t i = 0; i < 3; i++) {
                    TimerStart(&timers[i].timer);
                }
                ready = 1;
                while (!served) {  // expired and never served
                    tm_wkafter(1);
                }
            });
            ASSERT_TRUE(Eventually([] { return ready == 1; }));
            tm_wkafter(5);
            task.Delete();
            for (size_t i = 0; i < 3; i++) {
                EXPECT_EQ(TimerRunning(&timers[i].timer), 0U);
                EXPECT_EQ(timers[i].timer.list.next, &timers[i].timer.list);
            }
            for (size_t i = 0; i < 3; i++) {
                EXPECT_EQ(TimerExit(&timers[i].timer), kNoError);
            }
        }
        const int before = kept.runs;
        EXPECT_TRUE(ServeUntil([&] { return kept.runs > before + 1; }));
        EXPECT_EQ(TimerStopByTaskID(SelfId()), kNoError);
        EXPECT_EQ(TimerRunning(&kept.timer), 0U);
        TimerExit(&kept.timer);
    }
}

TEST(Timer, ATimerTaskThatIsKilledIsReplaced) {
    Attach();
    ProbeT probe;
    Init(&probe, 10, false);
    t_delete(TimerTaskId());
    EXPECT_EQ(TimerTaskStarted, 0U);
    ProbeT next;
    Init(&next, 10, false);
    TimerStart(&next.timer);
    EXPECT_TRUE(ServeUntil([&] { return next.runs == 1; }));
    TimerExit(&next.timer);
}

TEST(TimerDeathTest, MisuseEndsTheProgramAndNamesTheService) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static TimerT timer;
    const struct {
        void (*misuse)();
        const char* report;
    } cases[] = {
        {[] { TimerInit(nullptr, 10, Fire, nullptr, 0); }, "pTimer"},
        {[] { TimerInit(&timer, 10, nullptr, nullptr, 0); }, "pFunc"},
        {[] { TimerStart(nullptr); }, "pTimer"},
        {[] { TimerStop(nullptr); }, "pTimer"},
        {[] { TimerExit(nullptr); }, "pTimer"},
        {[] {
             Attach();
             TimerInit(&timer, 10, Fire, nullptr, 0);
             timer.taskID = TimerTaskId();
             TimerStart(&timer);
             tm_wkafter(6000);
         },
         "pTimer->taskID != gTimerTask.mod.taskID"},
    };
    for (const auto& c : cases) {
        EXPECT_DEATH(c.misuse(), std::string("Assertion failed: ") + c.report +
                                     ", file Common/framework/timer,");
    }
}

TEST(Timer, DumpsShowEveryColumn) {
    Attach();
    const StdoutFile out;
    const std::string heading =
        "Timer    run task time(mS) maxLaten per timerID  pFunc    avgExec  maxExec \n"
        "-------- --- ---- -------- -------- --- -------- -------- -------- --------\n";
    TimerDumpActive();
    EXPECT_EQ(out.Text(), heading);
    ProbeT active;
    ProbeT idle;
    Init(&active, 60000, true);
    Init(&idle, 25, false);
    TimerStart(&active.timer);
    ASSERT_TRUE(Eventually(
        [&] { return gTimerTask.mod.taskID != 0 && FieldRead(active.timer.startsQueued) == 0; }));
    idle.timer.maxLatency = 7;
    idle.timer.numExecs = 3;
    idle.timer.totalExecTime = 10;
    idle.timer.maxExecTime = 5;
    char row[2][100];
    int i = 0;
    for (const ProbeT* probe : {&active, &idle}) {
        snprintf(row[i], sizeof(row[i]), "%08x  %c  main %8d %8d  %c  00000000 %8x %8d %8d\n",
                 static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(&probe->timer)),
                 i == 0 ? 'Y' : 'N', i == 0 ? 60000 : 25, i == 0 ? 0 : 7, i == 0 ? 'Y' : 'N',
                 static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(&Fire)), i == 0 ? 0 : 3,
                 i == 0 ? 0 : 5);
        i++;
    }
    TimerDumpActive();
    TimerDumpAll();
    EXPECT_EQ(out.Text(), heading + heading + row[0] + heading + row[0] + row[1]);
    TimerExit(&active.timer);
    TimerExit(&idle.timer);
}
