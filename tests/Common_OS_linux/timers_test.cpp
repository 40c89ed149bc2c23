// The timer service. Lengths of ticks are real time and allow for a loaded machine: waits have
// lower bounds only.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/log.h"
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
    init_rtcp();
    EXPECT_LT(RealTimeMilliSeconds(), later - start);  // restarted, unless a second went by
}

namespace {

// Operations on timers, done by the service and by a model of it. What happens is added to `trace`.
class WorldT {
  public:
    enum KindT { kOnce, kEvery, kCall };
    struct CallT {
        WorldT* world;
        UInt32 number;  // decides what the function does
        UInt32 id = 0;
        UInt32 calls = 0;
    };
    virtual ~WorldT() = default;
    virtual void Tick() = 0;
    virtual void Cancel(UInt32 id) = 0;

    void Arm(UInt32 kind, UInt32 ticks, UInt32 number) {
        calls_.push_back({this, number});
        calls_.back().id = DoArm(kind, ticks, 1U << number % 8, &calls_.back());
        recent_[number % 8] = calls_.back().id;
        trace += " armed " + std::to_string(calls_.back().id);
    }
    void CancelRecent(UInt32 number) { Cancel(recent_[number % 8]); }

    // A timer's function. It may cancel itself or others that are due, and arm timers.
    static UInt32 Run(void* arg) {
        CallT& call = *static_cast<CallT*>(arg);
        WorldT& world = *call.world;
        world.trace += " call " + std::to_string(call.number);
        switch (call.number / 8 % 5) {
            case 0:
                world.Cancel(call.id);
                break;
            case 1:
                world.CancelRecent(call.number / 40);
                break;
            case 2:
                world.Arm(call.number % 2, 1 + call.number % 3, call.number / 40);
                break;
            default:
                break;
        }
        return ++call.calls <= call.number % 4 ? 1 + call.number : 0;
    }

    std::string trace;

  protected:
    virtual UInt32 DoArm(UInt32 kind, UInt32 ticks, UInt32 events, CallT* call) = 0;

  private:
    std::deque<CallT> calls_;
    UInt32 recent_[8] = {};
};

class ServiceT : public WorldT {
  public:
    void Tick() override { tm_dispatch(); }
    void Cancel(UInt32 id) override { EXPECT_EQ(tm_cancel(id), 0U); }
    UInt32 DoArm(UInt32 kind, UInt32 ticks, UInt32 events, CallT* call) override {
        UInt32 id = 99;
        EXPECT_EQ(kind == kOnce    ? tm_evafter(ticks, events, &id)
                  : kind == kEvery ? tm_evevery(ticks, events, &id)
                                   : tm_callback_after(ticks, &id, Run, call),
                  0U);
        return id;
    }
    // Every timer in the order armed, and the events received.
    void Look() {
        for (const TMCB* timer = timerList; timer != nullptr; timer = timer->next) {
            trace += " " + std::to_string(id_of(timer)) + ":" + std::to_string(timer->ticks);
        }
        UInt32 events = 0;
        ev_receive(0xFF, kEvNoWait | kEvAny, 0, &events);
        trace += " events " + std::to_string(events) + "\n";
    }
};

class ModelT : public WorldT {
  public:
    ModelT() {
        for (TMCB* timer = freetimerList; timer != nullptr; timer = timer->next) {
            unused_.push_front(id_of(timer));
        }
    }
    void Tick() override {
        for (ArmedT& timer : armed_) {
            timer.due = --timer.ticks == 0;
        }
        const auto is_due = [](const ArmedT& timer) { return timer.due; };
        for (;;) {
            auto due = std::find_if(armed_.begin(), armed_.end(), is_due);
            if (due == armed_.end()) {
                return;
            }
            due->due = false;
            const ArmedT was = *due;
            const bool again = was.kind == kCall ? Run(was.call) != 0 : was.kind == kEvery;
            events_ |= was.kind == kCall ? 0 : was.events;
            due = Find(was.call->id);
            if (due == armed_.end() || due->call != was.call) {
                continue;  // its function cancelled it
            }
            due->ticks = was.reload;
            if (!again) {
                unused_.push_back(due->id);
                armed_.erase(due);
            }
        }
    }
    void Cancel(UInt32 id) override {
        const auto timer = Find(id);
        if (timer == armed_.end()) {
            not_found++;
            return;
        }
        unused_.push_back(id);
        armed_.erase(timer);
    }
    UInt32 DoArm(UInt32 kind, UInt32 ticks, UInt32 events, CallT* call) override {
        if (unused_.empty()) {
            failed++;
            return 0;
        }
        armed_.push_back({unused_.back(), kind, ticks, ticks, events, call});
        unused_.pop_back();
        return armed_.back().id;
    }
    void Look() {
        for (const ArmedT& timer : armed_) {
            trace += " " + std::to_string(timer.id) + ":" + std::to_string(timer.ticks);
        }
        trace += " events " + std::to_string(std::exchange(events_, 0)) + "\n";
    }
    int not_found = 0;
    int failed = 0;

  private:
    struct ArmedT {
        UInt32 id, kind, ticks, reload, events;
        CallT* call;
        bool due = false;
    };
    std::vector<ArmedT>::iterator Find(UInt32 id) {
        return std::find_if(armed_.begin(), armed_.end(),
                            [id](const ArmedT& timer) { return timer.id == id; });
    }
    std::vector<ArmedT> armed_;
    std::deque<UInt32> unused_;  // the next one to be used last
    UInt32 events_ = 0;
};

int Count(const std::string& text, const std::string& wanted) {
    int count = 0;
    for (size_t at = text.find(wanted); at != text.npos; at = text.find(wanted, at + 1)) {
        count++;
    }
    return count;
}

}  // namespace

// The clock is driven: this task says that it is the timer task, and dispatches.
TEST(Timers, RandomArmingCancellingAndFunctionsThatDoBothDifferFromAModel) {
    const StdoutFile out;
    InitSyslogInterface();
    syslogSetLogLevel(3);
    StartSystemTimer();
    t_delete(timerid);
    ASSERT_EQ(t_attach("main", 0, nullptr), kTaskOk);
    UInt32 self;
    t_ident(nullptr, 0, &self);
    timerid = self;
    ServiceT service;
    ModelT model;
    std::mt19937 random(11);
    const UInt32 start = gEpochMillisecs;
    UInt32 ticks = 0;
    for (int step = 0; step < 6000; step++) {
        // In turns more is armed than expires, and the other way round.
        const UInt32 what = static_cast<UInt32>(random() % (step % 400 < 200 ? 12 : 4));
        const UInt32 number = static_cast<UInt32>(random() % 4000);
        for (WorldT* world : {static_cast<WorldT*>(&service), static_cast<WorldT*>(&model)}) {
            what == 0   ? world->CancelRecent(number)
            : what <= 2 ? world->Tick()
                        : world->Arm(number % 3, 1 + number / 3 % 9, number);
        }
        ticks += what == 1 || what == 2 ? 1 : 0;
        service.Look();
        model.Look();
        ASSERT_EQ(service.trace, model.trace) << step;
        service.trace.clear();
        model.trace.clear();
    }
    timerid = 0;
    EXPECT_EQ(gEpochMillisecs - start, 10 * ticks);
    EXPECT_GT(model.failed, 10);
    EXPECT_GT(model.not_found, 10);
    logerr("test", "end\n");
    ASSERT_TRUE(out.WaitFor("test: end\n"));
    EXPECT_EQ(Count(out.Text(), "os: AllocTimer failed\n"), model.failed);
    EXPECT_EQ(Count(out.Text(), "RemoveTimer: "), model.not_found);
}

TEST(Timers, ABlockReturnedTwiceIsReportedAndInThePoolOnce) {
    const StdoutFile out;
    InitSyslogInterface();
    StartSystemTimer();
    FreeTimer(nullptr);
    TMCB* block = freetimerList->next;
    char lines[300];
    snprintf(lines, sizeof(lines),
             "pc[0]: os: FreeTimer called with NULL pTimer\n"
             "pc[0]: os: FreeTimer pTimer is not consistent pTimer: %08x pTimer->next: %08x\n"
             "pc[0]: os: FreeTimer pList is not consistent pList: %08x\n",
             id_of(block), id_of(block->next), id_of(block));
    FreeTimer(block);
    EXPECT_TRUE(out.WaitFor(lines)) << out.Text();
    EXPECT_EQ(freetimerList, block);
    EXPECT_TRUE(AllFree());
}

TEST(Timers, AFunctionGoesOnAndEventsStopWhenTheTaskThatArmedThemEnds) {
    std::atomic<int> calls{0};
    UInt32 ids[3];
    const UInt32 task = Spawn("arms", [&] {
        tm_evevery(1, 1, &ids[0]);
        tm_callback_after(1, &ids[1], CountCalls, &calls);
        tm_evafter(100000, 1, &ids[2]);
    });
    ASSERT_TRUE(Eventually([&] { return t_exists(task) == 0; }));
    EXPECT_EQ(Length(&timerList), 1);
    const int before = calls;
    EXPECT_TRUE(Eventually([&] { return calls > before + 2; }));
    tm_cancel(ids[1]);
    EXPECT_TRUE(AllFree());
}

TEST(Timers, ACancelReturnsBeforeTheFunctionHasOrWaitsForOneThatDeletesTheCanceller) {
    std::atomic<int> calls{0};
    std::atomic<bool> ended{false};
    std::atomic<UInt32> canceller{0};
    UInt32 ids[2];
    std::function<UInt32()> slow = [&] {
        calls++;
        udelay(50000);
        ended = true;
        return 1;
    };
    CallAfter(1, &ids[0], &slow);
    ASSERT_TRUE(Eventually([&] { return calls == 1; }));
    tm_cancel(ids[0]);
    EXPECT_TRUE(ended);
    std::function<UInt32()> deletes = [&] {
        calls++;
        while (canceller == 0) {
            udelay(1000);
        }
        udelay(50000);  // by now it waits
        return t_delete(canceller);
    };
    CallAfter(1, &ids[1], &deletes);
    ASSERT_TRUE(Eventually([&] { return calls == 2; }));
    const UInt32 task = Spawn("canc", [&] {
        const NoCancelT no_cancel;
        t_ident(nullptr, 0, &ids[0]);
        canceller = ids[0];
        tm_cancel(ids[1]);
    });
    EXPECT_TRUE(Eventually([&] { return t_exists(task) == 0; }));
    EXPECT_TRUE(Eventually(AllFree));
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
