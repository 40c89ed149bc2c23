// Deferred callbacks: callbacks on their way to the task that registered them. Blocks are kept as
// those of deferred function calls are; see there.
#include <stdio.h>
#include <string.h>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"
#include "Common/framework/taskname.h"

ModDeferredCallbackT gFreeDeferredCallbacks[kModNumDeferredCallbacks];
ListT* gFreeDeferredCallbackList;
ListT* gPendDeferredCallbackList;
std::atomic<int> gFreeDCBsAvailable{0};
std::atomic<char> gFreeDCBLowLevelMarkPassed{0};
UInt32 deferredCallbackRegion;

namespace {

constexpr int kCallbacksLow = 33;  // fewer free blocks than these: the pool is low
constexpr int kCallbacksRecovered = 63;
constexpr UInt32 kLastWait = 50;  // ticks for the log to come out before the end

ModDeferredCallbackT* CallbackOf(ListT* node) {
    return reinterpret_cast<ModDeferredCallbackT*>(node);
}

// The target and the age of the oldest pending callback; false when none is pending.
bool OldestCallback(ModOldestT* oldest) {
    const SemGuardT lock(deferredCallbackRegion);
    if (gPendDeferredCallbackList == nullptr) {
        return false;
    }
    const ModDeferredCallbackT* first = CallbackOf(gPendDeferredCallbackList);
    *oldest = {first->callback.destTaskID, static_cast<int>(RealTimeMilliSeconds() - first->time)};
    return true;
}

// Puts a block on the free list; deferredCallbackRegion is held.
void FreeCallback(ModDeferredCallbackT* block) {
    block->stage = kDeferredFree;
    ListEnqueueUnprot(&gFreeDeferredCallbackList, &block->list);
    gFreeDCBsAvailable.fetch_add(1, std::memory_order_relaxed);
}

// Frees the pending blocks whose task went without serving them.
void ReclaimCallbacks() {
    const SemGuardT lock(deferredCallbackRegion);
    int left = ListLenUnprot(&gPendDeferredCallbackList);
    for (ListT* at = gPendDeferredCallbackList; left > 0; left--) {
        ListT* next = at->next;
        const ModDeferredCallbackT* block = CallbackOf(at);
        if (t_incarnation(block->callback.destTaskID) != block->incarnation) {
            ListExtractUnprot(&gPendDeferredCallbackList, at);
            FreeCallback(CallbackOf(at));
        }
        at = next;
    }
}

// The deferred callbacks that one pass serves.
class CallbackPassT {
  public:
    explicit CallbackPassT(UInt32 self);
    ~CallbackPassT();
    CallbackPassT(const CallbackPassT&) = delete;
    CallbackPassT& operator=(const CallbackPassT&) = delete;

    ModDeferredCallbackT* Next();
    int Runs() const { return runs_; }

  private:
    void FreeCurrent();

    ListT* work_ = nullptr;
    ModDeferredCallbackT* current_ = nullptr;
    int runs_ = 0;
};

CallbackPassT::CallbackPassT(UInt32 self) {
    const SemGuardT lock(deferredCallbackRegion);
    const UInt32 incarnation = t_incarnation(0);
    int left = ListLenUnprot(&gPendDeferredCallbackList);
    for (ListT* at = gPendDeferredCallbackList; left > 0; left--) {
        ListT* next = at->next;
        const ModDeferredCallbackT* block = CallbackOf(at);
        if (block->callback.destTaskID == self && block->incarnation == incarnation) {
            ListExtractUnprot(&gPendDeferredCallbackList, at);
            CallbackOf(at)->stage = kDeferredTaken;
            ListEnqueueUnprot(&work_, at);
        }
        at = next;
    }
}

void CallbackPassT::FreeCurrent() {
    if (current_ != nullptr) {
        FreeCallback(current_);
        current_ = nullptr;
        runs_++;
    }
}

ModDeferredCallbackT* CallbackPassT::Next() {
    const SemGuardT lock(deferredCallbackRegion);
    FreeCurrent();
    current_ = CallbackOf(ListDequeueUnprot(&work_));
    return current_;
}

CallbackPassT::~CallbackPassT() {
    const SemGuardT lock(deferredCallbackRegion);
    FreeCurrent();
    while (ListT* last = ListLastElement(work_)) {
        ListExtractUnprot(&work_, last);
        CallbackOf(last)->stage = kDeferredPending;
        ListPushUnprot(&gPendDeferredCallbackList, last);
    }
}

// The flag that is set is that of the deferred functions, so this report comes again with every
// deferred callback while the pool is low: on purpose.
void CheckCallbacksLow() {
    const int available = gFreeDCBsAvailable.load(std::memory_order_relaxed);
    if (available < kCallbacksLow &&
        gFreeDCBLowLevelMarkPassed.load(std::memory_order_relaxed) == 0) {
        ModOldestT oldest;
        if (OldestCallback(&oldest)) {
            printf("task %4.4s has not responded to DCBs for %dmS\n",
                   TaskNameT(oldest.taskID).Text(), oldest.age);
        } else {
            puts("ModCallCallbacks: list is empty");
        }
        osTaskUsage();
        gFreeDeferredFuncsLowWaterMarkPassed.store(1, std::memory_order_relaxed);
    } else if (available > kCallbacksRecovered &&
               gFreeDCBLowLevelMarkPassed.load(std::memory_order_relaxed) == 1) {
        loginfo("MOD", "releasing low water mark, more than %d function call blocks remain\n",
                available);
        gFreeDCBLowLevelMarkPassed.store(0, std::memory_order_relaxed);
    }
}

// What a block says of its callback.
struct CallbackHeaderT {
    ModCallbackT callback;
    ModT* pMod;
    UInt32 funcIndex;
    UInt32 time;
};

// A queued callback's block, and which use of the block it is.
struct TicketT {
    ModDeferredCallbackT* block;
    UInt32 serial;
};

// Fills and queues a block; false when none is free. A task that is gone gets none: the ticket's
// block is then null.
bool Queue(const CallbackHeaderT& header, const void* pArgs, size_t length, TicketT* ticket) {
    const SemGuardT lock(deferredCallbackRegion);
    *ticket = {};
    if (gFreeDeferredCallbackList == nullptr) {
        return false;
    }
    if (t_is_open(header.callback.destTaskID) == 0) {
        return true;
    }
    ModDeferredCallbackT* block = CallbackOf(ListDequeueUnprot(&gFreeDeferredCallbackList));
    block->callback = header.callback;
    block->pMod = header.pMod;
    block->funcIndex = header.funcIndex;
    block->time = header.time;
    block->incarnation = t_incarnation(header.callback.destTaskID);
    if (pArgs != nullptr) {
        memcpy(block->args, pArgs, length);
    }
    block->stage = kDeferredPending;
    block->serial++;
    ListEnqueueUnprot(&gPendDeferredCallbackList, &block->list);
    gFreeDCBsAvailable.fetch_sub(1, std::memory_order_relaxed);
    *ticket = {block, block->serial};
    return true;
}

// Takes a callback back unless it was served meanwhile.
void Unqueue(const TicketT& ticket) {
    const SemGuardT lock(deferredCallbackRegion);
    if (ticket.block->serial == ticket.serial && ticket.block->stage == kDeferredPending) {
        ListExtractUnprot(&gPendDeferredCallbackList, &ticket.block->list);
        FreeCallback(ticket.block);
    }
}

[[noreturn]] void OutOfCallbacks(ModT* pMod, UInt32 funcIndex) {
    ModLog(pMod, kLogWarning, "can't call callback for func %d, out of callback blocks\n",
           static_cast<int>(funcIndex));
    ModOldestT oldest;
    if (OldestCallback(&oldest)) {
        printf("ERROR, task %4.4s has not responded to deferred callbacks for %dmS\n",
               TaskNameT(oldest.taskID).Text(), oldest.age);
    }
    osTaskDump();
    tm_wkafter(kLastWait);
    OsAssertFailed("pDeferredCallback", "Common/framework/mod.cpp", __LINE__, "ModCallCallbacks");
}

}  // namespace

void ModSetUpCallbacks() {
    ModAssert(sm_create("#region", 1, 0, &deferredCallbackRegion) == kSmOk);
    const SemGuardT lock(deferredCallbackRegion);
    for (ModDeferredCallbackT& block : gFreeDeferredCallbacks) {
        ListEnqueueUnprot(&gFreeDeferredCallbackList, &block.list);
    }
    gFreeDCBsAvailable.store(kModNumDeferredCallbacks, std::memory_order_relaxed);
}

void ModDeferCallback(const ModCallbackT& slot, ModT* pMod, UInt32 funcIndex, const void* pArgs,
                      int argLen) {
    ModAssertText(slot.destTaskID != 0, "callback.destTaskID != 0");
    CheckCallbacksLow();
    const size_t length = argLen < 0             ? 0
                          : argLen > kModMaxArgs ? static_cast<size_t>(kModMaxArgs)
                                                 : static_cast<size_t>(argLen);
    const CallbackHeaderT header = {slot, pMod, funcIndex, RealTimeMilliSeconds()};
    TicketT ticket;
    if (!Queue(header, pArgs, length, &ticket)) {
        ReclaimCallbacks();
        if (!Queue(header, pArgs, length, &ticket)) {
            OutOfCallbacks(pMod, funcIndex);
        }
    }
    if (ticket.block != nullptr && ev_send(slot.destTaskID, kModEventDeferredCallback) != kTaskOk) {
        Unqueue(ticket);
    }
}

int ModProcessDeferredCallbacks() {
    const UInt32 self = ModSelf();
    if (self == 0) {
        return 0;
    }
    ModSetUp();
    CallbackPassT pass(self);
    while (ModDeferredCallbackT* block = pass.Next()) {
        const ModCallbackT& callback = block->callback;
        if (callback.pFunc != nullptr) {
            callback.pFunc(block->pMod, block->funcIndex, callback.userDefined, block->args);
        }
    }
    return pass.Runs();
}

int ModCountDeferredCallbacks(const ModT* pMod) {
    ModSetUp();
    const SemGuardT lock(deferredCallbackRegion);
    int count = 0;
    for (const ModDeferredCallbackT& block : gFreeDeferredCallbacks) {
        count += block.stage != kDeferredFree && block.pMod == pMod;
    }
    return count;
}
