// The timer service. Lengths of ticks are real time and allow for a loaded machine: waits have
// lower bounds only.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <list>
#include <memory>
#include <random>
#include <thread>
#include <utility>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/syslogq.h"
#include "tests/support/spawn.h"
#include "tests/support/stdout_file.h"
#include "tests/support/timer_pool.h"

namespace {

// A timer function that calls the closure given as its argument.
typedef std::function<UInt32()> ClosureT;
UInt32 CallClosure(void* closure) {
    return (*static_cast<ClosureT*>(closure))();
}

}  // namespace

TEST(Clock, SleepsEndEarlyBeyondASecondOrAClockDisagrees) {
    init_rtcp();
    const UInt32 cycles = CYCLES();
    std::thread other([] { EXPECT_GE(MillisecondsOf([] { udelay(1050000); }), 1050.0); });
    EXPECT_GE(MillisecondsOf([] { tm_wkafter(105); }), 1050.0);
    other.join();
    const UInt32 later = RealTimeMilliSeconds();
    EXPECT_GE(later, 1049U);
    EXPECT_LE(GetTickCountLinux() - later / 10, 500U);
    EXPECT_GE(CYCLES() - cycles, 66666664U);
    init_rtcp();
    EXPECT_LT(RealTimeMilliSeconds(), later);  // restarted, unless a second went by
}

namespace {

// Timers as the service has them, or as a model of it does. What happens is added to `trace`.
class WorldT {
  public:
    explicit WorldT(bool model) : model_(model) {
        for (const TMCB* timer = freetimerList; timer != nullptr; timer = timer->next) {
            unused_.push_back(id_of(timer));
        }
    }

    void Arm(UInt32 kind, UInt32 ticks, UInt32 number) {
        TimerT& timer = timers_.emplace_back(TimerT{this, kind, ticks, number});
        if (!model_) {
            kind == kOnce    ? tm_evafter(ticks, timer.events, &timer.id)
            : kind == kEvery ? tm_evevery(ticks, timer.events, &timer.id)
                             : tm_callback_after(ticks, &timer.id, Run, &timer);
        } else if (!unused_.empty()) {
            timer.id = std::exchange(unused_.front(), 0);
            unused_.pop_front();
            armed_.push_back(&timer);
        }
        recent_[number % 8] = timer.id;
        trace += " armed " + std::to_string(timer.id);
    }

    void CancelRecent(UInt32 number) { Cancel(recent_[number % 8]); }

    void Tick() {
        if (!model_) {
            tm_dispatch();
            return;
        }
        for (TimerT* timer : armed_) {
            timer->due = --timer->left == 0;
        }
        const auto due = [](const TimerT* timer) { return timer->due; };
        for (auto at = armed_.begin();
             (at = std::find_if(armed_.begin(), armed_.end(), due)) != armed_.end();) {
            TimerT* timer = *at;
            timer->due = false;
            timer->left = timer->ticks;
            events_ |= timer->kind != kCall ? timer->events : 0;
            if (timer->kind == kCall ? Run(timer) == 0 : timer->kind == kOnce) {
                Disarm(std::find(armed_.begin(), armed_.end(), timer));
            }
        }
    }

    // Adds every timer in the order armed, and the events received.
    void Look() {
        const auto add = [&](UInt32 id, UInt32 left) {
            trace += " " + std::to_string(id) + ":" + std::to_string(left);
        };
        if (model_) {
            std::for_each(armed_.begin(), armed_.end(), [&](auto* t) { add(t->id, t->left); });
        } else {
            for (const TMCB* timer = timerList; timer != nullptr; timer = timer->next) {
                add(id_of(timer), timer->ticks);
            }
            ev_receive(0xFF, kEvNoWait | kEvAny, 0, &events_);
        }
        trace += " events " + std::to_string(std::exchange(events_, 0)) + "\n";
    }

    std::string trace;
    std::string not_found;  // the model's lines

  private:
    enum KindT { kOnce, kEvery, kCall };
    struct TimerT {
        WorldT* world;
        UInt32 kind, ticks, number;  // which decides what its function does
        UInt32 id = 0, calls = 0, left = ticks, events = 1U << number % 8;
        bool due = false;
    };
    typedef std::list<TimerT*> ArmedT;

    void Cancel(UInt32 id) {
        const auto has_id = [id](const TimerT* timer) { return timer->id == id; };
        if (!model_) {
            EXPECT_EQ(tm_cancel(id), 0U);
        } else if (!Disarm(std::find_if(armed_.begin(), armed_.end(), has_id))) {
            char line[80];
            snprintf(line, sizeof(line), "RemoveTimer: %p not found\n", from_id<void>(id));
            not_found += line;
        }
    }

    bool Disarm(ArmedT::iterator at) {
        if (at == armed_.end()) {
            return false;
        }
        unused_.push_front((*at)->id);
        armed_.erase(at);
        return true;
    }

    // A timer's function. It may cancel itself or others that are due, and arm timers.
    static UInt32 Run(void* arg) {
        TimerT& timer = *static_cast<TimerT*>(arg);
        WorldT& world = *timer.world;
        const UInt32 number = timer.number;
        world.trace += " call " + std::to_string(number);
        switch (number / 8 % 5) {
            case 0:
                world.CancelRecent(number / 40);
                break;
            case 1:
                world.Cancel(timer.id);  // the block serves the next one at once
                [[fallthrough]];
            case 2:
                world.Arm(number % 2, 1 + number % 3, number / 40);
                break;
            default:
                break;
        }
        return ++timer.calls <= number % 4 ? 1 + number : 0;
    }

    const bool model_;
    std::list<TimerT> timers_;  // every one ever armed
    ArmedT armed_;
    std::deque<UInt32> unused_;  // the next one to be used first
    UInt32 recent_[8] = {};
    UInt32 events_ = 0;
};

}  // namespace

// The clock is driven: this task says that it is the timer task, and dispatches.
TEST(Timers, RandomArmingCancellingAndFunctionsThatDoBothDifferFromAModel) {
    const StdoutFile out;
    StartSystemTimer();
    t_delete(timerid);
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    timerid = Self();
    WorldT service(false);
    WorldT model(true);
    std::mt19937 random(11);
    const UInt32 start = gEpochMillisecs;
    UInt32 ticks = 0;
    for (int step = 0; step < 6000; step++) {
        // In turns more is armed than expires, and the other way round.
        const UInt32 what = static_cast<UInt32>(random() % (step % 400 < 200 ? 12 : 4));
        const UInt32 number = static_cast<UInt32>(random() % 4000);
        for (WorldT* world : {&service, &model}) {
            what == 0   ? world->CancelRecent(number)
            : what <= 2 ? world->Tick()
                        : world->Arm(number % 3, 1 + number / 3 % 9, number);
            world->Look();
        }
        ticks += what == 1 || what == 2 ? 1 : 0;
        ASSERT_EQ(std::exchange(service.trace, ""), std::exchange(model.trace, "")) << step;
    }
    timerid = 0;
    EXPECT_EQ(gEpochMillisecs - start, 10 * ticks);
    EXPECT_EQ(out.Text(), model.not_found);
}

TEST(Timers, ABlockReturnedTwiceIsReportedAndInThePoolOnceOrOneTooManyIsArmed) {
    const StdoutFile out;
    InitSyslogInterface();
    ASSERT_TRUE(out.WaitFor("os: task:logw "));
    syslogSetLogLevel(4);
    StartSystemTimer();
    FreeTimer(nullptr);
    TMCB* block = freetimerList->next;
    char lines[300];
    snprintf(lines, sizeof(lines),
             "pc[0]: os: FreeTimer called with NULL pTimer\n"
             "pc[0]: os: FreeTimer pTimer is not consistent pTimer: %08x pTimer->next: %08x\n"
             "pc[0]: os: FreeTimer pList is not consistent pList: %08x\n"
             "pc[0]: os: AllocTimer failed\n",
             id_of(block), id_of(block->next), id_of(block));
    FreeTimer(block);
    EXPECT_EQ(freetimerList, block);
    EXPECT_TRUE(AllFree());
    UInt32 id = 0;
    for (int i = 0; i <= kTimerPoolSize; i++) {
        EXPECT_EQ(tm_evafter(100000, 1, &id), 0U);
        EXPECT_EQ(id == 0, i == kTimerPoolSize);
    }
    EXPECT_TRUE(out.WaitFor(lines)) << out.Text();
}

TEST(Timers, AFunctionGoesOnAndEventsStopWhenTheTaskThatArmedThemEnds) {
    std::atomic<int> calls{0};
    UInt32 ids[3];
    ASSERT_TRUE(Ended(Spawn("arms", [&] {
        tm_evevery(1, 1, &ids[0]);
        tm_callback_after(1, &ids[1], CountCalls, &calls);
        tm_evafter(100000, 1, &ids[2]);
    })));
    tm_cancel_own(ids[1], Self(), CountCalls);  // another task's
    EXPECT_EQ(Length(&timerList), 1);
    EXPECT_TRUE(Eventually([&, before = calls.load()] { return calls > before + 2; }));
    tm_cancel(ids[1]);
    EXPECT_TRUE(AllFree());
}

TEST(Timers, ACancelReturnsBeforeTheFunctionHasOrWaitsForTheNextOneToo) {
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    const std::function<void(UInt32)> ways[] = {
        [](UInt32 id) { tm_cancel(id); }, [](UInt32 id) { tm_cancel_own(id, Self(), CallClosure); },
        [](UInt32) { tm_end_of_task(Self(), CallClosure); }};
    for (const auto& cancel : ways) {
        std::atomic<bool> begun{false};
        std::atomic<bool> ended{false};
        static std::atomic<bool> cancelled;
        cancelled = false;
        ClosureT slow = [&] {
            begun = true;
            udelay(50000);
            ended = true;
            return 1;
        };
        UInt32 ids[2];
        tm_callback_after(2, &ids[0], CallClosure, &slow);
        tm_callback_after(
            2, &ids[1], [](void*) { return Eventually([] { return cancelled.load(); }) ? 0U : 1U; },
            nullptr);
        ASSERT_TRUE(Eventually([&] { return begun.load(); }));
        cancel(ids[0]);
        cancelled = true;
        EXPECT_TRUE(ended);
        EXPECT_TRUE(Eventually(AllFree));
    }
}

TEST(Timers, ACancelWaitsForAnotherTimersFunctionOrForOneWhoseDeletionsLeadToTheCanceller) {
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    std::atomic<UInt32> canceller{0};
    std::atomic<bool> called{false};
    UInt32 id;
    const UInt32 between = Spawn("betw", [&] {
        const std::shared_ptr<void> at_end(nullptr, [&](void*) { t_delete(canceller); });
        tm_wkafter(1000000);
    });
    ClosureT deletes = [&] {
        called = true;
        EXPECT_TRUE(Eventually([&] { return canceller != 0; }));
        udelay(50000);  // by now it waits
        return t_delete(between);
    };
    tm_callback_after(1, &id, CallClosure, &deletes);
    ASSERT_TRUE(Eventually([&] { return called.load(); }));
    const UInt32 first = Spawn("canc", [&] { tm_cancel(id); });
    ASSERT_TRUE(Eventually([] { return Length(&timerList) == 0; }));
    t_delete(first);
    tm_callback_after(1000000, &id, CountCalls, nullptr);  // in the same block
    tm_cancel_own(id, Self(), CountCalls);
    tm_callback_after(1000000, &id, CountCalls, nullptr);
    tm_cancel(id);
    EXPECT_TRUE(Ended(Spawn("canc", [&] {
        const NoCancelT no_cancel;
        canceller = Self();
        tm_cancel(id);
    })));
    EXPECT_TRUE(Eventually(AllFree));
}

TEST(Timers, TheTimerTaskMayBeDeletedAndStartsAnewWithTheNextTimer) {
    std::atomic<int> first_runs{0};
    std::atomic<int> second_runs{0};
    ClosureT stay = [&] {
        first_runs++;
        return 1 + tm_wkafter(100000);
    };
    // Both are due at once, and the task is deleted while it runs the first.
    UInt32 ids[3];
    tm_callback_after(5, &ids[2], CallClosure, &stay);
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
