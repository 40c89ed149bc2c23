// Deferred function calls and callbacks: order, pools, and what happens when tasks go.
#include <string.h>

#include <random>

#include "Common/framework/timer.h"
#include "tests/framework/module_task.h"

namespace {

TextsT gTrace;  // of one task at a time
std::atomic<int> gRan;
ModT gMod;

void Trace(void*, void* pArgs) {
    gTrace.emplace_back(static_cast<const char*>(pArgs));
}

void Count(void*, void*) {
    gRan++;
}

void Queue(UInt32 task, DeferredFuncPtrT pFunc, const char* text) {
    const int length = static_cast<int>(strlen(text)) + 1;
    EXPECT_EQ(ModDeferFunctionCall(task, pFunc, nullptr, const_cast<char*>(text), length),
              kNoError);
}

void Fill(UInt32 task, int calls) {
    for (int i = 0; i < calls; i++) {
        Queue(task, Count, "");
    }
}

void Fire(UInt32 task, int times) {
    const auto nothing = [](ModT*, UInt32, void*, void*) {};
    ModAddCallbackToTask(&gMod, task, nothing, nullptr, kModCallbackDeferred, task);
    for (int i = 0; i < times; i++) {
        ModCallCallbacks(&gMod, task, nullptr, 0);
    }
}

// A task that never serves what is queued for it, until it is deleted.
UInt32 DeafTask() {
    return Spawn("deaf", [] { tm_wkafter(1000000); });
}

// A call of the model: its function and user data (0 to 7) and where it waits: for this task or the
// idle one, for an idle one that is gone, in the pass that runs, or there but taken back.
struct CallT {
    int key;
    int number;
    enum { kHere, kIdle, kLost, kTaken, kNothing } where;
};

template <int kFunction>
void Told(void* user, void* pArgs);
constexpr DeferredFuncPtrT kFunctions[] = {Told<0>, Told<4>};
int gUsers[4];

// Two tasks, this one and one that never runs and is made anew now and then, and what waits for
// them. Served calls tell the model, which queues and takes back from within them too.
class ModelT {
  public:
    void Step(std::minstd_rand& random) {
        const auto operation = random() % 16;
        const int key = static_cast<int>(random() % 8);
        if (operation < 9 && InUse() < 300) {
            Queue(random() % 4 == 0, key);
        } else if (operation < 11) {
            TakeBack(key);
        } else if (operation < 14) {
            Serve(operation == 11 ? -1 : key % 4, static_cast<int>(random() % 5));
        } else if (operation == 14 && Count(CallT::kLost) < 50) {
            Renew();
        }
        ASSERT_EQ(gFreeDeferredFuncsAvailable, kModNumDeferredFuncs - InUse());
        ASSERT_EQ(ModCountDeferredFunctions(kFunctions[key / 4], &gUsers[key % 4]),
                  std::ranges::count(calls_, key, &CallT::key));
        ASSERT_EQ(DFCListMax, most_);
        for (const DFStatsT& stats : DFStats) {
            if (stats.taskID == ModSelf()) {
                ASSERT_EQ(stats.queued, Count(CallT::kHere));
                ASSERT_EQ(stats.eventTime != 0, served_ < asked_ && Count(CallT::kHere) != 0);
            }
        }
    }

    // A call runs: it is the next; some bring others, some take others back.
    void Run(int key, int number) {
        std::erase_if(calls_, [](const CallT& call) { return call.where == CallT::kNothing; });
        const auto next = std::ranges::find(calls_, CallT::kTaken, &CallT::where);
        ASSERT_NE(next, calls_.end());
        ASSERT_EQ(std::pair(next->key, next->number), std::pair(key, number));
        calls_.erase(next);
        running_ = 1;
        if (number % 5 == 0) {
            Queue(false, (key + 1) % 8);
        } else if (number % 7 == 0) {
            TakeBack(key ^ 4);
        }
        running_ = 0;
    }

    // A pool that runs low takes back what no task serves.
    void End() {
        Serve(-1, 0);
        Serve(-1, 0);
        Renew();
        const UInt32 deaf = DeafTask();
        Fill(deaf, gFreeDeferredFuncsAvailable - 47);
        EXPECT_EQ(gFreeDeferredFuncsAvailable, 47 + InUse());
        t_delete(deaf);
    }

  private:
    static UInt32 Make() {
        UInt32 id = 0;
        t_create("idle", 0, 0, 0, 0, &id);
        return id;
    }

    void Renew() {
        for (CallT& call : calls_) {
            call.where = call.where == CallT::kIdle ? CallT::kLost : call.where;
        }
        t_delete(idle_);
        idle_ = Make();
    }

    void Queue(bool idle, int key) {
        char args[kModMaxArgs] = {};
        memcpy(args + sizeof(args) - sizeof(number_), &++number_, sizeof(number_));
        EXPECT_EQ(ModDeferFunctionCall(idle ? idle_ : 0, kFunctions[key / 4], &gUsers[key % 4],
                                       args, sizeof(args)),
                  kNoError);
        calls_.push_back({key, number_, idle ? CallT::kIdle : CallT::kHere});
        most_ = std::max(most_, InUse());
        asked_ = idle ? asked_ : number_;
    }

    void TakeBack(int key) {
        const auto count = std::ranges::count(calls_, key, &CallT::key);
        std::erase_if(calls_, [key](CallT& call) {
            const bool match = call.key == key;
            if (match && call.where == CallT::kTaken) {  // its block goes when its turn comes
                call = {-1, 0, CallT::kNothing};
                return false;
            }
            return match;
        });
        EXPECT_EQ(ModCancelDeferredFunctions(kFunctions[key / 4], &gUsers[key % 4]), count);
    }

    // Serves the calls with that user data (negative: all) up to a number of calls looked at.
    void Serve(int user, int limit) {
        static int looked;
        looked = 0;
        for (CallT& call : calls_) {
            if (call.where == CallT::kHere && (user < 0 || looked++ <= limit) &&
                (user < 0 || call.key % 4 == user)) {
                call.where = CallT::kTaken;
            }
        }
        looked = 0;
        served_ = number_;
        const auto compare = [](ListT* at, void* wanted, void* most) -> int {
            const void* data = reinterpret_cast<ModDeferredFuncT*>(at)->userDefined;
            return (++looked > *static_cast<int*>(most) ? kModSearchStop : 0) |
                   (data == wanted ? kModSearchTake : 0);
        };
        const auto count = static_cast<int>(Count(CallT::kTaken));
        EXPECT_EQ(user < 0 ? ModProcessDeferredFunctions()
                           : ModSearchDeferredFunction(compare, &gUsers[user], &limit),
                  count);
        std::erase_if(calls_, [](const CallT& call) { return call.where >= CallT::kTaken; });
    }

    size_t Count(int where) const {
        return static_cast<size_t>(std::ranges::count(calls_, where, &CallT::where));
    }
    int InUse() const { return static_cast<int>(calls_.size()) + running_; }

    std::deque<CallT> calls_;
    UInt32 idle_ = Make();
    int number_ = 0;  // of the last call
    int asked_ = 0;   // of the last for this task
    int served_ = 0;  // of the last when a pass began
    int running_ = 0;
    int most_ = 0;
};

ModelT& gModel = *new ModelT;

template <int kFunction>
void Told(void* user, void* pArgs) {
    int number;
    memcpy(&number, static_cast<char*>(pArgs) + kModMaxArgs - sizeof(number), sizeof(number));
    gModel.Run(kFunction + static_cast<int>(static_cast<int*>(user) - gUsers), number);
}

class Deferred : public TaskTest {
  protected:
    Deferred() { ModInit(&gMod, "firer", 0, nullptr); }
    void TearDown() override { EXPECT_TRUE(Eventually(PoolsAreFull)); }
    bool HasTwice(const std::string& part) const {
        const std::string text = out_.Text();
        return text.find(part) != text.rfind(part);
    }
};

using DeferredDeathTest = Deferred;

}  // namespace

TEST_F(Deferred, EventsAreServedTimersFirstThenCallbacksThenCalls) {
    TimerT timer = {};
    const auto fire = [](void*) { gTrace.emplace_back("timer"); };
    const auto callback = [](ModT*, UInt32, void*, void*) { gTrace.emplace_back("callback"); };
    TimerInit(&timer, 10, fire, nullptr, 0);
    Queue(self_, Trace, "call 1");
    ModAddCallback(&gMod, 1, callback, nullptr, kModCallbackDeferred);
    ModuleTask("othr").Run([&] { ModCallCallbacks(&gMod, 1, nullptr, 0); });
    Queue(self_, Trace, "call 2");
    TimerStart(&timer);
    UInt32 events = 0;
    ASSERT_EQ(ev_receive(kModEventTimer, 0, 0, &events), kTaskOk);
    ModProcessEvents(kModEventTimer | kModEventDeferredCallback | kModEventDeferredFunc);
    EXPECT_THAT(gTrace, ElementsAre("timer", "callback", "call 1", "call 2"));
    TimerExit(&timer);
}

// Calls with data of their own do more when they run: see ModelT::Run.
TEST_F(Deferred, AnyOrderOfQueueingServingAndTakingBackRunsWhatIsLeftInOrder) {
    gModStatsAfter = 0;
    ASSERT_TRUE(Eventually([] { return RealTimeMilliSeconds() > 0; }));
    std::minstd_rand random(1);
    for (int step = 0; step < 20000 && !HasFailure(); step++) {
        SCOPED_TRACE(step);
        gModel.Step(random);
    }
    if (!HasFailure()) {
        gModel.End();
    }
}

TEST_F(Deferred, CallsToTasksThatDoNotExistTakeNoBlock) {
    StartLog();
    const UInt32 gone = DeafTask();
    t_delete(gone);
    for (const UInt32 id : {gone, 12345U, 0xFFFFFFF0U}) {
        EXPECT_EQ(ModDeferFunctionCall(id, Count, nullptr, nullptr, 0), kBadParameter);
    }
    EXPECT_TRUE(PoolsAreFull());
    ExpectLines({"CRIT  pc[0]: MOD: can't defer function call to task ????, it doesn't exist\n"});
    std::thread([] {  // no task: nobody to run it
        EXPECT_EQ(ModDeferFunctionCall(0, Count, nullptr, nullptr, 0), kBadParameter);
        EXPECT_EQ(ModProcessDeferredFunctions(), 0);
    })
        .join();
}

TEST_F(Deferred, LowWaterIsReportedOnceAndArmedAgainAfterRecovery) {
    StartLog();
    const char* low = "WARN  pc[0]: MOD: task deaf has not responded to deferred func calls ";
    UInt32 deaf = DeafTask();
    const UInt32 other = DeafTask();
    Fill(deaf, kModNumDeferredFuncs - 95);
    Fill(other, 95 - 48);
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 0);  // 49 were free
    Fill(other, 3);
    ExpectLines({low, "DFC List 336 entries, max 336 (current task main)\n"});
    t_delete(other);
    Fill(self_, 1);
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 1);  // 95 were free
    ModProcessDeferredFunctions();
    t_delete(deaf);
    Fill(self_, 1);
    ModProcessDeferredFunctions();
    ExpectLines({"INFO  pc[0]: MOD: releasing low water mark, more than 384 function call blocks"});
    EXPECT_FALSE(HasTwice(low));
    deaf = DeafTask();
    Fill(deaf, kModNumDeferredFuncs - 40);
    EXPECT_TRUE(Eventually([&] { return HasTwice(low); }));
    t_delete(deaf);
}

TEST_F(Deferred, LowWaterOfCallbacksIsReportedOnEveryFiring) {
    StartLog();
    const UInt32 deaf = DeafTask();
    Fire(deaf, kModNumDeferredCallbacks - 32);
    EXPECT_FALSE(out_.Has("has not responded to DCBs"));
    Fire(deaf, 2);
    EXPECT_TRUE(HasTwice("deaf has not responded to DCBs for "));
    t_delete(deaf);
}

TEST_F(DeferredDeathTest, AnExhaustedPoolWaitsReportsAndEndsTheProgram) {
    StartLog();
    ExpectDeaths("mod,", {{[] { Fill(DeafTask(), kModNumDeferredFuncs + 1); },
                           "can't defer function call from main to task deaf func 0x[0-9a-f]+, out "
                           "of deferred function blocks\n(.|\n)*failed: pDeferredFunc,"},
                          {[] { Fire(DeafTask(), kModNumDeferredCallbacks + 1); },
                           "ERROR, task deaf has not responded to deferred callbacks for "
                           "[0-9]+mS\n(.|\n)*failed: pDeferredCallback,"}});
}

// What waits when a task is cut off in a call or a callback still runs, whoever ends the task.
TEST_F(Deferred, ADyingTaskFinishesItsWorkInOrderAndTakesNoMore) {
    static std::atomic<int> stage;  // 1: in the one that is cut off, 2: it may go on
    static std::atomic<int> refused;
    static bool by_itself;
    static DeferredFuncPtrT for_ever;
    for_ever = [](void*, void*) {
        t_delete(0);  // a task that is ending goes on ending
        refused += ModDeferFunctionCall(0, for_ever, nullptr, nullptr, 0) == kBadParameter;
    };
    static const DeferredFuncPtrT work = [](void*, void* pArgs) {
        Trace(nullptr, pArgs);
        if (gTrace.back() == "cut") {
            for (stage = 1; stage == 1 || !by_itself;) {
                tm_wkafter(1);
            }
            t_delete(0);
        }
    };
    const auto callback = [](ModT*, UInt32, void*, void* pArgs) { work(nullptr, pArgs); };
    gModStatsAfter = 0;
    for (const int variant : {0, 1, 2, 3}) {
        const bool in_callback = variant % 2 != 0;
        by_itself = variant >= 2;
        ModuleTask task("cut ");
        ModAddCallbackToTask(&gMod, 1, callback, nullptr, kModCallbackDeferred, task.Id());
        const auto queue = [&](bool as_callback, const char* text) {
            as_callback ? (void)ModCallCallbacks(&gMod, 1, const_cast<char*>(text),
                                                 static_cast<int>(strlen(text)) + 1)
                        : Queue(task.Id(), work, text);
        };
        task.Block();  // so that what follows is queued when the next pass begins
        for (const char* text : {"cut", "1", "2"}) {
            queue(in_callback, text);
        }
        task.Release();
        ASSERT_TRUE(Eventually([] { return stage == 1; }));
        queue(false, "call");
        Queue(task.Id(), for_ever, "");
        queue(true, "callback");
        stage = 2;
        ASSERT_TRUE(!by_itself || Eventually([&] { return t_exists(task.Id()) == 0; }));
        task.Delete();
        EXPECT_EQ(gTrace, in_callback ? (TextsT{"cut", "1", "2", "callback", "call"})
                                      : (TextsT{"cut", "callback", "1", "2", "call"}));
        EXPECT_EQ(refused.exchange(0), 1);
        EXPECT_EQ(ModCountDeferredCallbacks(&gMod), 0);
        EXPECT_EQ(std::ranges::count(DFStats, 0U, &DFStatsT::taskID), kModNumDFStats);
        EXPECT_TRUE(PoolsAreFull());
        gTrace.clear();
        ModDeleteAllCallbacks(&gMod);
    }
}

TEST_F(Deferred, CancelWaitsForWhatRunsInAnotherTask) {
    static std::atomic<int> stage;
    const DeferredFuncPtrT slow = [](void*, void*) {
        stage++;
        tm_wkafter(5);
        stage++;
    };
    ModuleTask task("slow");
    Queue(task.Id(), slow, "");
    ASSERT_TRUE(Eventually([] { return stage == 1; }));
    Queue(task.Id(), slow, "");
    EXPECT_EQ(ModCountDeferredFunctions(slow, nullptr), 2);
    EXPECT_EQ(ModCancelDeferredFunctions(slow, nullptr), 1);
    EXPECT_EQ(stage, 2);
}

// Senders, receivers and deletions all at once: nothing is lost, nothing runs twice.
TEST_F(Deferred, EveryCallThatWasAcceptedRunsOnceWhileTasksComeAndGo) {
    std::atomic<int> accepted{0};
    std::atomic<UInt32> target{0};
    std::atomic<bool> stop{false};
    const auto send = [&] {
        Attach();
        while (!stop) {
            const UInt32 id = target;
            if (id != 0 && gFreeDeferredFuncsAvailable > 100) {
                accepted += ModDeferFunctionCall(id, Count, nullptr, nullptr, 0) == kNoError;
            }
        }
    };
    std::thread one(send);
    std::thread two(send);
    for (int round = 0; round < 20; round++) {
        ModuleTask task("trgt");
        target = task.Id();
        tm_wkafter(1);
    }
    stop = true;
    one.join();
    two.join();
    EXPECT_EQ(gRan, accepted);
    EXPECT_GT(gRan, 0);
}
