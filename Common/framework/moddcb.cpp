// Deferred callbacks: callbacks on their way to the task that registered them.
#include <stdio.h>
#include <string.h>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/taskinfo.h"
#include "Common/framework/moddeferpool.h"
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

struct CallbacksT {
    using BlockT = ModDeferredCallbackT;
    static auto& Blocks() { return gFreeDeferredCallbacks; }
    static ListT*& Free() { return gFreeDeferredCallbackList; }
    static ListT*& Pending() { return gPendDeferredCallbackList; }
    static std::atomic<int>& Available() { return gFreeDCBsAvailable; }
    static UInt32& Region() { return deferredCallbackRegion; }
    static UInt32 TaskOf(const BlockT& block) { return block.callback.destTaskID; }
    static void Dropped(const BlockT&) {}
    static void Served(UInt32, int) {}
};

using PoolT = DeferredPoolT<CallbacksT>;

// The flag that is set is that of the deferred functions, so this report comes again with every
// deferred callback while the pool is low: on purpose.
void CheckCallbacksLow() {
    const int available = gFreeDCBsAvailable;
    if (available < kCallbacksLow && gFreeDCBLowLevelMarkPassed == 0) {
        ModOldestT oldest;
        if (PoolT::Oldest(&oldest)) {
            printf("task %4.4s has not responded to DCBs for %dmS\n",
                   TaskNameT(oldest.taskID).Text(), oldest.age);
        } else {
            puts("ModCallCallbacks: list is empty");
        }
        osTaskUsage();
        gFreeDeferredFuncsLowWaterMarkPassed = 1;
    } else if (available > kCallbacksRecovered && gFreeDCBLowLevelMarkPassed == 1) {
        loginfo("MOD", "releasing low water mark, more than %d function call blocks remain\n",
                available);
        gFreeDCBLowLevelMarkPassed = 0;
    }
}

[[noreturn]] void OutOfCallbacks(ModT* pMod, UInt32 funcIndex) {
    ModLog(pMod, kLogWarning, "can't call callback for func %d, out of callback blocks\n",
           static_cast<int>(funcIndex));
    ModOldestT oldest;
    if (PoolT::Oldest(&oldest)) {
        printf("ERROR, task %4.4s has not responded to deferred callbacks for %dmS\n",
               TaskNameT(oldest.taskID).Text(), oldest.age);
    }
    osTaskDump();
    tm_wkafter(kLastWait);
    OsAssertFailed("pDeferredCallback", "Common/framework/mod.cpp", __LINE__, "ModCallCallbacks");
}

}  // namespace

void ModSetUpCallbacks() {
    PoolT::SetUp();
}

void ModDeferCallback(const ModListenerT& listener, ModT* pMod, UInt32 funcIndex, const void* pArgs,
                      int argLen) {
    const UInt32 task = listener.callback.destTaskID;
    ModAssertText(task != 0, "callback.destTaskID != 0");
    CheckCallbacksLow();
    const int length = argLen < 0 ? 0 : argLen > kModMaxArgs ? kModMaxArgs : argLen;
    const auto fill = [&](ModDeferredCallbackT* block) {
        block->callback = listener.callback;
        block->pMod = pMod;
        block->funcIndex = funcIndex;
        block->time = RealTimeMilliSeconds();
        if (pArgs != nullptr) {
            memcpy(block->args, pArgs, static_cast<size_t>(length));
        }
    };
    QueuedT queued = PoolT::Queue(task, listener.use, fill);
    if (queued == QueuedT::kNoBlock) {
        PoolT::Reclaim();
        queued = PoolT::Queue(task, listener.use, fill);
    }
    if (queued == QueuedT::kNoBlock) {
        OutOfCallbacks(pMod, funcIndex);
    }
    if (queued == QueuedT::kQueued) {
        ev_send(task, kModEventDeferredCallback);
    }
}

int ModProcessDeferredCallbacks() {
    const UInt32 self = ModSelf();
    if (self == 0) {
        return 0;
    }
    ModSetUp();
    PoolT::PassT pass(self);
    pass.Collect([](ModDeferredCallbackT*) { return kModSearchTake; });
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
    return PoolT::Count([pMod](const ModDeferredCallbackT& block) { return block.pMod == pMod; });
}
