// Framework timers: beside a model on a driven clock, and what only real tasks and ticks show.
#include "Common/framework/timer.h"

#include <algorithm>
#include <deque>
#include <random>

#include "tests/framework/module_task.h"

namespace {

std::atomic<bool> gDriven{false};
std::atomic<UInt32> gNow{0xFFFFFF00};  // wraps soon
std::atomic<int> gMarks{0};
std::atomic<bool> gHeld{false};

}  // namespace

// The suite is linked so that the product's calls of the millisecond clock arrive here.
extern "C" UInt32 __real__Z20RealTimeMilliSecondsv();
extern "C" UInt32 __wrap__Z20RealTimeMilliSecondsv() {
    return gDriven ? gNow.load() : __real__Z20RealTimeMilliSecondsv();
}

namespace {

UInt32 TimerTaskId() {
    UInt32 id = 0;
    t_ident("TMRT", 0, &id);
    return id;
}

// Has the timer task make a mark, and, where it is to stay there, wait while it is held.
void Mark(bool stays = false) {
    const int before = gMarks;
    const auto mark = [](void* user, void*) {
        gMarks++;
        gMarks.notify_all();
        if (user != nullptr) {
            gHeld.wait(true);
        }
    };
    ASSERT_EQ(ModDeferFunctionCall(TimerTaskId(), mark, stays ? &gHeld : nullptr, nullptr, 0),
              kNoError);
    gMarks.wait(before);
}

// What a timer should look like.
struct ModelT {
    std::unique_ptr<TimerT> timer;  // null while it is ended
    bool periodic = false, running = false;
    int time = 0;
    UInt32 since = 0, last = 0;
    unsigned latency = 0, longest = 0, total = 0, runs = 0;
};
typedef std::vector<ModelT*> ModelsT;

// Does each operation to the timers and to their models, from their functions too. The timer task
// is held back at times, so that requests and ticks wait for it.
class TimerModel {
  public:
    explicit TimerModel(unsigned seed) : random_(seed) {
        gModel = this;
        at_ = models_;  // stays to the end
        while (at_->timer == nullptr) {
            Init();
        }
    }
    ~TimerModel() {
        Release();
        for (ModelT& m : models_) {
            if (m.timer != nullptr) {
                Exit(&m);
            }
        }
    }

    void Step() {
        using T = TimerModel;
        static constexpr void (T::*kOps[])() = {
            &T::Init,  &T::End,   &T::Start, &T::Start, &T::Stop, &T::Hold,
            &T::Serve, &T::Serve, &T::Serve, &T::State, &T::Tick, &T::Tick,
            &T::Tick,  &T::Tick,  &T::Tick,  &T::Tick,  &T::Tick, &T::Release};
        at_ = &models_[Below(std::size(models_))];
        (this->*kOps[Below(std::size(kOps))])();
    }

    // The text of both dumps, one behind the other.
    std::string Dumps() const {
        std::string text;
        for (const ModelsT* list : {&slots_, &active_}) {
            text +=
                "Timer    run task time(mS) maxLaten per timerID  pFunc    avgExec  maxExec \n"
                "-------- --- ---- -------- -------- --- -------- -------- -------- --------\n";
            for (const ModelT* m : *list) {
                char line[120] = "";
                if (m != nullptr) {
                    snprintf(line, sizeof(line), "%8.8x %s main %8d %8u %s 00000000 %8x %8u %8u\n",
                             shown_address(m->timer.get()), m->running ? " Y " : " N ", m->time,
                             m->latency, m->periodic ? " Y " : " N ", shown_address(&Fired),
                             m->runs != 0 ? m->total / m->runs : 0, m->longest);
                    EXPECT_EQ(TimerRunning(m->timer.get()), m->running);
                    EXPECT_EQ(m->timer->lastTime, m->last);
                }
                text += line;
            }
        }
        return text;
    }

  private:
    static TimerModel* gModel;

    int Below(size_t limit) { return static_cast<int>(random_() % limit); }

    void Init() {
        ModelT* m = at_;
        const bool alive = m->timer != nullptr;
        const int time = Below(8) == 0 ? 9 : 10 + Below(20);
        const bool periodic = Below(2) == 0;
        auto timer = alive ? std::move(m->timer) : std::make_unique<TimerT>();
        const eErrorT err = TimerInit(timer.get(), time, Fired, m, periodic);
        EXPECT_EQ(err, time < 10 ? kBadParameter : alive ? kFuncReturnedError : kNoError);
        if (err == kNoError) {
            *m = {nullptr, periodic, false, time};
            *std::find(slots_.begin(), slots_.end(), nullptr) = m;
        }
        if (err == kNoError || alive) {
            m->timer = std::move(timer);
        }
    }

    void End() {
        if (Below(4) == 0 && at_ != models_ && at_->timer != nullptr) {
            Exit(at_);
        }
    }
    void Exit(ModelT* m) {
        EXPECT_EQ(TimerExit(m->timer.get()), kNoError);
        EXPECT_EQ(m->timer->signature, 0U);
        m->timer.reset();  // nothing may touch it any more
        m->running = false;
        std::erase(active_, m);
        std::erase(expired_, m);
        std::erase_if(asked_, [m](const auto& ask) { return ask.first == m; });
        std::replace(slots_.begin(), slots_.end(), m, static_cast<ModelT*>(nullptr));
        std::replace(serving_.begin(), serving_.end(), m, static_cast<ModelT*>(nullptr));
    }

    void Start() {
        const int time = Below(2) == 0 ? 0 : 10 + Below(20);
        if (at_->timer != nullptr) {
            EXPECT_EQ(TimerStartWithTime(at_->timer.get(), time), kNoError);
            Started(at_, time);
        }
    }
    void Started(ModelT* m, int time) {
        Rewind(m, time);
        m->running = true;
        asked_.emplace_back(m, time);
        TakeUp();
    }
    void Rewind(ModelT* m, int time) {
        m->time = time != 0 ? time : m->time;
        m->since = m->last = gNow;
        m->latency = m->longest = m->total = m->runs = 0;
        std::erase(expired_, m);
    }

    void Stop() {
        if (at_->timer != nullptr) {
            EXPECT_EQ(TimerStop(at_->timer.get()), kNoError);
            at_->running = false;
        }
    }

    void Hold() {
        if (!gHeld) {
            gHeld = true;
            Mark(true);
        }
    }
    void Release() {
        gHeld = false;
        gHeld.notify_all();
        TakeUp();
    }
    void State() { SysState = Below(6) == 0 ? kSysStateShuttingDown : kSysStateRunning; }
    void Tick() {
        gNow += static_cast<UInt32>(Below(20));
        tm_dispatch();
        ticked_ = true;
        TakeUp();
    }

    // What the timer task does: first the starts, then the tick.
    void TakeUp() {
        if (gHeld) {
            return;
        }
        Mark();
        Mark();  // a tick may have been behind the first
        for (const auto& [m, time] : std::exchange(asked_, {})) {
            Rewind(m, time);
            if (m->running && std::find(active_.begin(), active_.end(), m) == active_.end()) {
                active_.push_back(m);
            }
        }
        if (!std::exchange(ticked_, false) || SysState == kSysStateShuttingDown) {
            return;
        }
        std::erase_if(expired_, [](const ModelT* m) { return !m->running; });
        for (ModelT* m : std::exchange(active_, {})) {
            if (m->running) {
                const bool due = gNow - m->since >= static_cast<UInt32>(m->time);
                (due ? expired_ : active_).push_back(m);
            }
        }
    }

    void Serve() {
        TimerProcessAll();
        FunctionEnded();
        EXPECT_EQ(Next(), nullptr);
    }
    ModelT* Next() {
        while (!expired_.empty()) {
            ModelT* m = expired_.front();
            expired_.erase(expired_.begin());
            if (m->running) {
                return m;
            }
        }
        return nullptr;
    }
    static void Fired(void* user) { gModel->Run(static_cast<ModelT*>(user)); }
    void Run(ModelT* m) {
        FunctionEnded();
        EXPECT_EQ(Next(), m);
        const UInt32 began = gNow;
        m->latency = std::max(m->latency, began - m->last);
        m->last = began;
        m->running = m->running && m->periodic;
        serving_.push_back(m);
        gNow += static_cast<UInt32>(Below(5));
        for (int steps = serving_.size() < 3 ? Below(4) : 0; steps > 0; steps--) {
            Step();
        }
        ended_ = serving_.back();
        serving_.pop_back();
        took_ = gNow - began;
    }
    // What follows a function before the next one.
    void FunctionEnded() {
        if (ModelT* m = std::exchange(ended_, nullptr)) {
            m->total += took_;
            m->longest = std::max(m->longest, took_);
            m->runs++;
            if (m->periodic && m->running) {
                Started(m, 0);
            }
        }
    }

    std::mt19937 random_;
    ModelT models_[5];
    ModelT* at_;  // the operation's
    ModelsT slots_ = ModelsT(std::size(models_)), active_, expired_, serving_;
    std::vector<std::pair<ModelT*, int>> asked_;  // starts that the timer task has not seen
    bool ticked_ = false;
    ModelT* ended_ = nullptr;
    unsigned took_ = 0;
};
TimerModel* TimerModel::gModel;

// A timer that counts its runs in real time.
struct ProbeT {
    ProbeT(int time, bool periodic) {
        const auto fire = [](void* user) {
            auto* probe = static_cast<ProbeT*>(user);
            probe->runs++;
            EXPECT_EQ(probe->timer.taskID, ModSelf());
        };
        EXPECT_EQ(TimerInit(&timer, time, fire, this, periodic), kNoError);
        EXPECT_EQ(TimerStart(&timer), kNoError);
    }
    ~ProbeT() { TimerExit(&timer); }

    // Serves the calling task until the timer has run this often.
    bool Runs(int wanted) const {
        return Eventually([&] {
            UInt32 events = 0;
            ev_receive(kModEventsAll, kEvAny | kEvNoWait, 0, &events);
            ModProcessEvents(events);
            return runs >= wanted;
        });
    }

    TimerT timer = {};
    int runs = 0;
};

using Timer = TaskTest;

// The board's processor is emulated, some fifty times slower than a workstation.
constexpr unsigned kSeeds = sizeof(void*) == 4 ? 2 : 30;

}  // namespace

TEST_F(Timer, EveryOrderOfOperationsFollowsTheModel) {
    StartSystemTimer();
    t_delete(timerid);
    timerid = self_;  // no tick but the model's
    gDriven = true;
    for (unsigned seed = 1; seed <= kSeeds && !HasFailure(); seed++) {
        SCOPED_TRACE(seed);
        StdoutFile out;
        TimerModel model(seed);
        for (int step = 0; step < 600 && !HasFailure(); step++) {
            model.Step();
            out.Fresh();
            TimerDumpAll();
            TimerDumpActive();
            EXPECT_EQ(out.Fresh(), model.Dumps());
        }
    }
    EXPECT_TRUE(Eventually([] { return TimerTaskId() == 0; }));
    EXPECT_EQ(timerList, nullptr);
}

TEST_F(Timer, TheTimerTaskEndsWithTheLastTimerAndStartsAnew) {
    for (int round = 0; round < 5; round++) {  // also while the old one is still ending
        ProbeT one(10, false);
        const ProbeT two(60000, false);
        EXPECT_TRUE(one.Runs(1));
        EXPECT_NE(ModFindByName("TimerTask", 0), nullptr);
    }
    EXPECT_TRUE(Eventually([] { return TimerTaskId() == 0; }));
    EXPECT_EQ(ModFindByName("TimerTask", 0), nullptr);
    ProbeT left(60000, false);
    Mark();
    t_delete(TimerTaskId());  // killed, it is replaced
    ProbeT next(10, false);
    TimerStartWithTime(&left.timer, 10);
    EXPECT_TRUE(next.Runs(1) && left.Runs(1));
}

TEST_F(Timer, AClockThatIsStartedAnewDelaysNoTimer) {
    ProbeT probe(10, true);
    gNow = 1 << 27;
    gDriven = true;
    TimerStart(&probe.timer);
    Mark();
    gNow = 0;
    EXPECT_TRUE(Eventually([&probe] {
        gNow += 10;
        ModProcessEvents(kModEventTimer);
        return probe.runs > 0;
    }));
}

TEST_F(Timer, TimersRunThoughTheSystemHasNoTimerForTheirTick) {
    StartLog();
    UInt32 taken[kTimerPoolSize];
    for (UInt32& id : taken) {
        tm_evevery(1000000, 1, &id);
    }
    {
        ProbeT probe(10, true);
        EXPECT_TRUE(probe.Runs(3));
        TimerStop(&probe.timer);
    }
    ExpectLines(
        {"WARN  pc[0]: TIMER: no system timer is free: the task of the framework timers "
         "sleeps from tick to tick\n"});
}

TEST_F(Timer, The601stTimerWorksButIsNotListed) {
    std::deque<ProbeT> timers;
    for (int i = 0; i <= kTimerMaxTimers; i++) {
        EXPECT_FALSE(out_.Has("WARN"));
        timers.emplace_back(i == kTimerMaxTimers ? 10 : 60000, false);
    }
    EXPECT_TRUE(out_.Has("WARN: TimerInit : Cannot add timer to list of timers, list full. \n"));
    EXPECT_TRUE(timers.back().Runs(1));
    EXPECT_EQ(TimerExit(&timers.back().timer), kBadParameter);
    EXPECT_EQ(numTimers, kTimerMaxTimers);
}

TEST_F(Timer, ATaskThatGoesTakesItsTimersWithIt) {
    ProbeT kept(10, true);
    for (const bool served : {true, false}) {
        std::deque<ProbeT> timers;
        ModuleTask task("ownr");
        task.Run([&timers] {
            for (const int time : {10, 20, 60000}) {
                timers.emplace_back(time, time == 10);
            }
        });
        if (!served) {  // expired and never served
            task.Block();
        }
        tm_wkafter(5);
        TimerProcessAll();  // not another task's
        gHeld = true;
        Mark(true);
        std::atomic<bool> gone{false};
        std::thread deleter([&] {
            task.Delete();
            gone = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // it must wait
        EXPECT_FALSE(gone);
        gHeld = false;
        gHeld.notify_all();
        deleter.join();
        for (ProbeT& probe : timers) {
            EXPECT_EQ(probe.timer.place, kTimerOffList);
            EXPECT_EQ(TimerRunning(&probe.timer), 0U);
        }
    }
    EXPECT_TRUE(kept.Runs(kept.runs + 2));
}
