// Deferred function calls and callbacks: order, pools, and what happens when tasks go.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"
#include "Common/framework/timer.h"
#include "tests/framework/module_task.h"
#include "tests/support/stdout_file.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

std::vector<std::string> gTrace;  // of the main task only

void Trace(void*, void* pArgs) {
    gTrace.emplace_back(static_cast<const char*>(pArgs));
}

void DeferTrace(const char* text) {
    char args[32];
    snprintf(args, sizeof(args), "%s", text);
    EXPECT_EQ(ModDeferFunctionCall(0, Trace, nullptr, args, sizeof(args)), kNoError);
}

void Idle(void*, void*) {}

// A task that never serves what is queued for it, until the test is over.
UInt32 DeafTask(const char* name) {
    UInt32 id = 0;
    EXPECT_EQ(t_create(name, 0, 0, 0, 0, &id), kTaskOk);
    EXPECT_EQ(t_start(
                  id, 0,
                  [](UInt32, UInt32, UInt32, UInt32) {
                      for (;;) {
                          tm_wkafter(100);
                      }
                  },
                  nullptr),
              kTaskOk);
    return id;
}

void Fill(UInt32 task, int calls) {
    for (int i = 0; i < calls; i++) {
        ASSERT_EQ(ModDeferFunctionCall(task, Idle, nullptr, nullptr, 0), kNoError);
    }
}

bool PoolsAreFull() {
    return gFreeDeferredFuncsAvailable == kModNumDeferredFuncs &&
           gFreeDCBsAvailable == kModNumDeferredCallbacks;
}

DFStatsT Stats(int index) {
    const SemGuardT lock(deferredFuncRegion);
    return DFStats[index];
}

int CountOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}

}  // namespace

TEST(Deferred, EventsAreServedTimersFirstThenCallbacksThenCalls) {
    Attach();
    TestModule mod;
    TimerT timer = {};
    TimerInit(
        &timer, 10, [](void*) { gTrace.emplace_back("timer"); }, nullptr, 0);
    DeferTrace("call 1");
    ModAddCallback(
        &mod, 1, [](ModT*, UInt32, void*, void*) { gTrace.emplace_back("callback"); }, nullptr,
        kModCallbackDeferred);
    ModuleTask other("othr");
    other.Run([&] { ModCallCallbacks(&mod, 1, nullptr, 0); });
    DeferTrace("call 2");
    TimerStart(&timer);
    UInt32 events = 0;
    ASSERT_EQ(ev_receive(kModEventTimer, 0, 0, &events), kTaskOk);
    ModProcessEvents(kModEventTimer | kModEventDeferredCallback | kModEventDeferredFunc);
    EXPECT_EQ(gTrace, (std::vector<std::string>{"timer", "callback", "call 1", "call 2"}));
    TimerExit(&timer);
    EXPECT_TRUE(PoolsAreFull());
}

TEST(Deferred, ACallQueuedByAHandlerIsServedInTheNextPass) {
    Attach();
    struct CountT {
        int left;
    } count = {3};
    static DeferredFuncPtrT again;
    again = [](void*, void* pArgs) {
        auto* args = static_cast<CountT*>(pArgs);
        gTrace.emplace_back("run");
        if (--args->left > 0) {
            ModDeferFunctionCall(0, again, nullptr, args, sizeof(*args));
        }
    };
    ModDeferFunctionCall(0, again, nullptr, &count, sizeof(count));
    EXPECT_EQ(ModProcessDeferredFunctions(), 1);
    EXPECT_EQ(ModProcessDeferredFunctions(), 1);
    EXPECT_EQ(ModProcessDeferredFunctions(), 1);
    EXPECT_EQ(ModProcessDeferredFunctions(), 0);
    EXPECT_EQ(gTrace.size(), 3U);
    EXPECT_EQ(count.left, 3);  // the handlers worked on copies
    EXPECT_TRUE(PoolsAreFull());
}

TEST(Deferred, AComparatorChoosesAndStops) {
    Attach();
    for (const char* text : {"a", "b", "a", "b", "a"}) {
        DeferTrace(text);
    }
    char wanted[] = "b";
    const auto matches = [](ListT* list, void* text, void*) -> int {
        const auto* block = reinterpret_cast<ModDeferredFuncT*>(list);
        return block->args[0] == *static_cast<const unsigned char*>(text)
                   ? kModSearchTake | kModSearchStop
                   : 0;
    };
    EXPECT_EQ(ModSearchDeferredFunction(matches, wanted, nullptr), 1);
    EXPECT_EQ(gTrace, (std::vector<std::string>{"b"}));
    EXPECT_EQ(ModProcessDeferredFunctions(), 4);
    EXPECT_EQ(gTrace, (std::vector<std::string>{"b", "a", "a", "b", "a"}));
}

TEST(Deferred, CallsToTasksThatDoNotExistTakeNoBlock) {
    Attach();
    const StdoutFile out;
    StartLog();
    UInt32 gone;
    {
        ModuleTask task("gone");
        gone = task.Id();
    }
    for (const UInt32 id : {gone, 12345U, 0xFFFFFFF0U}) {
        EXPECT_EQ(ModDeferFunctionCall(id, Idle, nullptr, nullptr, 0), kBadParameter);
    }
    EXPECT_TRUE(PoolsAreFull());
    EXPECT_TRUE(out.WaitFor(
        "CRIT  pc[0]: MOD: can't defer function call to task ????, it doesn't exist\n"));
    std::thread([] {  // no task: nobody to run it
        EXPECT_EQ(ModDeferFunctionCall(0, Idle, nullptr, nullptr, 0), kBadParameter);
        EXPECT_EQ(ModProcessDeferredFunctions(), 0);
    })
        .join();
}

TEST(Deferred, LowWaterIsReportedOnceAndArmedAgainAfterRecovery) {
    Attach();
    const StdoutFile out;
    StartLog();
    const std::string low = "has not responded to deferred func calls for ";
    const std::string released = "releasing low water mark, more than ";
    const UInt32 deaf = DeafTask("deaf");
    Fill(deaf, kModNumDeferredFuncs - 49);
    EXPECT_EQ(gFreeDeferredFuncsAvailable, 49);
    EXPECT_EQ(ModDeferFunctionCall(0, Idle, nullptr, nullptr, 0), kNoError);  // 49 were free
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 0);
    Fill(deaf, 3);
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 1);
    EXPECT_TRUE(out.WaitFor("WARN  pc[0]: MOD: task deaf " + low));
    EXPECT_TRUE(out.Has("DFC List 336 entries, max 336 (current task main)\n"));
    EXPECT_EQ(ModProcessDeferredFunctions(), 1);
    Fill(deaf, 1);  // 48 free: still low
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 1);
    t_delete(deaf);
    EXPECT_TRUE(PoolsAreFull());
    Fill(SelfId(), 1);
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 0);
    EXPECT_TRUE(out.WaitFor("INFO  pc[0]: MOD: " + released + "384 function call blocks remain\n"));
    EXPECT_EQ(CountOf(out.Text(), low), 1);
    const UInt32 again = DeafTask("deaf");
    Fill(again, kModNumDeferredFuncs - 40);
    EXPECT_TRUE(Eventually([&] { return CountOf(out.Text(), low) == 2; }));
    t_delete(again);
}

TEST(Deferred, LowWaterOfCallbacksIsReportedOnEveryFiring) {
    Attach();
    const StdoutFile out;
    StartLog();
    const UInt32 deaf = DeafTask("deaf");
    TestModule mod;
    ModAddCallbackToTask(
        &mod, 1, [](ModT*, UInt32, void*, void*) {}, nullptr, kModCallbackDeferred, deaf);
    for (int i = 0; i < kModNumDeferredCallbacks - 32; i++) {
        ModCallCallbacks(&mod, 1, nullptr, 0);
    }
    EXPECT_FALSE(out.Has("has not responded to DCBs"));
    ModCallCallbacks(&mod, 1, nullptr, 0);
    ModCallCallbacks(&mod, 1, nullptr, 0);
    EXPECT_EQ(CountOf(out.Text(), "task deaf has not responded to DCBs for "), 2);
    EXPECT_EQ(gFreeDeferredFuncsLowWaterMarkPassed, 1);
    EXPECT_EQ(gFreeDCBLowLevelMarkPassed, 0);
    t_delete(deaf);
    EXPECT_EQ(gFreeDCBsAvailable, kModNumDeferredCallbacks);
    gFreeDCBLowLevelMarkPassed = 1;
    const UInt32 other = DeafTask("othr");
    ModAddCallbackToTask(
        &mod, 2, [](ModT*, UInt32, void*, void*) {}, nullptr, kModCallbackDeferred, other);
    ModCallCallbacks(&mod, 2, nullptr, 0);
    EXPECT_EQ(gFreeDCBLowLevelMarkPassed, 0);
    EXPECT_TRUE(out.WaitFor("releasing low water mark, more than 256 function call blocks"));
    t_delete(other);
}

TEST(DeferredDeathTest, AnExhaustedPoolWaitsReportsAndEndsTheProgram) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            Attach();
            StartLog();
            Fill(DeafTask("deaf"), kModNumDeferredFuncs + 1);
        },
        AllOf(ContainsRegex("can't defer function call from main to task deaf func 0x[0-9a-f]+, "
                            "out of deferred function blocks\n"),
              HasSubstr("Assertion failed: pDeferredFunc, file Common/framework/mod,")));
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            Attach();
            StartLog();
            ModT mod = {};
            ModInit(&mod, "firer", 0, nullptr);
            ModAddCallbackToTask(
                &mod, 7, [](ModT*, UInt32, void*, void*) {}, nullptr, kModCallbackDeferred,
                DeafTask("deaf"));
            for (int i = 0; i <= kModNumDeferredCallbacks; i++) {
                ModCallCallbacks(&mod, 7, nullptr, 0);
            }
        },
        AllOf(ContainsRegex("ERROR, task deaf has not responded to deferred callbacks for "
                            "[0-9]+mS\n"),
              HasSubstr("firer[0]: can't call callback for func 7, out of callback blocks\n"),
              HasSubstr("Assertion failed: pDeferredCallback, file Common/framework/mod,")));
}

TEST(Deferred, ABlockThatComesFreeInTimeSavesAnExhaustedPool) {
    Attach();
    static std::atomic<bool> go;
    go = false;
    ModuleTask slow("slow");
    slow.Post([] {
        while (!go) {
            tm_wkafter(1);
        }
    });
    Fill(slow.Id(), kModNumDeferredFuncs - 1);
    std::thread release([] {
        tm_wkafter(3);
        go = true;
    });
    EXPECT_EQ(ModDeferFunctionCall(slow.Id(), Idle, nullptr, nullptr, 0), kNoError);
    release.join();
    EXPECT_TRUE(Eventually(PoolsAreFull));
}

TEST(Deferred, BlocksOfATaskThatNeverRanComeBackAndDoNotRunInItsSuccessor) {
    Attach();
    static std::atomic<int> ran;
    ran = 0;
    UInt32 unborn;
    ASSERT_EQ(t_create("unbn", 0, 0, 0, 0, &unborn), kTaskOk);
    for (int i = 0; i < 300; i++) {
        ModDeferFunctionCall(
            unborn, [](void*, void*) { ran++; }, nullptr, nullptr, 0);
    }
    t_delete(unborn);
    const UInt32 deaf = DeafTask("deaf");
    EXPECT_EQ(deaf, unborn);  // the id is used again at once
    Fill(deaf, 300);          // more than were left
    t_delete(deaf);
    EXPECT_EQ(ran, 0);
    EXPECT_TRUE(PoolsAreFull());
}

TEST(Deferred, ADyingTaskFinishesItsWorkInOrderAndTakesNoMore) {
    Attach();
    static std::vector<int> order;
    static std::atomic<int> refused;
    static DeferredFuncPtrT for_ever;
    refused = 0;
    for_ever = [](void*, void*) {
        t_delete(0);  // a task that is ending goes on ending
        if (ModDeferFunctionCall(0, for_ever, nullptr, nullptr, 0) == kBadParameter) {
            refused++;
        }
    };
    TestModule mod;
    const UInt32 deaf = DeafTask("deaf");
    ModAddCallbackToTask(
        &mod, 1, [](ModT*, UInt32, void*, void*) { order.push_back(-1); }, nullptr,
        kModCallbackDeferred, deaf);
    for (int i = 0; i < 5; i++) {
        ModDeferFunctionCall(
            deaf, [](void*, void* pArgs) { order.push_back(*static_cast<int*>(pArgs)); }, nullptr,
            &i, sizeof(i));
    }
    ModDeferFunctionCall(deaf, for_ever, nullptr, nullptr, 0);
    ModCallCallbacks(&mod, 1, nullptr, 0);
    t_delete(deaf);
    EXPECT_EQ(order, (std::vector<int>{-1, 0, 1, 2, 3, 4}));
    EXPECT_EQ(refused, 1);
    EXPECT_TRUE(PoolsAreFull());
}

TEST(Deferred, ATaskCutInTheMiddleOfAFunctionLosesNoBlockAndNoWork) {
    Attach();
    static std::atomic<int> entered;
    static std::vector<int> order;
    for (const bool callback : {false, true}) {
        entered = 0;
        order.clear();
        ModuleTask task("cut ");
        TestModule mod;
        const auto wait = [] {
            entered = 1;
            for (;;) {
                tm_wkafter(100);
            }
        };
        static void (*stuck)();
        stuck = wait;
        ModAddCallbackToTask(
            &mod, 1, [](ModT*, UInt32, void*, void*) { stuck(); }, nullptr, kModCallbackDeferred,
            task.Id());
        ModAddCallbackToTask(
            &mod, 2, [](ModT*, UInt32, void*, void* n) { order.push_back(*static_cast<int*>(n)); },
            nullptr, kModCallbackDeferred, task.Id());
        const auto queue = [&](int n) {
            if (callback) {
                ModCallCallbacks(&mod, n == 0 ? 1 : 2, &n, sizeof(n));
            } else {
                ModDeferFunctionCall(
                    task.Id(),
                    [](void*, void* pArgs) {
                        const int number = *static_cast<int*>(pArgs);
                        number == 0 ? stuck() : order.push_back(number);
                    },
                    nullptr, &n, sizeof(n));
            }
        };
        static std::atomic<bool> go;
        go = false;
        task.Post([] {  // so that what follows is queued when the next pass begins
            while (!go) {
                tm_wkafter(1);
            }
        });
        for (int n = 0; n < 4; n++) {
            queue(n);
        }
        go = true;
        ASSERT_TRUE(Eventually([] { return entered == 1; }));
        queue(4);
        task.Delete();
        EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
        EXPECT_TRUE(PoolsAreFull());
    }
}

TEST(Deferred, CancelTakesBackWhatWaitsAndWaitsForWhatRuns) {
    Attach();
    static std::atomic<int> stage;
    stage = 0;
    const DeferredFuncPtrT slow = [](void*, void*) {
        stage++;
        tm_wkafter(5);
        stage++;
    };
    int mine = 0;
    int other = 0;
    ModuleTask task("slow");
    task.Post([&] {
        for (int i = 0; i < 3; i++) {
            ModDeferFunctionCall(0, slow, &mine, nullptr, 0);
        }
        ModDeferFunctionCall(0, slow, &other, nullptr, 0);
    });
    ASSERT_TRUE(Eventually([] { return stage == 1; }));
    ModDeferFunctionCall(task.Id(), slow, &mine, nullptr, 0);
    EXPECT_EQ(ModCountDeferredFunctions(slow, &mine), 4);
    EXPECT_EQ(ModCancelDeferredFunctions(slow, &mine), 3);
    EXPECT_GE(stage, 2);
    EXPECT_EQ(ModCountDeferredFunctions(slow, &mine), 0);
    EXPECT_TRUE(Eventually([] { return stage == 4; }));
    EXPECT_TRUE(Eventually(PoolsAreFull));
}

TEST(Deferred, StatisticsShowHowLongATaskLetItsCallsWait) {
    Attach();
    gModStatsAfter = 0;
    const StdoutFile out;
    StartLog();
    RealTimeMilliSeconds();
    tm_wkafter(1);
    ModDeferFunctionCall(0, Idle, nullptr, nullptr, 0);
    ModDeferFunctionCall(0, Idle, nullptr, nullptr, 0);
    EXPECT_EQ(Stats(0).taskID, SelfId());
    EXPECT_EQ(Stats(0).queued, 2U);
    tm_wkafter(110);
    ModDumpDeferredFuncList();
    EXPECT_EQ(ModProcessDeferredFunctions(), 2);
    EXPECT_EQ(Stats(0).queued, 0U);
    EXPECT_EQ(Stats(0).runs, 1U);
    EXPECT_EQ(Stats(0).eventTime, 0U);
    EXPECT_GE(Stats(0).minTime, 1000U);
    EXPECT_EQ(Stats(0).maxTime, Stats(0).minTime);
    EXPECT_TRUE(out.WaitFor("WARN  pc[0]: MOD: task:main was delayed "));
    EXPECT_TRUE(out.Has("before processing a deferred function\n"));
    EXPECT_TRUE(
        out.Has("DFC List 2 entries, max 2 (current task main)\n"
                "task   min   max   avg  runs    total  in queue\n"
                "---- ----- ----- ----- ----- --------  --------\n"
                "DFC task rsp time min/max/avg runs  in queue\n"
                "DFC ---- -------------------- ----- --------\n"
                "DFC main       -1     0     0     0        2\n"
                "0: DFC  func 0x"));
    ModDeferFunctionCall(
        0, [](void*, void*) { tm_wkafter(160); }, nullptr, nullptr, 0);
    EXPECT_EQ(ModProcessDeferredFunctions(), 1);
    EXPECT_TRUE(out.WaitFor("WARN  pc[0]: MOD: task:main took "));
    const UInt32 deaf = DeafTask("deaf");
    Fill(deaf, 1);
    EXPECT_EQ(Stats(1).taskID, deaf);
    t_delete(deaf);
    EXPECT_EQ(Stats(1).taskID, 0U);
    EXPECT_EQ(Stats(1).minTime, 0xFFFFFFFFU);
}

// Senders, receivers and deletions all at once: nothing is lost, nothing runs twice.
TEST(Deferred, EveryCallThatWasAcceptedRunsOnceWhileTasksComeAndGo) {
    Attach();
    ModSetUp();
    static std::atomic<int> ran;
    ran = 0;
    std::atomic<int> accepted{0};
    std::atomic<UInt32> target{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    senders.reserve(2);
    for (int i = 0; i < 2; i++) {
        senders.emplace_back([&] {
            UInt32 ignored;
            t_attach("send", 0, &ignored);
            while (!stop) {
                const UInt32 id = target;
                if (id != 0 && gFreeDeferredFuncsAvailable > 100 &&
                    ModDeferFunctionCall(
                        id, [](void*, void*) { ran++; }, nullptr, nullptr, 0) == kNoError) {
                    accepted++;
                }
            }
        });
    }
    for (int round = 0; round < 100; round++) {
        ModuleTask task("trgt");
        target = task.Id();
        tm_wkafter(1);
    }
    stop = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(ran, accepted);
    EXPECT_GT(ran, 0);
    EXPECT_TRUE(PoolsAreFull());
}
