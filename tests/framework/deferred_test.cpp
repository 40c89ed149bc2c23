// Deferred function calls and callbacks: order, pools, and what happens when tasks go.
#include <string.h>

#include <random>

#include "Common/framework/semguard.h"
#include "Common/framework/timer.h"
#include "tests/framework/module_task.h"

namespace {

TextsT gTrace;  // of one task at a time
std::atomic<UInt32> gRan;
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

// Queues work for a task that goes before it runs; another gets its id.
void FillLost(int calls, int callbacks) {
    UInt32 lost = 0;
    t_create("lost", 0, 0, 0, 0, &lost);
    Fill(lost, calls);
    Fire(lost, callbacks);
    t_delete(lost);
    const UInt32 ran = gRan;
    ModuleTask heir("heir");
    EXPECT_EQ(heir.Id(), lost);
    heir.Run([] {});
    EXPECT_EQ(gRan, ran);
}

// A call of the model: its function and user data (0 to 7), and whether the pass that runs has it.
struct CallT {
    int key;
    int number;
    bool taken;
};

template <int kFunction>
void Told(void* user, void* pArgs);
constexpr DeferredFuncPtrT kFunctions[] = {Told<0>, Told<4>};
int gUsers[4];

// What waits for this task. Served calls tell the model, which queues and takes back from within
// them too.
class ModelT {
  public:
    void Step(std::minstd_rand& random) {
        const auto operation = random() % 16;
        const int key = static_cast<int>(random() % 8);
        if (operation < 9 && calls_.size() < 250) {
            Queue(key);
        } else if (operation < 12) {
            TakeBack(key);
        } else {
            Serve(operation == 12 ? -1 : key % 4, static_cast<int>(random() % 5));
        }
        const auto waiting = static_cast<int>(calls_.size());
        ASSERT_EQ(gFreeDeferredFuncsAvailable, kModNumDeferredFuncs - waiting);
        ASSERT_EQ(ModCountDeferredFunctions(kFunctions[key / 4], &gUsers[key % 4]),
                  std::ranges::count(calls_, key, &CallT::key));
        ASSERT_EQ(DFStats[0].queued, calls_.size());
        ASSERT_EQ(DFStats[0].eventTime != 0, asked_ && waiting != 0);
        ASSERT_EQ(DFStats[0].runs, passes_);
    }

    // A call runs: it is the next; some bring others, some take others back.
    void Run(int key, int number) {
        const auto next = std::ranges::find(calls_, true, &CallT::taken);
        ASSERT_NE(next, calls_.end());
        ASSERT_EQ(std::pair(next->key, next->number), std::pair(key, number));
        calls_.erase(next);
        if (number % 5 == 0) {
            Queue((key + 1) % 8);
        } else if (number % 7 == 0) {
            TakeBack(key ^ 4);
        }
    }

    void End() {
        while (!calls_.empty()) {
            Serve(-1, 0);
        }
    }

  private:
    void Queue(int key) {
        char args[kModMaxArgs] = {};
        memcpy(args + sizeof(args) - sizeof(number_), &++number_, sizeof(number_));
        EXPECT_EQ(ModDeferFunctionCall(0, kFunctions[key / 4], &gUsers[key % 4], args, kModMaxArgs),
                  kNoError);
        calls_.push_back({key, number_, false});
        asked_ = true;
    }

    void TakeBack(int key) {
        const auto count =
            std::erase_if(calls_, [=](const CallT& call) { return call.key == key; });
        EXPECT_EQ(ModCancelDeferredFunctions(kFunctions[key / 4], &gUsers[key % 4]), count);
    }

    // Serves the calls with that user data (negative: all) up to a number of calls looked at. What
    // is taken back on the way counts as run.
    void Serve(int user, int limit) {
        static int looked;
        looked = 0;
        int count = 0;
        for (CallT& call : calls_) {
            call.taken = user < 0 || (looked++ <= limit && call.key % 4 == user);
            count += call.taken;
        }
        looked = 0;
        passes_ += asked_ && !calls_.empty();
        asked_ = false;
        const auto compare = [](ListT* at, void* wanted, void* most) -> int {
            const void* data = reinterpret_cast<ModDeferredFuncT*>(at)->userDefined;
            return (++looked > *static_cast<int*>(most) ? kModSearchStop : 0) |
                   (data == wanted ? kModSearchTake : 0);
        };
        EXPECT_EQ(user < 0 ? ModProcessDeferredFunctions()
                           : ModSearchDeferredFunction(compare, &gUsers[user], &limit),
                  count);
    }

    std::deque<CallT> calls_;
    int number_ = 0;      // of the last call
    bool asked_ = false;  // since the last pass began
    UInt32 passes_ = 0;   // that ended a wait
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
    gModel.End();
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
    })
        .join();
}

TEST_F(Deferred, LowWaterIsReportedOnceAndArmedAgainAfterRecovery) {
    StartLog();
    const char* low = "WARN  pc[0]: MOD: task deaf has not responded to deferred func calls ";
    UInt32 deaf = DeafTask();
    const UInt32 other = DeafTask();
    Fill(deaf, kModNumDeferredFuncs - 95);
    Fill(other, 95 - 49 - 30);
    FillLost(30, 0);
    Fill(other, 1);
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 0);  // 49 were free
    Fill(other, 1);
    ExpectLines({low, "DFC List 336 entries, max 336 (current task main)\n"});
    EXPECT_EQ(gFreeDeferredFuncsAvailable, 77);  // what nobody will serve was given back
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
    Fire(deaf, kModNumDeferredCallbacks - 32 - 2);
    FillLost(0, 2);
    EXPECT_FALSE(out_.Has("has not responded to DCBs"));
    Fire(deaf, 2);
    EXPECT_TRUE(HasTwice("deaf has not responded to DCBs for "));
    Fire(deaf, 32);  // the whole pool: what was for the lost task gives way
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

// What waits when a task is cut off in a call still runs, whoever ends the task.
TEST_F(Deferred, ADyingTaskFinishesItsWorkInOrderAndTakesNoMore) {
    static std::atomic<int> stage;  // 1: in the one that is cut off, 2: it may go on
    static std::atomic<int> refused;
    static std::atomic<bool> by_itself;
    static TimerT timer;
    static const DeferredFuncPtrT for_ever = [](void*, void*) {
        t_delete(0);  // a task that is ending goes on ending
        TimerStart(&timer);
        refused += ModDeferFunctionCall(0, for_ever, nullptr, nullptr, 0) == kBadParameter;
    };
    const DeferredFuncPtrT cut = [](void*, void*) {
        for (stage = 1; stage == 1 || !by_itself;) {
            tm_wkafter(1);
        }
        t_delete(0);
    };
    const auto callback = [](ModT*, UInt32, void*, void*) { gTrace.emplace_back("callback"); };
    gModStatsAfter = 0;
    for (const bool variant : {false, true}) {
        by_itself = variant;
        ModuleTask task("cut ");
        const UInt32 id = task.Id();
        ModAddCallbackToTask(&gMod, 1, callback, nullptr, kModCallbackDeferred, task.Id());
        task.Run([] {
            TimerInit(
                &timer, 100000, [](void*) {}, nullptr, 1);
        });
        task.Block();  // so that what follows is queued when the next pass begins
        Queue(task.Id(), cut, "");
        Queue(task.Id(), Trace, "1");
        Queue(task.Id(), Trace, "2");
        task.Release();
        ASSERT_TRUE(Eventually([] { return stage == 1; }));
        Queue(task.Id(), Trace, "3");
        Queue(task.Id(), for_ever, "");
        ModCallCallbacks(&gMod, 1, nullptr, 0);
        stage = 2;
        ASSERT_TRUE(!by_itself || Eventually([&] { return t_exists(id) == 0; }));
        task.Delete();
        EXPECT_THAT(gTrace, ElementsAre("callback", "1", "2", "3"));
        EXPECT_EQ(refused.exchange(0), 1);
        EXPECT_EQ(TimerRunning(&timer), 0U);
        TimerExit(&timer);
        EXPECT_EQ(ModCountDeferredCallbacks(&gMod), 0);
        gTrace.clear();
        ModDeleteAllCallbacks(&gMod);
        const SemGuardT lock(deferredFuncRegion);
        EXPECT_EQ(std::ranges::count(DFStats, id, &DFStatsT::taskID), 0);
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
    EXPECT_EQ(ModCancelDeferredFunctions(slow, nullptr), 0);
    EXPECT_EQ(stage, 2);
}

// Senders, receivers and deletions all at once: nothing is lost, nothing runs twice.
TEST_F(Deferred, EveryCallThatWasAcceptedRunsOnceWhileTasksComeAndGo) {
    std::atomic<UInt32> accepted{0};
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
    std::thread senders[] = {std::thread(send), std::thread(send)};
    for (int round = 0; round < 20; round++) {
        ModuleTask task("trgt");
        target = task.Id();
        tm_wkafter(1);
    }
    stop = true;
    senders[0].join();
    senders[1].join();
    EXPECT_EQ(gRan, accepted);
    EXPECT_GT(gRan, 0U);
}
