// Dumps of modules and of pending deferred calls, on standard output.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/procinfo.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/system.h"
#include "Common/framework/address.h"
#include "Common/framework/mod.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"
#include "Common/framework/sharedfield.h"
#include "Common/framework/taskname.h"

namespace {

constexpr int kSlotsPerPause = 100;
constexpr UInt32 kPause = 10;  // ticks

// Calls `visit` for each registered module from slot `begin` up to but excluding `end`.
template <typename VisitT>
void ForEachModule(int begin, int end, VisitT visit) {
    for (int i = begin; i < end && i < ModTableEnd(); i++) {
        ModT* pMod = gMods[i];
        if (pMod != nullptr) {
            visit(pMod);
        }
        if ((i + 1) % kSlotsPerPause == 0) {
            tm_wkafter(kPause);
        }
    }
}

bool IsNamed(const ModT* pMod, const char* pName) {
    const MutexGuardT lock(&gModHeaderMutex);
    return strncasecmp(pMod->name, pName, kModNameLen) == 0;
}

void DumpCallbacks(ModT* pMod) {
    const SemGuardT lock(callbackSemaphore);
    bool any = false;
    for (int i = 0; i < FieldRead(pMod->numCallbacks); i++) {
        const ModCallbackT& slot = pMod->pCallbacks[i];
        if (slot.pFunc != nullptr) {
            printf("%s%d:0x%x ", any ? "" : "  callbacks: ", static_cast<int>(slot.funcIndex),
                   shown_address(slot.pFunc));
            any = true;
        }
    }
    if (any) {
        putchar('\n');
    }
}

// What the dump shows of one pending call.
struct ShownCallT {
    UInt32 pFunc;
    UInt32 taskID;
    UInt32 time;
    UInt32 userDefined;
};

// Copies the pending calls and the statistics, so that nothing is printed with the region held.
int CopyPending(ShownCallT* calls, DFStatsT* stats) {
    const SemGuardT lock(deferredFuncRegion);
    int count = 0;
    for (ListT* at = gPendDeferredFuncList; at != nullptr && count < kModNumDeferredFuncs;
         at = ListNextElement(gPendDeferredFuncList, at)) {
        const auto* block = reinterpret_cast<ModDeferredFuncT*>(at);
        calls[count++] = {shown_address(block->pFunc), block->taskID, block->time,
                          shown_address(block->userDefined)};
    }
    memcpy(stats, DFStats, sizeof(DFStats));
    return count;
}

void DumpStats(const DFStatsT* stats) {
    puts("task   min   max   avg  runs    total  in queue");
    puts("---- ----- ----- ----- ----- --------  --------");
    puts("DFC task rsp time min/max/avg runs  in queue");
    puts("DFC ---- -------------------- ----- --------");
    for (int i = 0; i < kModNumDFStats; i++) {
        const DFStatsT& entry = stats[i];
        if (entry.taskID != 0) {
            printf("DFC %4.4s    %5d %5d %5d %5d %8d\n", TaskNameT(entry.taskID).Text(),
                   static_cast<int>(entry.minTime), static_cast<int>(entry.maxTime),
                   entry.runs != 0 ? static_cast<int>(entry.totTime / entry.runs) : 0,
                   static_cast<int>(entry.runs), static_cast<int>(entry.queued));
        }
    }
}

}  // namespace

void ModDumpHeading() {
    puts("Module               address  task flags");
    puts("-------------------- -------- ---- -----");
}

eErrorT ModDump(ModT* pMod, int) {
    ModCheck(pMod);
    char name[sizeof(pMod->fullname)];
    UInt32 taskID;
    {
        const MutexGuardT lock(&gModHeaderMutex);
        memcpy(name, ModName(pMod), sizeof(name));
        taskID = pMod->taskID;
    }
    printf("%-20.20s %8x %4.4s %c%c   \n", name, shown_address(pMod), TaskNameT(taskID).Text(),
           (FieldRead(pMod->flags) & kModFlagAllocated) != 0 ? 'A' : ' ',
           FieldRead(pMod->initializedSig) == kModSignature ? 'I' : ' ');
    DumpCallbacks(pMod);
    return kNoError;
}

void ModDumpAll() {
    printf("%d modules\n", numMods.load());
    ModDumpHeading();
    ForEachModule(0, kModMaxModules, [](ModT* pMod) { FieldRead(pMod->Dump)(pMod, 0); });
}

eErrorT ModDumpByName(const char* pName, int instance) {
    ModAssert(pName);
    if (instance != kModAnyInstance) {
        ModT* pMod = ModFindByName(pName, instance);
        if (pMod == nullptr) {
            return kBadParameter;
        }
        FieldRead(pMod->DumpHeading)();
        return FieldRead(pMod->Dump)(pMod, 1);
    }
    bool any = false;
    ForEachModule(0, kModMaxModules, [pName, &any](ModT* pMod) {
        if (IsNamed(pMod, pName)) {
            if (!any) {
                FieldRead(pMod->DumpHeading)();
            }
            any = true;
            FieldRead(pMod->Dump)(pMod, 0);
        }
    });
    return any ? kNoError : kBadParameter;
}

eErrorT ModDumpRange(int processor, int offset, int range) {
    if (processor < 0 || processor > static_cast<int>(GetNumProcessors())) {
        return kBadParameter;
    }
    if (processor == static_cast<int>(GetProcessorNum())) {
        ForEachModule(offset > 0 ? offset : 0, range,
                      [](ModT* pMod) { FieldRead(pMod->Dump)(pMod, 0); });
    }
    return kNoError;
}

int ModCompare(const void* ppMod1, const void* ppMod2) {
    return strcmp(ModName(*static_cast<ModT* const*>(ppMod1)),
                  ModName(*static_cast<ModT* const*>(ppMod2)));
}

void ModDumpDeferredFuncList() {
    ModSetUp();
    ShownCallT calls[kModNumDeferredFuncs];
    DFStatsT stats[kModNumDFStats];
    const int count = CopyPending(calls, stats);
    printf("DFC List %d entries, max %d (current task %4.4s)\n", count, DFCListMax.load(),
           TaskNameT(0).Text());
    DumpStats(stats);
    UInt32 previous = 0;
    for (int i = 0; i < count; i++) {
        const ShownCallT& call = calls[i];
        printf("%d: DFC  func 0x%0x task %4.4s @ %dmS (%dms)  0x%0x\n", i, call.pFunc,
               TaskNameT(call.taskID).Text(), static_cast<int>(call.time),
               static_cast<int>(RealTimeMilliSeconds() - call.time), call.userDefined);
        if (call.taskID != previous) {
            stackBackTrace(call.taskID);
        }
        previous = call.taskID;
    }
}
