// Deferred function calls, and the end of a task.
//
// The end: t_delete_callback runs once in every task that ends, when its stack has unwound and what
// its own passes had not begun is pending again. It serves everything once, closes the task to new
// work, and serves what came meanwhile. So all that was accepted runs, and no block is lost.
#include <pthread.h>
#include <string.h>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/framework/address.h"
#include "Common/framework/moddeferpool.h"
#include "Common/framework/taskname.h"
#include "Common/framework/timer.h"

ModDeferredFuncT gFreeDeferredFuncs[kModNumDeferredFuncs];
ListT* gFreeDeferredFuncList;
ListT* gPendDeferredFuncList;
std::atomic<int> gFreeDeferredFuncsAvailable{0};
std::atomic<char> gFreeDeferredFuncsLowWaterMarkPassed{0};
DFStatsT DFStats[kModNumDFStats];
std::atomic<int> DFCListMax{0};
UInt32 deferredFuncRegion;
UInt32 gModStatsAfter = 20000;

namespace {

constexpr int kFuncsLow = 48;        // free blocks at which the pool is reported low
constexpr int kFuncsRecovered = 95;  // more than these free: no longer low
constexpr UInt32 kLongDelay = 1000;  // ms
constexpr UInt32 kLongRun = 1500;    // ms
constexpr UInt32 kFirstWait = 10;    // ticks to wait for a block
constexpr UInt32 kLastWait = 50;     // ticks for the log to come out before the end
constexpr UInt32 kPollMicroseconds = 200;

pthread_once_t gSetUpOnce = PTHREAD_ONCE_INIT;

void ResetStats(DFStatsT* stats) {
    *stats = {};
    stats->minTime = 0xFFFFFFFF;
}

// The statistics entry of a task; with `claim` a free one becomes it. Null if there is none.
// deferredFuncRegion is held.
DFStatsT* StatsOf(UInt32 taskID, bool claim) {
    DFStatsT* unused = nullptr;
    for (DFStatsT& stats : DFStats) {
        if (stats.taskID == taskID) {
            return &stats;
        }
        if (stats.taskID == 0 && unused == nullptr) {
            unused = &stats;
        }
    }
    if (claim && unused != nullptr) {
        unused->taskID = taskID;
        return unused;
    }
    return nullptr;
}

// That many calls of a task wait no longer; deferredFuncRegion is held.
void Uncount(UInt32 taskID, int calls) {
    DFStatsT* stats = StatsOf(taskID, false);
    if (stats != nullptr) {
        const auto count = static_cast<UInt32>(calls);
        stats->queued -= count < stats->queued ? count : stats->queued;
        if (stats->queued == 0) {
            stats->eventTime = 0;
        }
    }
}

struct FuncsT {
    using BlockT = ModDeferredFuncT;
    static auto& Blocks() { return gFreeDeferredFuncs; }
    static ListT*& Free() { return gFreeDeferredFuncList; }
    static ListT*& Pending() { return gPendDeferredFuncList; }
    static std::atomic<int>& Available() { return gFreeDeferredFuncsAvailable; }
    static UInt32& Region() { return deferredFuncRegion; }
    static UInt32 TaskOf(const BlockT& block) { return block.taskID; }
    static void Dropped(const BlockT& block) { Uncount(block.taskID, 1); }
    static void Served(UInt32 taskID, int runs) { Uncount(taskID, runs); }
};

using PoolT = DeferredPoolT<FuncsT>;

void SetUp() {
    for (DFStatsT& stats : DFStats) {
        ResetStats(&stats);
    }
    PoolT::SetUp();
    ModSetUpCallbacks();
    ModAssert(sm_create("cb", 1, 0, &callbackSemaphore) == kSmOk);
    t_set_delete_callback(t_delete_callback);
}

void ReportSlowFuncs() {
    ModOldestT oldest;
    if (PoolT::Oldest(&oldest)) {
        logwarn("MOD", "task %4.4s has not responded to deferred func calls for %dmS\n",
                TaskNameT(oldest.taskID).Text(), oldest.age);
    }
}

void CheckFuncsLow() {
    const int available = gFreeDeferredFuncsAvailable;
    if (available <= kFuncsLow) {
        if (gFreeDeferredFuncsLowWaterMarkPassed.exchange(1) == 0) {
            ReportSlowFuncs();
            osTaskUsage();
            ModDumpDeferredFuncList();
            PoolT::Reclaim();
        }
    } else if (available > kFuncsRecovered && gFreeDeferredFuncsLowWaterMarkPassed != 0 &&
               gFreeDeferredFuncsLowWaterMarkPassed.exchange(0) != 0) {
        loginfo("MOD", "releasing low water mark, more than %d function call blocks remain\n",
                available);
    }
}

// Counts a call of a task that was queued just now; deferredFuncRegion is held.
void CountQueued(UInt32 taskID, UInt32 now) {
    const int in_use = kModNumDeferredFuncs - gFreeDeferredFuncsAvailable;
    if (in_use > DFCListMax) {
        DFCListMax = in_use;
    }
    DFStatsT* stats = now > gModStatsAfter ? StatsOf(taskID, true) : nullptr;
    if (stats != nullptr) {
        stats->eventTime = now;
        stats->queued++;
    }
}

// The pool is empty: says so, and gives what is lost, and the other tasks, a chance to come back.
void WaitForFuncs(UInt32 taskID, DeferredFuncPtrT pFunc) {
    logcrit("MOD",
            "can't defer function call from %4.4s to task %4.4s func 0x%x, out of deferred "
            "function blocks\n",
            TaskNameT(0).Text(), TaskNameT(taskID).Text(), shown_address(pFunc));
    ReportSlowFuncs();
    PoolT::Reclaim();
    tm_wkafter(kFirstWait);
}

[[noreturn]] void OutOfFuncs() {
    osTaskDump();
    ModDumpDeferredFuncList();
    tm_wkafter(kLastWait);
    OsAssertFailed("pDeferredFunc", "Common/framework/mod.cpp", __LINE__, "ModDeferFunctionCall");
}

// Counts the wait that a pass of a task ends. Returns it, in ms, if it is the task's longest.
UInt32 CountDelay(UInt32 taskID) {
    const SemGuardT lock(deferredFuncRegion);
    DFStatsT* stats = StatsOf(taskID, false);
    if (stats == nullptr || stats->eventTime == 0) {
        return 0;
    }
    const UInt32 delay = RealTimeMilliSeconds() - stats->eventTime;
    if (delay < stats->minTime) {
        stats->minTime = delay;
    }
    const bool longest = delay > stats->maxTime;
    if (longest) {
        stats->maxTime = delay;
    }
    stats->totTime += delay;
    stats->runs++;
    stats->eventTime = 0;
    return longest ? delay : 0;
}

void RunTimed(ModDeferredFuncT* block) {
    const DeferredFuncPtrT pFunc = block->pFunc;
    if (pFunc == nullptr) {
        return;
    }
    const UInt32 began = RealTimeMilliSeconds();
    pFunc(block->userDefined, block->args);
    const UInt32 took = RealTimeMilliSeconds() - began;
    if (took > kLongRun) {
        logwarn("MOD", "task:%s took %dmS to process deferred func:0x%x\n", TaskNameT(0).Text(),
                static_cast<int>(took), shown_address(pFunc));
    }
}

}  // namespace

void ModSetUp() {
    pthread_once(&gSetUpOnce, SetUp);
}

eErrorT ModDeferToUse(UInt32 taskID, UInt32 use, DeferredFuncPtrT pFunc, void* userDefined,
                      const void* pArgs, int argLen) {
    ModAssert(pFunc);
    ModAssertText(static_cast<size_t>(argLen) <= sizeof(ModDeferredFuncT::args),
                  "argLen <= sizeof(pDeferredFunc->args)");
    ModSetUp();
    CheckFuncsLow();
    const UInt32 task = taskID != 0 ? taskID : ModSelf();
    const auto fill = [&](ModDeferredFuncT* block) {
        block->pFunc = pFunc;
        block->userDefined = userDefined;
        block->taskID = task;
        block->time = RealTimeMilliSeconds();
        if (pArgs != nullptr) {
            memcpy(block->args, pArgs, static_cast<size_t>(argLen));
        }
        CountQueued(task, block->time);
    };
    QueuedT queued = PoolT::Queue(task, use, fill);
    if (queued == QueuedT::kNoBlock) {
        WaitForFuncs(task, pFunc);
        queued = PoolT::Queue(task, use, fill);
    }
    if (queued == QueuedT::kNoBlock) {
        OutOfFuncs();
    }
    if (queued == QueuedT::kNoTask) {
        logcrit("MOD", "can't defer function call to task %4.4s, it doesn't exist\n",
                TaskNameT(taskID).Text());
        return kBadParameter;
    }
    ev_send(task, kModEventDeferredFunc);
    return kNoError;
}

eErrorT ModDeferFunctionCall(UInt32 taskID, DeferredFuncPtrT pFunc, void* userDefined, void* pArgs,
                             int argLen) {
    return ModDeferToUse(taskID, 0, pFunc, userDefined, pArgs, argLen);
}

int ModSearchDeferredFunction(ListCompareFuncPtrT pCompareFunc, void* pUserDefined1,
                              void* pUserDefined2) {
    const UInt32 self = ModSelf();
    if (self == 0) {
        return 0;
    }
    ModSetUp();
    PoolT::PassT pass(self);
    const UInt32 delay = CountDelay(self);
    pass.Collect([&](ModDeferredFuncT* block) {
        return pCompareFunc != nullptr ? pCompareFunc(&block->list, pUserDefined1, pUserDefined2)
                                       : kModSearchTake;
    });
    if (delay > kLongDelay) {
        logwarn("MOD", "task:%4.4s was delayed %dmS before processing a deferred function\n",
                TaskNameT(self).Text(), static_cast<int>(delay));
    }
    while (ModDeferredFuncT* block = pass.Next()) {
        RunTimed(block);
    }
    return pass.Runs();
}

int ModProcessDeferredFunctions() {
    return ModSearchDeferredFunction(nullptr, nullptr, nullptr);
}

int ModCountDeferredFunctions(DeferredFuncPtrT pFunc, void* userDefined) {
    ModSetUp();
    return PoolT::Count([=](const ModDeferredFuncT& block) {
        return block.pFunc == pFunc && block.userDefined == userDefined;
    });
}

int ModCancelDeferredFunctions(DeferredFuncPtrT pFunc, void* userDefined) {
    ModSetUp();
    const UInt32 self = ModSelf();
    int cancelled = 0;
    for (;;) {
        bool running = false;
        {
            const SemGuardT lock(deferredFuncRegion);
            for (ModDeferredFuncT& block : gFreeDeferredFuncs) {
                if (block.pFunc != pFunc || block.userDefined != userDefined) {
                    continue;
                }
                if (block.stage == kDeferredPending) {
                    PoolT::Drop(&block);
                    cancelled++;
                } else if (block.stage == kDeferredTaken) {
                    block.pFunc = nullptr;
                    cancelled++;
                } else if (block.stage == kDeferredRunning) {
                    running = running || block.taskID != self;
                }
            }
        }
        if (!running) {
            return cancelled;
        }
        udelay(kPollMicroseconds);
    }
}

void ModProcessEvents(UInt32 events) {
    if ((events & kModEventTimer) != 0) {
        TimerProcessAll();
    }
    if ((events & kModEventDeferredCallback) != 0) {
        ModProcessDeferredCallbacks();
    }
    if ((events & kModEventDeferredFunc) != 0) {
        ModProcessDeferredFunctions();
    }
}

void ModTaskLoop() {
    for (;;) {
        UInt32 events = 0;
        if (ev_receive(kModEventsAll, kEvAny, 0, &events) != kTaskOk) {
            return;
        }
        ModProcessEvents(events);
        if ((events & kModEventExit) != 0) {
            t_delete(0);
            return;
        }
    }
}

void t_delete_callback() {
    const UInt32 self = ModSelf();
    ModProcessEvents(0xFFFFFFFF);
    // What came in meanwhile, or was queued by what just ran. After this nothing can come.
    t_close();
    ModProcessDeferredCallbacks();
    ModProcessDeferredFunctions();
    // Last: all of that may have started timers.
    TimerStopByTaskID(self);
    const SemGuardT lock(deferredFuncRegion);
    DFStatsT* stats = StatsOf(self, false);
    if (stats != nullptr) {
        ResetStats(stats);
    }
}
