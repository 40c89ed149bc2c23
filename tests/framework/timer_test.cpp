// Framework timers.
#include "Common/framework/timer.h"

#include <deque>

#include "Common/framework/sharedfield.h"
#include "tests/framework/module_task.h"

namespace {

// A timer and what its function saw.
struct ProbeT {
    ProbeT(int time, bool periodic) {
        const auto fire = [](void* user) {
            auto* probe = static_cast<ProbeT*>(user);
            probe->runs++;
            probe->running_inside = probe->Running();
            if (probe->inside != nullptr) {
                probe->inside(probe);
            }
        };
        EXPECT_EQ(TimerInit(&timer, time, fire, this, periodic), kNoError);
    }
    ~ProbeT() { TimerExit(&timer); }

    void Start() { EXPECT_EQ(TimerStart(&timer), kNoError); }
    bool Running() { return TimerRunning(&timer) != 0; }
    bool StartIsDone() const {
        return Eventually([this] { return FieldRead(timer.startsQueued) == 0; });
    }

    TimerT timer = {};
    int runs = 0;
    bool running_inside = false;
    void (*inside)(ProbeT* probe) = nullptr;
};

// Serves the calling task's events until `condition()`.
template <typename ConditionT>
bool ServeUntil(ConditionT condition) {
    return Eventually([&] {
        UInt32 events = 0;
        ev_receive(kModEventsAll, kEvAny | kEvNoWait, 0, &events);
        ModProcessEvents(events);
        return condition();
    });
}

// Serves events for a time in which short timers expire several times.
void ServeOn() {
    const UInt32 end = RealTimeMilliSeconds() + 60;
    ServeUntil([end] { return static_cast<SInt32>(RealTimeMilliSeconds() - end) >= 0; });
}

UInt32 TimerTaskId() {
    UInt32 id = 0;
    t_ident("TMRT", 0, &id);
    return id;
}

using Timer = TaskTest;

}  // namespace

TEST_F(Timer, AOneShotTimerRunsOnceAndAPeriodicOneUntilItIsStoppedInItsOwnFunction) {
    for (const bool periodic : {false, true}) {
        ProbeT probe(30, periodic);
        probe.inside = [](ProbeT* p) { p->runs == 3 ? (void)TimerStop(&p->timer) : (void)0; };
        EXPECT_FALSE(probe.Running());
        const UInt32 start = RealTimeMilliSeconds();
        probe.Start();
        const int runs = periodic ? 3 : 1;
        ASSERT_TRUE(ServeUntil([&] { return probe.runs == runs; }));
        EXPECT_GE(RealTimeMilliSeconds() - start, runs * 29U);
        EXPECT_GE(probe.timer.maxLatency, 29U);
        EXPECT_EQ(probe.running_inside, periodic);
        EXPECT_FALSE(probe.Running());
        ServeOn();
        EXPECT_EQ(probe.runs, runs);
    }
}

TEST_F(Timer, StoppingHoldsEvenWhileARequestToStartIsOnItsWay) {
    ProbeT probe(10, true);
    for (int round = 0; round < 200; round++) {
        probe.Start();
        TimerStop(&probe.timer);
    }
    ServeOn();
    EXPECT_EQ(probe.runs, 0);
    EXPECT_FALSE(probe.Running());
}

TEST_F(Timer, StartingARunningTimerBeginsItsPeriodAndItsStatisticsAnew) {
    ProbeT probe(10, false);
    ProbeT marker(10, false);
    probe.Start();
    ASSERT_TRUE(ServeUntil([&] { return probe.runs == 1; }));
    EXPECT_EQ(probe.timer.numExecs, 1U);
    TimerStartWithTime(&probe.timer, 60000);
    probe.Start();  // keeps the new time
    marker.Start();
    ASSERT_TRUE(ServeUntil([&] { return marker.runs == 1; }));
    EXPECT_EQ(probe.timer.numExecs, 0U);
    EXPECT_GT(FieldRead(probe.timer.ticks), 30000);
    TimerStartWithTime(&probe.timer, 10);
    EXPECT_TRUE(ServeUntil([&] { return probe.runs == 2; }));
}

TEST_F(Timer, WhatHappensBetweenExpiryAndServiceCounts) {
    ProbeT restarted(10, false);
    ProbeT stopped(10, true);
    auto deleted = std::make_unique<ProbeT>(10, true);
    for (ProbeT* probe : {&restarted, &stopped, deleted.get()}) {
        probe->Start();
    }
    UInt32 events = 0;
    ASSERT_EQ(ev_receive(kModEventTimer, 0, 0, &events), kTaskOk);
    tm_wkafter(3);
    TimerStartWithTime(&restarted.timer, 60000);
    ASSERT_TRUE(restarted.StartIsDone());
    TimerStop(&stopped.timer);
    deleted.reset();  // nothing may touch it any more
    TimerProcessAll();
    ServeOn();
    EXPECT_EQ(restarted.runs + stopped.runs, 0);
    EXPECT_TRUE(restarted.Running());
}

TEST_F(Timer, ATimerMayEndAndFreeItselfInItsFunction) {
    static int ended;
    for (const bool periodic : {false, true}) {
        auto* probe = new ProbeT(10, periodic);
        probe->inside = [](ProbeT* p) {
            delete p;
            ended++;
        };
        probe->Start();
    }
    ASSERT_TRUE(ServeUntil([] { return ended == 2; }));
}

TEST_F(Timer, TheTimerTaskEndsWithTheLastTimerAndStartsAnew) {
    {
        ProbeT one(10, false);
        { ProbeT two(10, false); }
        EXPECT_NE(ModFindByName("TimerTask", 0), nullptr);
    }
    EXPECT_TRUE(Eventually([] { return TimerTaskId() == 0; }));
    EXPECT_EQ(ModFindByName("TimerTask", 0), nullptr);
    for (int round = 0; round < 5; round++) {  // also while the old one is still ending
        ProbeT one(10, false);
        one.Start();
        EXPECT_TRUE(ServeUntil([&] { return one.runs == 1; }));
    }
    ProbeT left(60000, false);
    left.Start();
    ASSERT_TRUE(left.StartIsDone());
    t_delete(TimerTaskId());  // killed, it is replaced
    ProbeT next(10, false);
    next.Start();
    TimerStartWithTime(&left.timer, 10);
    EXPECT_TRUE(ServeUntil([&] { return next.runs == 1 && left.runs == 1; }));
}

TEST_F(Timer, The601stTimerWorksButIsNotListed) {
    std::deque<ProbeT> timers;
    for (int i = 0; i <= kTimerMaxTimers; i++) {
        EXPECT_FALSE(out_.Has("WARN"));
        timers.emplace_back(10, false);
    }
    EXPECT_TRUE(out_.Has("WARN: TimerInit : Cannot add timer to list of timers, list full. \n"));
    ProbeT& last = timers.back();
    last.Start();
    EXPECT_TRUE(ServeUntil([&] { return last.runs == 1; }));
    EXPECT_EQ(TimerExit(&last.timer), kBadParameter);
    EXPECT_EQ(numTimers, kTimerMaxTimers);
}

TEST_F(Timer, ATaskThatGoesTakesItsTimersWithIt) {
    ProbeT kept(10, true);
    kept.Start();
    for (const bool served : {true, false}) {
        std::deque<ProbeT> timers;
        ModuleTask task("ownr");
        task.Run([&] {
            for (const int time : {10, 20, 60000}) {
                timers.emplace_back(time, time == 10).Start();
            }
        });
        if (!served) {  // expired and never served
            task.Block();
        }
        tm_wkafter(5);
        task.Delete();
        for (ProbeT& probe : timers) {
            EXPECT_FALSE(probe.Running());
            EXPECT_EQ(probe.timer.list.next, &probe.timer.list);
        }
    }
    const int before = kept.runs;
    EXPECT_TRUE(ServeUntil([&] { return kept.runs > before + 1; }));
    TimerStopByTaskID(self_);
    EXPECT_FALSE(kept.Running());
}
