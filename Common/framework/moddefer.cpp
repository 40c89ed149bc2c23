// Deferred function calls, and the end of a task.
//
// Blocks come from a static pool and are only ever on one list: free, pending, or the work list
// of the task that serves them. A work list lives on the serving task's stack, in an object whose
// destructor puts back what was not run, so that a task that is deleted in the middle of a user
// function loses no block: its last pass (t_delete_callback) finds the rest pending.
#include <pthread.h>
#include <string.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/address.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"
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

ModDeferredFuncT* FuncOf(ListT* node) {
    return reinterpret_cast<ModDeferredFuncT*>(node);
}

void ResetStats(DFStatsT* stats) {
    *stats = {};
    stats->minTime = 0xFFFFFFFF;
}

void SetUp() {
    ModAssert(sm_create("#region", 1, 0, &deferredFuncRegion) == kSmOk);
    {
        const SemGuardT lock(deferredFuncRegion);
        for (ModDeferredFuncT& block : gFreeDeferredFuncs) {
            ListEnqueueUnprot(&gFreeDeferredFuncList, &block.list);
        }
        gFreeDeferredFuncsAvailable.store(kModNumDeferredFuncs, std::memory_order_relaxed);
        for (DFStatsT& stats : DFStats) {
            ResetStats(&stats);
        }
    }
    ModSetUpCallbacks();
    ModAssert(sm_create("cb", 1, 0, &callbackSemaphore) == kSmOk);
    t_set_delete_callback(t_delete_callback);
}

// The target and the age of the oldest pending call; false when none is pending.
bool OldestFunc(ModOldestT* oldest) {
    const SemGuardT lock(deferredFuncRegion);
    if (gPendDeferredFuncList == nullptr) {
        return false;
    }
    const ModDeferredFuncT* first = FuncOf(gPendDeferredFuncList);
    *oldest = {first->taskID, static_cast<int>(RealTimeMilliSeconds() - first->time)};
    return true;
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

// Puts a block on the free list; deferredFuncRegion is held.
void FreeFunc(ModDeferredFuncT* block) {
    block->stage = kDeferredFree;
    ListEnqueueUnprot(&gFreeDeferredFuncList, &block->list);
    gFreeDeferredFuncsAvailable.fetch_add(1, std::memory_order_relaxed);
}

// Takes a pending block off the list unserved: its task no longer counts it. deferredFuncRegion is
// held.
void DropFunc(ModDeferredFuncT* block) {
    DFStatsT* stats = StatsOf(block->taskID, false);
    if (stats != nullptr && stats->queued > 0 && --stats->queued == 0) {
        stats->eventTime = 0;
    }
    ListExtractUnprot(&gPendDeferredFuncList, &block->list);
    FreeFunc(block);
}

// Frees the pending blocks whose task went without serving them: it was deleted before it ever ran.
void ReclaimFuncs() {
    const SemGuardT lock(deferredFuncRegion);
    int left = ListLenUnprot(&gPendDeferredFuncList);
    for (ListT* at = gPendDeferredFuncList; left > 0; left--) {
        ListT* next = at->next;
        if (t_incarnation(FuncOf(at)->taskID) != FuncOf(at)->incarnation) {
            DropFunc(FuncOf(at));
        }
        at = next;
    }
}

void ReportSlowFuncs() {
    ModOldestT oldest;
    if (OldestFunc(&oldest)) {
        logwarn("MOD", "task %4.4s has not responded to deferred func calls for %dmS\n",
                TaskNameT(oldest.taskID).Text(), oldest.age);
    }
}

void CheckFuncsLow() {
    const int available = gFreeDeferredFuncsAvailable.load(std::memory_order_relaxed);
    if (available <= kFuncsLow) {
        if (gFreeDeferredFuncsLowWaterMarkPassed.exchange(1, std::memory_order_relaxed) == 0) {
            ReportSlowFuncs();
            osTaskUsage();
            ModDumpDeferredFuncList();
            ReclaimFuncs();
        }
    } else if (available > kFuncsRecovered &&
               gFreeDeferredFuncsLowWaterMarkPassed.load(std::memory_order_relaxed) != 0) {
        if (gFreeDeferredFuncsLowWaterMarkPassed.exchange(0, std::memory_order_relaxed) != 0) {
            loginfo("MOD", "releasing low water mark, more than %d function call blocks remain\n",
                    available);
        }
    }
}

// One deferred call on its way, before it has a block.
struct FuncRequestT {
    UInt32 taskID;
    DeferredFuncPtrT pFunc;
    void* userDefined;
    const void* pArgs;
    size_t length;
};

enum class QueuedT { kQueued, kNoBlock, kNoTask };

// Which block took a request: blocks are used again, the serial number tells the uses apart.
struct TicketT {
    ModDeferredFuncT* block;
    UInt32 serial;
};

void CountQueued(UInt32 taskID, UInt32 now) {
    if (now > gModStatsAfter) {
        DFStatsT* stats = StatsOf(taskID, true);
        if (stats != nullptr) {
            stats->eventTime = now;
            stats->queued++;
        }
    }
}

QueuedT Queue(const FuncRequestT& request, TicketT* ticket) {
    const UInt32 now = RealTimeMilliSeconds();
    const SemGuardT lock(deferredFuncRegion);
    if (gFreeDeferredFuncList == nullptr) {
        return QueuedT::kNoBlock;
    }
    // Under the region: a task that closes takes its last look at the list under it later.
    if (t_is_open(request.taskID) == 0) {
        return QueuedT::kNoTask;
    }
    ModDeferredFuncT* block = FuncOf(ListDequeueUnprot(&gFreeDeferredFuncList));
    block->pFunc = request.pFunc;
    block->userDefined = request.userDefined;
    block->taskID = request.taskID;
    block->incarnation = t_incarnation(request.taskID);
    block->time = now;
    if (request.pArgs != nullptr) {
        memcpy(block->args, request.pArgs, request.length);
    }
    block->stage = kDeferredPending;
    block->serial++;
    ListEnqueueUnprot(&gPendDeferredFuncList, &block->list);
    const int available = gFreeDeferredFuncsAvailable.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (kModNumDeferredFuncs - available > DFCListMax.load(std::memory_order_relaxed)) {
        DFCListMax.store(kModNumDeferredFuncs - available, std::memory_order_relaxed);
    }
    CountQueued(request.taskID, now);
    *ticket = {block, block->serial};
    return QueuedT::kQueued;
}

// Waits for a block when the pool is empty; ends the program when none comes back.
QueuedT QueueWaiting(const FuncRequestT& request, TicketT* ticket) {
    QueuedT result = Queue(request, ticket);
    if (result != QueuedT::kNoBlock) {
        return result;
    }
    logcrit("MOD",
            "can't defer function call from %4.4s to task %4.4s func 0x%x, out of deferred "
            "function blocks\n",
            TaskNameT(0).Text(), TaskNameT(request.taskID).Text(), shown_address(request.pFunc));
    ReportSlowFuncs();
    ReclaimFuncs();
    tm_wkafter(kFirstWait);
    result = Queue(request, ticket);
    if (result == QueuedT::kNoBlock) {
        osTaskDump();
        ModDumpDeferredFuncList();
        tm_wkafter(kLastWait);
        ModAssertText(result != QueuedT::kNoBlock, "pDeferredFunc");
    }
    return result;
}

// Takes a request back. False when it was served meanwhile.
bool Unqueue(const TicketT& ticket) {
    const SemGuardT lock(deferredFuncRegion);
    if (ticket.block->serial != ticket.serial || ticket.block->stage != kDeferredPending) {
        return false;
    }
    DropFunc(ticket.block);
    return true;
}

int TakeAll(ListT*, void*, void*) {
    return kModSearchTake;
}

// The deferred calls that one pass serves.
class FuncPassT {
  public:
    explicit FuncPassT(UInt32 self) : self_(self) {}
    ~FuncPassT();
    FuncPassT(const FuncPassT&) = delete;
    FuncPassT& operator=(const FuncPassT&) = delete;

    // Moves what the comparator takes to the work list. Returns how long the oldest waited, in ms.
    UInt32 Collect(ListCompareFuncPtrT pCompareFunc, void* u1, void* u2);

    // Frees the call that was run last and begins the next; null at the end.
    ModDeferredFuncT* Next();

    int Runs() const { return runs_; }

  private:
    UInt32 Delay();
    void FreeCurrent();

    UInt32 self_;
    ListT* work_ = nullptr;
    ModDeferredFuncT* current_ = nullptr;
    int runs_ = 0;
};

// Counts the wait that this pass ends; deferredFuncRegion is held.
UInt32 FuncPassT::Delay() {
    DFStatsT* stats = StatsOf(self_, false);
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

UInt32 FuncPassT::Collect(ListCompareFuncPtrT pCompareFunc, void* u1, void* u2) {
    const SemGuardT lock(deferredFuncRegion);
    const UInt32 delay = Delay();
    const UInt32 incarnation = t_incarnation(0);
    int left = ListLenUnprot(&gPendDeferredFuncList);
    int answer = 0;
    for (ListT* at = gPendDeferredFuncList; left > 0 && (answer & kModSearchStop) == 0; left--) {
        ListT* next = at->next;
        const ModDeferredFuncT* block = FuncOf(at);
        const bool own = block->taskID == self_ && block->incarnation == incarnation;
        answer = own ? pCompareFunc(at, u1, u2) : 0;
        if ((answer & kModSearchTake) != 0) {
            ListExtractUnprot(&gPendDeferredFuncList, at);
            FuncOf(at)->stage = kDeferredTaken;
            ListEnqueueUnprot(&work_, at);
        }
        at = next;
    }
    return delay;
}

void FuncPassT::FreeCurrent() {
    if (current_ != nullptr) {
        FreeFunc(current_);
        current_ = nullptr;
        runs_++;
    }
}

ModDeferredFuncT* FuncPassT::Next() {
    const SemGuardT lock(deferredFuncRegion);
    FreeCurrent();
    current_ = FuncOf(ListDequeueUnprot(&work_));
    if (current_ != nullptr) {
        current_->stage = kDeferredRunning;
    }
    return current_;
}

// What is left here was cut off by the end of the task: its last pass shall find it.
FuncPassT::~FuncPassT() {
    const SemGuardT lock(deferredFuncRegion);
    FreeCurrent();
    while (ListT* last = ListLastElement(work_)) {
        ListExtractUnprot(&work_, last);
        FuncOf(last)->stage = kDeferredPending;
        ListPushUnprot(&gPendDeferredFuncList, last);
    }
    DFStatsT* stats = StatsOf(self_, false);
    if (stats != nullptr) {
        const auto runs = static_cast<UInt32>(runs_);
        stats->queued -= runs < stats->queued ? runs : stats->queued;
    }
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

eErrorT ModDeferFunctionCall(UInt32 taskID, DeferredFuncPtrT pFunc, void* userDefined, void* pArgs,
                             int argLen) {
    ModAssert(pFunc);
    ModAssertText(static_cast<size_t>(argLen) <= sizeof(ModDeferredFuncT::args),
                  "argLen <= sizeof(pDeferredFunc->args)");
    ModSetUp();
    CheckFuncsLow();
    const FuncRequestT request = {taskID != 0 ? taskID : ModSelf(), pFunc, userDefined, pArgs,
                                  static_cast<size_t>(argLen)};
    TicketT ticket;
    QueuedT result = QueueWaiting(request, &ticket);
    if (result == QueuedT::kQueued && ev_send(request.taskID, kModEventDeferredFunc) != kTaskOk &&
        Unqueue(ticket)) {
        result = QueuedT::kNoTask;
    }
    if (result != QueuedT::kQueued) {
        logcrit("MOD", "can't defer function call to task %4.4s, it doesn't exist\n",
                TaskNameT(taskID).Text());
        return kBadParameter;
    }
    return kNoError;
}

int ModSearchDeferredFunction(ListCompareFuncPtrT pCompareFunc, void* pUserDefined1,
                              void* pUserDefined2) {
    const UInt32 self = ModSelf();
    if (self == 0) {
        return 0;
    }
    ModSetUp();
    FuncPassT pass(self);
    const UInt32 delay = pass.Collect(pCompareFunc != nullptr ? pCompareFunc : TakeAll,
                                      pUserDefined1, pUserDefined2);
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
    const SemGuardT lock(deferredFuncRegion);
    int count = 0;
    for (const ModDeferredFuncT& block : gFreeDeferredFuncs) {
        count += block.stage != kDeferredFree && block.pFunc == pFunc &&
                 block.userDefined == userDefined;
    }
    return count;
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
                    DropFunc(&block);
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
    // The task may have been deleted by another the moment it began to end by itself; what it has
    // to finish is not cut short by that. Nothing follows that could need cancellation again.
    int ignored;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
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
