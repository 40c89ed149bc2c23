// The module manager: the database of module types, the instances allocated here, and the modules
// that other processors announced. It is itself a module, "ModMan", whose callbacks (event 0) carry
// a ModAddDelArgsT when a type or a remote module appears or goes. Any thread may call; calls wait
// for the manager's semaphore only, which is never held while another module's function runs.
#pragma once

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/hash.h"
#include "Common/framework/mod.h"
#include "Common/framework/proxy.h"

constexpr int gModDBSize = 10;        // tables of types
constexpr int kModEmptyEntries = 10;  // entries for types registered one by one
constexpr int kModMaxInstances = 1024;

// A type's initialisation: normally the service's own, which calls ModInit.
typedef eErrorT (*InitFuncPtrT)(ModT* pMod, const char* pName, int instance, void* pOwner);

// One module type. Static tables of types give name, size, function and proxy table, zeros else.
typedef struct ModDBEntryS {
    char name[kModNameLen + 1];  // at most 31 characters; empty: a free entry
    UInt32 instanceSize;         // bytes of an instance's record, which begins with a ModT
    InitFuncPtrT pInitFunc;
    const ProxyFuncTableT* pPFT;  // null: none
    HashTableT proxyFuncHash;     // the proxy server functions by name
    HashTableEntryT proxyFuncHashEntries[kHashEntries];
} ModDBEntryT;

typedef struct ModDBTableS {
    int numEntries;
    ModDBEntryT* pEntry;  // null: a free table
} ModDBTableT;

typedef struct ModManS {
    ModT mod;
    ModDBTableT* pModDB;  // gModDBSize tables
    UInt32 dbSemaphore;   // "modm": guards the database and the tables below
    ModT* pModInstance[kModMaxInstances];
    ModT* pRemModInst[kModMaxInstances];
    UInt8 nRemModProcNum[kModMaxInstances];
} ModManT;

// The manager's announcement.
typedef struct ModAddDelArgsS {
    int add;  // 1 added, 0 deleted
    char name[32];
    UInt32 procMap;  // left 0
} ModAddDelArgsT;

// Starts the manager, with one empty table of ten types. Always kNoError.
eErrorT ModManInit();

// Ends the manager: frees every instance (their modules end first) and the semaphore. Always
// kNoError.
eErrorT ModManExit();

ModManT* ModMan();

// Adds a static table of types, which stays the caller's. kNoError, or kOutOfMemory when all ten
// table places are used.
eErrorT ModDBAddTable(ModDBEntryT* pTable, int numEntries);

// Does nothing: types stay. Always kNoError.
eErrorT ModDBDelete(ModDBEntryT* pEntry);

// Adds a type and announces it. Returns its entry, the existing one for a name that is known
// (without regard to case), or null when the ten entries are used, the name is empty or the size
// less than a ModT's.
ModDBEntryT* ModDBAdd(const char* pName, UInt32 instanceSize, InitFuncPtrT pInitFunc,
                      const ProxyFuncTableT* pPFT);

// The type of that name, without regard to case; null if there is none. `pStartEntry` is ignored.
ModDBEntryT* ModDBFind(ModDBEntryT* pStartEntry, const char* pName);

// Allocates a zeroed instance of a type, named after it; ModClone initialises it. The manager owns
// it: give it back with ModFreeLocal. Null for an unknown type, one whose size is less than a
// ModT's, and when the 1024 places or the memory are used up.
ModT* ModCloneLocal(const char* pName);

// Initialises a module, whose name is that of its type, on a processor. On this one: runs the
// type's initialisation unless the module is registered already. On another: makes the peer there
// and gives the module the type's client functions. Returns the initialisation's result;
// kBadParameter for an unknown type or processor; kNotImplemented for a type without function.
eErrorT ModClone(ModT* pMod, UInt32 procNum);

// Gives an instance back: its callbacks go, its record stays in its place until the manager ends,
// for those who still know it. kNoError, or kItemNotFound for a module not allocated here.
eErrorT ModFreeLocal(ModT* pMod);

// Frees the module's peer, where it has one. kNoError, or the error of freeing.
eErrorT ModFree(ModT* pMod);

// ModFreeLocal for every instance whose channel uses the device. Always kNoError.
eErrorT ModFreeAllOnDev(UInt32 devID);

// A module was announced by another processor: remembers and announces the local module of that
// name. kNoError; kBadParameter for a null name; kItemNotFound when no such module is here;
// kOutOfResources when the table is full.
eErrorT ModAddFromRemote(const char* pModName, int nProcNum);

// A processor went: announces the end of its modules and forgets them. What a listener adds again
// meanwhile may stay. kNoError, or kBadParameter
// for processor 0.
eErrorT ModDeleteFromRemote(int nProcNum);

// The place of the nMatchCnt-th (from 0) entry for a processor in nRemModProcNum, or -1.
int FindModByProc(int nProcNum, int nMatchCnt);

// Registers one function of a module for calls between processors: a client node gets
// `proxyClientFunc` stored where `address` points, a server node gets `proxyServerFunc` into its
// type's hash; for "CallCallbacks", which runs the other way, each gets the other's. kNoError,
// kOutOfMemory when the hash is full, kBadParameter for a module of no known type.
eErrorT ModRegProxyFuncs(ModT* pMod, const char* pFuncName, ProxyClientFuncT* address,
                         ProxyClientFuncT proxyClientFunc, ProxyServerFuncT proxyServerFunc);

// Registers the functions of the module's type for the side that the module is on.
eErrorT regProxyServerFuncs(ModT* pMod);
eErrorT regProxyClientFuncs(ModT* pMod);

// The server function behind "Init": initialises the peer of a module of another processor.
int ModInitProxyServer(ModT* pMod, char* pMsg);

// Prints the types with their sizes and instance counts to standard output.
void ModDBDump();
