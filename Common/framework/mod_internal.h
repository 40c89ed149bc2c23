// What the source files of the module service share among themselves.
#pragma once

#include <pthread.h>

#include <bit>

#include "Common/OS/assertion.h"
#include "Common/OS/types.h"
#include "Common/framework/mod.h"
#include "Common/framework/sharedfield.h"

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
    if (FieldRead(pMod->initializedSig) != kModSignature) [[unlikely]] {
        ModReportBad(pMod);
    }
}

// Makes the process-wide state, the first time.
void ModSetUp();

// Held while ModInit fills a header, and by who walks the module table while he looks at one: the
// record of a variable serves another one after its end, and is seen as the one or the other.
extern pthread_mutex_t gModHeaderMutex;

// One past the highest slot of gMods that was ever used.
int ModTableEnd();

// The calling task's id, 0 when it is no task.
UInt32 ModSelf();

// A used callback slot, and which use of its task's id registered it.
struct ModListenerT {
    ModCallbackT callback;
    UInt32 use;
};

// Queues a callback for the task that registered it. With that task gone it is lost.
void ModDeferCallback(const ModListenerT& listener, ModT* pMod, UInt32 funcIndex, const void* pArgs,
                      int argLen);
void ModSetUpCallbacks();

// ModDeferFunctionCall to one use of a task's id (t_incarnation): refused as for a task that does
// not exist when the id serves another task by now.
eErrorT ModDeferToUse(UInt32 taskID, UInt32 use, DeferredFuncPtrT pFunc, void* userDefined,
                      const void* pArgs, int argLen);

// Milliseconds since start after which deferred calls are counted: the rush at start-up is not.
// Set by tests only.
extern UInt32 gModStatsAfter;
