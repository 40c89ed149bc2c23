// Modules: the unit of which every service is built, and the two ways in which work crosses tasks.
//
// A service's record begins with a ModT named `mod`. The module belongs to the task that
// initialised it. Other tasks reach it without locks: a deferred function call runs a function with
// a copied argument block in another task; a callback registered on a module runs, when its event
// is fired, in the firing task or (deferred) in the task that registered it. Deferred work is
// announced by task events; a task that hosts modules loops over ev_receive and ModProcessEvents,
// which ModTaskLoop does. Any thread may call what follows unless a comment says otherwise.
// Deferred work never allocates: it lives in pools made by the first module.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/log.h"
#include "Common/OS/types.h"
#include "Common/framework/list.h"

// Sizes of the fixed tables and pools.
constexpr int kModMaxModules = 4000;
constexpr int kModNumDeferredFuncs = 384;
constexpr int kModNumDeferredCallbacks = 256;
constexpr int kModNumDFStats = 100;
constexpr int kModNumTraceFilters = 10;
constexpr int kModTraceFilterLen = 32;
constexpr int kModNameLen = 32;
// The most bytes of arguments that a deferred call or callback carries.
constexpr int kModMaxArgs = 1024;

// Task event bits of the framework.
constexpr UInt32 kModEventTimer = 0x01;             // timers of this task have expired
constexpr UInt32 kModEventExit = 0x02;              // leave the loop and delete the task
constexpr UInt32 kModEventDeferredFunc = 0x08;      // deferred function calls are pending
constexpr UInt32 kModEventDeferredCallback = 0x10;  // deferred callbacks are pending
constexpr UInt32 kModEventsAll = 0xFFFF;            // what a module task waits for

// ModT::flags.
constexpr UInt32 kModFlagAllocated = 0x1;   // an instance that the module manager allocated
constexpr UInt32 kModFlagRegistered = 0x2;  // between ModInit and ModExit
constexpr UInt32 kModFlagLogOwner = 0x4;    // log lines name the owner too

// whenFlags of a callback.
constexpr UInt32 kModCallbackDeferred = 0x1;  // run in the registering task

// The event number of exceptions.
constexpr UInt32 kModExceptionIndex = 0x7fffffff;

// The instance number that stands for any in searches.
constexpr int kModAnyInstance = -1;

struct ModS;
struct ModDBEntryS;

// On which side of a link to another processor a module stands.
typedef enum : UInt32 { kProxyLocal = 0, kProxyClient = 1, kProxyServer = 2 } eProxyNodeT;

// A module's proxy state: zero for a local module that no other processor reaches.
typedef struct ModProxyS {
    eProxyNodeT nodeType;
    struct ModDBEntryS* pModDBEntry;  // the module's type
    void* pLegacyFuncTbl;
    void* pIPC;  // the channel, the transport's own
    ListT* readIORBList;
    ListT* writePendingIORBList;
    ListT* writeIORBList;
    void* remHandle;  // the module itself when local, the transport's name of the peer when not
    void* pRemoteBufCache;
} ModProxyT;

// A callback: called with the module, the event, what was given on registration, and the event's
// arguments (a copy when deferred; valid during the call).
typedef void (*CallbackFuncPtrT)(struct ModS* pMod, UInt32 funcIndex, void* userDefined,
                                 void* pArgs);

// A deferred function: called with what was given and its argument block (valid during the call,
// aligned to 8, kModMaxArgs bytes long).
typedef void (*DeferredFuncPtrT)(void* userDefined, void* pArgs);

// One callback slot of a module. Slots are read without a lock; all access is in mod.
typedef struct ModCallbackS {
    CallbackFuncPtrT pFunc;  // null: a free slot
    void* userDefined;
    UInt32 whenFlags;
    UInt32 destTaskID;  // runs the callback when it is deferred
    UInt32 funcIndex;   // the event that it listens to
} ModCallbackT;

// The module header. The owner zero-fills its record before ModInit and may preset the operations
// marked so, and processorNum.
// The fields' order is fixed. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
typedef struct ModS {
    ListT list;
    eErrorT (*Exit)(struct ModS* pMod);
    eErrorT (*CallCallbacks)(struct ModS* pMod, UInt32 funcIndex, void* pArgs,
                             int argLen);  // may be preset
    eErrorT (*ThrowException)(struct ModS* pMod, UInt32 ExceptionIndex, const char* description,
                              void* pArgs, int argLen);  // may be preset
    eErrorT (*Dump)(struct ModS* pMod, int verbose);
    void (*DumpHeading)();
    eErrorT (*SetOwner)(struct ModS* pMod, struct ModS* pOwner);  // may be preset
    struct ModS* (*GetOwner)(struct ModS* pMod);                  // may be preset
    eErrorT (*DebugCmd)(struct ModS* pMod, char* pArgs);          // may be preset
    UInt32 initializedSig;  // the characters "CRVN" in memory order once initialised
    UInt32 flags;
    char name[kModNameLen + 1];
    int instance;
    char fullname[42];  // "name[instance]", kept by ModName
    struct ModS* pOwner;
    void* pPrivate;       // the service's own
    UInt32 taskID;        // the home task: the one that called ModInit
    UInt32 id;            // assigned by the service, never by the framework
    UInt32 type;          // the same
    UInt32 subType;       // the same
    UInt32 processorNum;  // where the module lives
    ModProxyT proxy;
    ModCallbackT* pCallbacks;  // growable array, null until the first registration
    int numCallbacks;          // its slots, used or not
} ModT;

// Where a deferred call's block is; private to the service.
typedef enum : UInt32 {
    kDeferredFree = 0,
    kDeferredPending = 1,  // on the pending list
    kDeferredTaken = 2,    // on its task's work list
    kDeferredRunning = 3
} DeferredStageT;

// The fields' order is fixed. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
typedef struct ModDeferredFuncS {
    ListT list;
    UInt32 taskID;  // the task that runs it
    DeferredFuncPtrT pFunc;
    void* userDefined;
    UInt32 time;                                 // milliseconds at queueing
    alignas(8) unsigned char args[kModMaxArgs];  // a copy of the caller's
    DeferredStageT stage;                        // private
    UInt32 incarnation;                          // private: which use of the task's id
} ModDeferredFuncT;

typedef struct ModDeferredCallbackS {
    ListT list;
    ModCallbackT callback;  // a copy of the slot
    ModT* pMod;
    UInt32 funcIndex;
    UInt32 time;
    alignas(8) unsigned char args[kModMaxArgs];
    // Private, as above:
    DeferredStageT stage;
    UInt32 incarnation;
} ModDeferredCallbackT;

// Deferred-call statistics of one task, in milliseconds.
typedef struct DFStatsS {
    UInt32 taskID;     // 0: a free entry
    UInt32 eventTime;  // when the last unserved call was queued, 0 when none is
    UInt32 minTime;    // between queueing and service; 0xFFFFFFFF before the first
    UInt32 maxTime;
    UInt32 totTime;
    UInt32 runs;
    UInt32 queued;  // calls queued and not yet run
} DFStatsT;

// The module table (null: a free slot) and the number of modules in it.
extern std::atomic<ModT*> gMods[kModMaxModules];
extern std::atomic<int> numMods;

// Pools and lists of deferred calls (under deferredFuncRegion) and callbacks (under
// deferredCallbackRegion), their free counts and low-water flags.
extern ModDeferredFuncT gFreeDeferredFuncs[kModNumDeferredFuncs];
extern ListT* gFreeDeferredFuncList;
extern ListT* gPendDeferredFuncList;
extern std::atomic<int> gFreeDeferredFuncsAvailable;
extern std::atomic<char> gFreeDeferredFuncsLowWaterMarkPassed;
extern ModDeferredCallbackT gFreeDeferredCallbacks[kModNumDeferredCallbacks];
extern ListT* gFreeDeferredCallbackList;
extern ListT* gPendDeferredCallbackList;
extern std::atomic<int> gFreeDCBsAvailable;
extern std::atomic<char> gFreeDCBLowLevelMarkPassed;
extern DFStatsT DFStats[kModNumDFStats];  // under deferredFuncRegion
extern std::atomic<int> DFCListMax;       // the most call blocks ever in use

// Module names whose log lines are let through; with none set all are.
extern char traceFilters[kModNumTraceFilters][kModTraceFilterLen];
extern std::atomic<int> NumTraceFilters;

// Semaphores, created by the first ModInit.
extern UInt32 deferredFuncRegion;
extern UInt32 deferredCallbackRegion;
extern UInt32 callbackSemaphore;

extern const char* const ModExceptionString[1];

// Initialises and registers a module; `pName` (at most 32 characters count) and `instance` name it,
// `pOwner` is the owning ModT or null. The calling task becomes its home task. The record stays the
// caller's and must outlive ModExit. When all 4000 slots are taken the module works but cannot be
// found; nothing reports it. The process's first ModInit makes the pools. Always kNoError.
eErrorT ModInit(ModT* pMod, const char* pName, int instance, void* pOwner);

// Ends a module: deletes its callbacks and takes it out of the module table. Work already deferred
// with it still arrives. The record may be initialised again. Always kNoError.
eErrorT ModExit(ModT* pMod);

// The module's own words: its id, the processor it lives on, its owner.
UInt32 ModID(ModT* pMod);
UInt32 ModGetProcNum(ModT* pMod);
ModT* ModGetOwner(ModT* pMod);
eErrorT ModSetOwner(ModT* pMod, ModT* pOwner);  // always kNoError

// "name[instance]", in the module's own buffer; "none" for a null module.
const char* ModName(ModT* pMod);

// The first registered module of that name (without regard to case, over at most 32 characters)
// and instance (kModAnyInstance: any); null if there is none. Walks the module table, no lock.
ModT* ModFindByName(const char* pName, int instance);

// Registers a callback for an event of a module. With kModCallbackDeferred in `whenFlags` it runs
// in the calling task (ModAddCallbackToTask: in `taskID`, 0 being the caller), else in whichever
// task fires the event. The same function, user data and event registered again change nothing,
// unless the task that a deferred one belongs to is gone: then it belongs to the new one. May
// allocate. Returns kNoError; memory exhausted is a failed assertion.
eErrorT ModAddCallback(ModT* pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void* userDefined,
                       UInt32 whenFlags);
eErrorT ModAddCallbackToTask(ModT* pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc,
                             void* userDefined, UInt32 whenFlags, UInt32 taskID);

// The same, deferred, for the module's exceptions.
eErrorT ModAddExceptionHandler(ModT* pMod, CallbackFuncPtrT pFunc, void* userDefined);

// Takes a callback off a module. A firing under way in another task, and what is deferred already,
// may still reach it. Returns kNoError, or kItemNotFound when no slot matches all three.
eErrorT ModDeleteCallback(ModT* pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void* userDefined);
eErrorT ModDeleteExceptionHandler(ModT* pMod, CallbackFuncPtrT pFunc, void* userDefined);

// Takes all callbacks off a module. Always kNoError.
eErrorT ModDeleteAllCallbacks(ModT* pMod);

// Fires an event: calls or defers each callback registered for `funcIndex`, in slot order. `argLen`
// bytes at `pArgs` travel to deferred ones, at most 1024, the rest is cut; null carries nothing. A
// deferred callback to a task that is gone is lost. Returns kNoError, or kItemNotFound when the
// caller is no task (nothing is called). With all 256 blocks in use it waits half a second and
// fails an assertion.
eErrorT ModCallCallbacks(ModT* pMod, UInt32 funcIndex, void* pArgs, int argLen);

// Traces an exception (an index of ModExceptionString) and fires it as event kModExceptionIndex.
// Always kNoError.
eErrorT ModThrowException(ModT* pMod, UInt32 ExceptionIndex, const char* description, void* pArgs,
                          int argLen);

// The default DebugCmd: does nothing. Always kNoError.
eErrorT ModDummyDebugCmd(ModT* pMod, char* pArgs);

// Runs `pFunc`(`userDefined`, copy of `argLen` bytes at `pArgs`) in task `taskID`. Returns at once
// with kNoError, or kBadParameter when the task does not exist (nothing is queued). More than 1024
// bytes fail an assertion. When all 384 blocks are in use it waits 100 ms for one, then a further
// half second, and fails an assertion.
eErrorT ModDeferFunctionCall(UInt32 taskID, DeferredFuncPtrT pFunc, void* userDefined, void* pArgs,
                             int argLen);

// Serves what the event bits announce, in this order: timers, deferred callbacks, deferred calls.
void ModProcessEvents(UInt32 events);

// Run the calling task's pending deferred calls, or callbacks, that were queued before the call.
// User functions run with no lock held and may queue more. Return the number run.
int ModProcessDeferredFunctions();
int ModProcessDeferredCallbacks();

// Result bits of a comparator of ModSearchDeferredFunction.
constexpr int kModSearchStop = 0x1;  // look at no further block
constexpr int kModSearchTake = 0x2;  // run this block

// Runs the calling task's pending deferred calls that `pCompareFunc`(block, u1, u2) takes (null:
// all). The comparator is called with the region held: it only looks. Returns the number run.
int ModSearchDeferredFunction(ListCompareFuncPtrT pCompareFunc, void* pUserDefined1,
                              void* pUserDefined2);

// Takes back, wherever they were sent, the deferred calls of `pFunc` with `userDefined` that have
// not begun, and waits for those that run in another task just now; afterwards nothing refers to
// what the calls would have used. Returns the number taken back. Not from within `pFunc`.
int ModCancelDeferredFunctions(DeferredFuncPtrT pFunc, void* userDefined);

// The number of deferred calls of `pFunc` with `userDefined` that wait or run.
int ModCountDeferredFunctions(DeferredFuncPtrT pFunc, void* userDefined);

// The number of deferred callbacks of a module that wait or run: while there is one, the module's
// record is still needed after ModExit.
int ModCountDeferredCallbacks(const ModT* pMod);

// The loop of a task that hosts modules: waits for events, serves them, and after a pass that had
// kModEventExit deletes the task. Returns only when the caller is no task.
void ModTaskLoop();

// Finishes a dying task's work: serves what is pending, stops its framework timers, frees its
// statistics. Runs in the dying task, registered with the task service by the first ModInit. The
// task's stack has unwound by then: what deferred work still refers to must not lie on it.
void t_delete_callback();

// Diagnostics, to standard output.
eErrorT ModDump(ModT* pMod, int verbose);
void ModDumpHeading();
void ModDumpAll();
void ModDumpDeferredFuncList();

// Dumps all instances of a name (kModAnyInstance) or one. kNoError, or kBadParameter if not found.
eErrorT ModDumpByName(const char* pName, int instance);

// Dumps the table's slots from `offset` up to but excluding `range`, on this processor. kNoError
// (also for another processor: nothing is printed), or kBadParameter for a processor number above
// the processor count.
eErrorT ModDumpRange(int processor, int offset, int range);

// Orders two ModT pointers, given by address, by "name[instance]": for qsort.
int ModCompare(const void* ppMod1, const void* ppMod2);

// Trace filters: once one is set, only modules of the names set are logged. Add returns kNoError,
// kOutOfMemory when all ten are used, or
// kBadParameter for an empty name; Delete ("*": all) kNoError, or kBadParameter if not set.
eErrorT ModTraceFilterAdd(const char* pName);
eErrorT ModTraceFilterDelete(const char* pName);

// Log a line for a module: ModLog puts the module's label in front of the text, ModTrace logs at
// debug level with the label as component. A null module, or one that is not initialised, is
// silently ignored; a null format is a failed assertion.
void ModTrace(ModT* pMod, const char* format, ...) __attribute__((format(printf, 2, 3)));
void ModLog(ModT* pMod, LogLevelT level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Copies `src` into the `destSize` bytes at `dest`; of a longer string the last destSize-1
// characters. Returns `dest`.
char* strEndCopy(char* dest, const char* src, int destSize);
