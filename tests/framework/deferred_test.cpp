// Deferred function calls and callbacks: order, pools, and what happens when tasks go.
#include <string.h>

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

TEST_F(Deferred, ACallQueuedByAHandlerIsServedInTheNextPass) {
    static DeferredFuncPtrT again;
    again = [](void*, void* pArgs) {
        int* left = static_cast<int*>(pArgs);
        if (--*left > 0) {
            ModDeferFunctionCall(0, again, nullptr, left, sizeof(*left));
        }
    };
    int count = 3;
    ModDeferFunctionCall(0, again, nullptr, &count, sizeof(count));
    for (const int served : {1, 1, 1, 0}) {
        EXPECT_EQ(ModProcessDeferredFunctions(), served);
    }
    EXPECT_EQ(count, 3);  // the handlers worked on copies
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
    Fill(deaf, kModNumDeferredFuncs - 48);
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 0);  // 49 were free
    Fill(deaf, 3);
    ExpectLines({low, "DFC List 336 entries, max 336 (current task main)\n"});
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

TEST_F(Deferred, ADyingTaskFinishesItsWorkInOrderAndTakesNoMore) {
    static std::atomic<bool> stuck;
    static std::atomic<int> refused;
    static DeferredFuncPtrT for_ever;
    for_ever = [](void*, void*) {
        t_delete(0);  // a task that is ending goes on ending
        refused += ModDeferFunctionCall(0, for_ever, nullptr, nullptr, 0) == kBadParameter;
    };
    static const DeferredFuncPtrT work = [](void*, void* pArgs) {
        Trace(nullptr, pArgs);
        while (gTrace.back() == "cut") {
            stuck = true;
            tm_wkafter(100);
        }
    };
    const auto callback = [](ModT*, UInt32, void*, void* pArgs) { work(nullptr, pArgs); };
    for (const bool in_callback : {false, true}) {
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
        ASSERT_TRUE(Eventually([] { return stuck.exchange(false); }));
        queue(false, "call");
        Queue(task.Id(), for_ever, "");
        queue(true, "callback");
        task.Delete();
        EXPECT_EQ(gTrace, in_callback ? (TextsT{"cut", "1", "2", "callback", "call"})
                                      : (TextsT{"cut", "callback", "1", "2", "call"}));
        EXPECT_EQ(refused.exchange(0), 1);
        EXPECT_TRUE(PoolsAreFull());
        gTrace.clear();
        ModDeleteAllCallbacks(&gMod);
    }
}

TEST_F(Deferred, CancelTakesBackWhatWaitsAndWaitsForWhatRuns) {
    static std::atomic<int> stage;
    const DeferredFuncPtrT slow = [](void*, void*) {
        stage++;
        tm_wkafter(5);
        stage++;
    };
    int mine = 0;
    int other = 0;
    ModuleTask task("slow");
    task.Post([&] {
        for (int* owner : {&mine, &mine, &mine, &other}) {
            ModDeferFunctionCall(0, slow, owner, nullptr, 0);
        }
    });
    ASSERT_TRUE(Eventually([] { return stage == 1; }));
    ModDeferFunctionCall(task.Id(), slow, &mine, nullptr, 0);
    EXPECT_EQ(ModCountDeferredFunctions(slow, &mine), 4);
    EXPECT_EQ(ModCancelDeferredFunctions(slow, &mine), 3);
    EXPECT_GE(stage, 2);
    EXPECT_EQ(ModCountDeferredFunctions(slow, &mine), 0);
    EXPECT_TRUE(Eventually([] { return stage == 4; }));
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
