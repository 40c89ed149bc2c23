// What the source files of the module service share among themselves.
#pragma once

#include <bit>

#include "Common/OS/assertion.h"
#include "Common/OS/types.h"
#include "Common/framework/mod.h"

// Assertions of every file of the service name the service.
#define ModAssert(condition) ModAssertText(condition, #condition)
#define ModAssertText(condition, text) \
    ((condition) ? (void)0 : OsAssertFailed((text), "Common/framework/mod.cpp", __LINE__, __func__))

struct ModSignatureTextT {
    char text[4];
};
constexpr UInt32 kModSignature = std::bit_cast<UInt32>(ModSignatureTextT{{'C', 'R', 'V', 'N'}});

// Ends the program, after a line that shows the address, unless `pMod` is an initialised module.
[[noreturn]] void ModReportBad(const ModT* pMod);
inline void ModCheck(const ModT* pMod) {
    ModAssert(pMod);
    if (pMod->initializedSig != kModSignature) [[unlikely]] {
        ModReportBad(pMod);
    }
}

// Makes the process-wide state, the first time.
void ModSetUp();

// One past the highest slot of gMods that was ever used.
int ModTableEnd();

// The calling task's id, 0 when it is no task.
UInt32 ModSelf();

// Queues a callback for the task that registered it.
void ModDeferCallback(const ModCallbackT& slot, ModT* pMod, UInt32 funcIndex, const void* pArgs,
                      int argLen);
void ModSetUpCallbacks();

// Milliseconds since start after which deferred calls are counted: the rush at start-up is not.
// Set by tests only.
extern UInt32 gModStatsAfter;

// Whom a pool waits for: the task of its oldest pending block.
struct ModOldestT {
    UInt32 taskID;
    int age;  // ms
};
