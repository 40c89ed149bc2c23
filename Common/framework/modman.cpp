// The module manager.
#include "Common/framework/modman.h"

#include <stdio.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/lowmem.h"
#include "Common/OS/log.h"
#include "Common/framework/address.h"
#include "Common/framework/semguard.h"
#include "Common/framework/sharedfield.h"

namespace {

constexpr UInt32 kAnnounce = 0;  // the event of the manager's announcements
constexpr size_t kTypeNameLen = 31;
constexpr UInt8 kNoProcessor = 255;

ModManT gModMan;
ModDBTableT gModDB[gModDBSize];
ModDBEntryT gEmptyTable[kModEmptyEntries];

void CopyName(char* dest, const char* src) {
    const size_t length = strnlen(src, kTypeNameLen);
    memcpy(dest, src, length);
    dest[length] = '\0';
}

// The entry of a type, over all tables; null if there is none. The semaphore is held.
ModDBEntryT* Find(const char* pName) {
    for (const ModDBTableT& table : gModDB) {
        for (int i = 0; i < table.numEntries && table.pEntry != nullptr; i++) {
            if (table.pEntry[i].name[0] != '\0' &&
                strncasecmp(table.pEntry[i].name, pName, kTypeNameLen) == 0) {
                return &table.pEntry[i];
            }
        }
    }
    return nullptr;
}

// Makes a type's hash of server functions unless it has one. The semaphore is held.
void SetUpHash(ModDBEntryT* entry) {
    if (entry->proxyFuncHash.pEntries == nullptr) {
        HashInit(&entry->proxyFuncHash, entry->proxyFuncHashEntries, kHashEntries);
        HashAdd(&entry->proxyFuncHash, "Init", reinterpret_cast<HashValueT>(ModInitProxyServer));
    }
}

void Announce(int add, const char* pName) {
    ModAddDelArgsT args = {};
    args.add = add;
    CopyName(args.name, pName);
    gModMan.mod.CallCallbacks(&gModMan.mod, kAnnounce, &args, sizeof(args));
}

// Fills a free entry of the empty table; null when there is none. The semaphore is held.
ModDBEntryT* FillEntry(const char* pName, UInt32 instanceSize, InitFuncPtrT pInitFunc,
                       const ProxyFuncTableT* pPFT) {
    for (ModDBEntryT& entry : gEmptyTable) {
        if (entry.name[0] == '\0') {
            CopyName(entry.name, pName);
            entry.instanceSize = instanceSize;
            entry.pInitFunc = pInitFunc;
            entry.pPFT = pPFT;
            SetUpHash(&entry);
            return &entry;
        }
    }
    return nullptr;
}

void NameInstance(ModT* pMod, ModDBEntryT* entry) {
    FieldSetBits(pMod->flags, kModFlagAllocated);
    memcpy(pMod->name, entry->name, sizeof(pMod->name));
    pMod->proxy.pModDBEntry = entry;
}

// A new instance in the first untouched place; null when no place or no memory is left. The
// semaphore is held.
ModT* NewInstance(ModDBEntryT* entry) {
    for (ModT*& place : gModMan.pModInstance) {
        if (place != nullptr) {
            continue;
        }
        auto* pMod = static_cast<ModT*>(LowCalloc(entry->instanceSize));
        if (pMod == nullptr) {
            logcrit("MODMAN", "ModCloneLocal: ERROR, can't allocate module, out of memory\n");
            continue;
        }
        NameInstance(pMod, entry);
        place = pMod;
        return pMod;
    }
    return nullptr;
}

bool IsOfType(const ModT* pMod, const ModDBEntryT* entry) {
    return pMod != nullptr && strncasecmp(pMod->name, entry->name, kTypeNameLen) == 0;
}

bool IsFree(const ModT* pMod) {
    return (FieldRead(pMod->flags) & kModFlagAllocated) == 0;
}

bool HasRegistered(const ModT* pMod) {
    return (FieldRead(pMod->flags) & kModFlagRegistered) != 0;
}

eErrorT CloneHere(ModT* pMod, ModDBEntryT* entry) {
    if (HasRegistered(pMod)) {
        return kNoError;
    }
    pMod->processorNum = ProxyProcessorNum();
    pMod->proxy.remHandle = pMod;
    if (entry->pInitFunc == nullptr) {
        logcrit("MODMAN", "can't init module:%s, NULL Init function\n", entry->name);
        return kNotImplemented;
    }
    return entry->pInitFunc(pMod, entry->name, pMod->instance, pMod->pOwner);
}

eErrorT CloneThere(ModT* pMod, ModDBEntryT* entry, UInt32 procNum) {
    eErrorT err = ProxyAllocMod(pMod, procNum);
    if (err != kNoError) {
        logcrit("MODMAN", "can't clone module:%s[%d] on proc:%d, err:%d\n", entry->name,
                pMod->instance, static_cast<int>(procNum), err);
        return kBadParameter;
    }
    pMod->processorNum = procNum;
    {
        const SemGuardT lock(gModMan.dbSemaphore);
        SetUpHash(entry);
    }
    pMod->proxy.nodeType = kProxyClient;
    err = ProxyCall(pMod, "Init", "%s %d %x", pMod->name, pMod->instance, id_of(pMod->pOwner));
    if (err == kNoError) {
        return regProxyClientFuncs(pMod);
    }
    logcrit("MODMAN", "can't init module:%s[%d] on proc:%d, err:%d\n", entry->name, pMod->instance,
            static_cast<int>(procNum), err);
    ProxyFreeMod(pMod);
    return err;
}

// Registers every row of the type's table for the side that the module is on.
eErrorT RegisterFunctions(ModT* pMod) {
    const ModDBEntryT* entry = pMod->proxy.pModDBEntry;
    if (entry == nullptr || entry->pPFT == nullptr) {
        return kNoError;
    }
    eErrorT result = kNoError;
    for (const ProxyFuncTableT* row = entry->pPFT; row->pName != nullptr; row++) {
        auto* address =
            reinterpret_cast<ProxyClientFuncT*>(reinterpret_cast<char*>(pMod) + row->offset);
        const eErrorT err =
            ModRegProxyFuncs(pMod, row->pName, address, row->clientFunc, row->serverFunc);
        result = err != kNoError ? err : result;
    }
    return result;
}

// Frees the first place from `from` on of a module of that processor and copies the module's name.
// Returns the place, -1 at the end.
int TakeRemote(int nProcNum, int from, char* name) {
    const SemGuardT lock(gModMan.dbSemaphore);
    for (int i = from; i < kModMaxInstances; i++) {
        if (gModMan.pRemModInst[i] != nullptr && gModMan.nRemModProcNum[i] == nProcNum) {
            CopyName(name, gModMan.pRemModInst[i]->name);
            gModMan.pRemModInst[i] = nullptr;
            gModMan.nRemModProcNum[i] = kNoProcessor;
            return i;
        }
    }
    return -1;
}

bool StoreRemote(ModT* pMod, int nProcNum) {
    const SemGuardT lock(gModMan.dbSemaphore);
    for (int i = 0; i < kModMaxInstances; i++) {
        if (gModMan.pRemModInst[i] == nullptr) {
            gModMan.pRemModInst[i] = pMod;
            gModMan.nRemModProcNum[i] = static_cast<UInt8>(nProcNum);
            return true;
        }
    }
    return false;
}

// What the database dump shows of one type.
struct ShownTypeT {
    char name[kModNameLen + 1];
    int size;
    int used;
    int free;
};

ShownTypeT CountType(const ModDBEntryT& entry) {
    ShownTypeT shown = {};
    memcpy(shown.name, entry.name, sizeof(shown.name));
    shown.size = static_cast<int>(entry.instanceSize);
    for (const ModT* pMod : gModMan.pModInstance) {
        if (IsOfType(pMod, &entry)) {
            IsFree(pMod) ? shown.free++ : shown.used++;
        }
    }
    return shown;
}

}  // namespace

eErrorT ModManInit() {
    memset(static_cast<void*>(&gModMan), 0, sizeof(gModMan));
    memset(gModDB, 0, sizeof(gModDB));
    memset(static_cast<void*>(gEmptyTable), 0, sizeof(gEmptyTable));
    gModMan.pModDB = gModDB;
    sm_create("modm", 1, 0, &gModMan.dbSemaphore);
    ModInit(&gModMan.mod, "ModMan", 0, nullptr);
    return ModDBAddTable(gEmptyTable, kModEmptyEntries);
}

eErrorT ModManExit() {
    {
        const SemGuardT lock(gModMan.dbSemaphore);
        for (ModT*& place : gModMan.pModInstance) {
            if (place != nullptr) {
                if (HasRegistered(place)) {
                    ModExit(place);
                }
                LowFree(place);
                place = nullptr;
            }
        }
    }
    sm_delete(gModMan.dbSemaphore);
    return ModExit(&gModMan.mod);
}

ModManT* ModMan() {
    return &gModMan;
}

eErrorT ModDBAddTable(ModDBEntryT* pTable, int numEntries) {
    OsAssert(pTable);
    const SemGuardT lock(gModMan.dbSemaphore);
    for (ModDBTableT& table : gModDB) {
        if (table.pEntry == nullptr) {
            table.pEntry = pTable;
            table.numEntries = numEntries;
            return kNoError;
        }
    }
    return kOutOfMemory;
}

eErrorT ModDBDelete(ModDBEntryT*) {
    return kNoError;
}

ModDBEntryT* ModDBAdd(const char* pName, UInt32 instanceSize, InitFuncPtrT pInitFunc,
                      const ProxyFuncTableT* pPFT) {
    OsAssert(pName);
    if (*pName == '\0' || instanceSize < sizeof(ModT)) {
        logwarn("MODMAN", "ModDBAdd: can't add module:%s, no name or %d bytes\n", pName,
                static_cast<int>(instanceSize));
        return nullptr;
    }
    ModDBEntryT* known;
    ModDBEntryT* added = nullptr;
    {
        const SemGuardT lock(gModMan.dbSemaphore);
        known = Find(pName);
        if (known == nullptr) {
            added = FillEntry(pName, instanceSize, pInitFunc, pPFT);
        }
    }
    if (known != nullptr) {
        logwarn("MODMAN", "ModDBAdd: module:%s already exists\n", pName);
        return known;
    }
    if (added == nullptr) {
        logwarn("MODMAN", "ModDBAdd: can't add module:%s table is full\n", pName);
        return nullptr;
    }
    logdebug("MODMAN", "ModDBAdd: added module:%s\n", pName);
    Announce(1, added->name);
    return added;
}

ModDBEntryT* ModDBFind(ModDBEntryT*, const char* pName) {
    OsAssert(pName);
    const SemGuardT lock(gModMan.dbSemaphore);
    return Find(pName);
}

ModT* ModCloneLocal(const char* pName) {
    OsAssert(pName);
    ModDBEntryT* entry;
    ModT* pMod = nullptr;
    bool small = false;
    {
        const SemGuardT lock(gModMan.dbSemaphore);
        entry = Find(pName);
        if (entry != nullptr) {
            SetUpHash(entry);
            small = entry->instanceSize < sizeof(ModT);
            pMod = small ? nullptr : NewInstance(entry);
        }
    }
    if (entry == nullptr) {
        logcrit("MODMAN", "ModCloneLocal: can't allocate module:%s, not in database\n", pName);
    } else if (small) {
        logcrit("MODMAN", "ModCloneLocal: can't allocate module:%s, %d bytes hold no module\n",
                pName, static_cast<int>(entry->instanceSize));
    } else if (pMod == nullptr) {
        logcrit("MODMAN", "ModCloneLocal: ERROR, can't allocate module \"%s\", table is full\n",
                pName);
        ModDBDump();
    } else {
        logdebug("MODMAN", "ModCloneLocal:%s pMod:0x%x, init:0x%x\n", pName, shown_address(pMod),
                 shown_address(entry->pInitFunc));
    }
    return pMod;
}

eErrorT ModClone(ModT* pMod, UInt32 procNum) {
    OsAssertText(pMod != nullptr, "pMod != ((void *)0)");
    OsAssert(pMod->name[0] != 0);
    ModDBEntryT* entry = ModDBFind(nullptr, pMod->name);
    if (entry == nullptr) {
        return kBadParameter;
    }
    FieldWrite(pMod->proxy.pModDBEntry, entry);
    return procNum == ProxyProcessorNum() ? CloneHere(pMod, entry)
                                          : CloneThere(pMod, entry, procNum);
}

eErrorT ModFreeLocal(ModT* pMod) {
    OsAssert(pMod);
    logdebug("MODMAN", "freeing local mod, address:0x%x\n", shown_address(pMod));
    const SemGuardT lock(gModMan.dbSemaphore);
    for (const ModT* place : gModMan.pModInstance) {
        if (place == pMod) {
            if (HasRegistered(pMod)) {
                ModDeleteAllCallbacks(pMod);
            }
            FieldClearBits(pMod->flags, kModFlagAllocated);
            return kNoError;
        }
    }
    return kItemNotFound;
}

eErrorT ModFree(ModT* pMod) {
    OsAssert(pMod);
    ModTrace(pMod, "ModFree: [pMod: 0x%x] [pMod->proxy.remHandle: 0x%x]\n", shown_address(pMod),
             shown_address(pMod->proxy.remHandle));
    return pMod->proxy.remHandle != nullptr ? ProxyFreeMod(pMod) : kNoError;
}

eErrorT ModFreeAllOnDev(UInt32 devID) {
    for (int i = 0; i < kModMaxInstances; i++) {
        ModT* pMod;
        {
            const SemGuardT lock(gModMan.dbSemaphore);
            pMod = gModMan.pModInstance[i];
        }
        if (pMod != nullptr && !IsFree(pMod) && ProxyUsesDevice(pMod, devID) != 0) {
            printf("ModFreeAllOnDev:%s pMod:0x%x\n", pMod->name, shown_address(pMod));
            ModFreeLocal(pMod);
        }
    }
    return kNoError;
}

eErrorT ModAddFromRemote(const char* pModName, int nProcNum) {
    if (pModName == nullptr) {
        logerr("MODMAN", "ModAddFromRemote: no mod name given\n");
        return kBadParameter;
    }
    ModT* pMod = ModFindByName(pModName, kModAnyInstance);
    if (pMod == nullptr) {
        logerr("MODMAN", "ModAddFromRemote: no module of name %.128s\n", pModName);
        return kItemNotFound;
    }
    if (!StoreRemote(pMod, nProcNum)) {
        return kOutOfResources;
    }
    Announce(1, pMod->name);
    return kNoError;
}

eErrorT ModDeleteFromRemote(int nProcNum) {
    if (nProcNum == 0) {
        logerr("MODMAN", "ModDeleteFromRemote: no proc # given\n");
        return kBadParameter;
    }
    char name[kModNameLen + 1];
    // Upwards only, so that it ends even if a listener brings modules back.
    for (int at = 0; (at = TakeRemote(nProcNum, at, name)) >= 0; at++) {
        Announce(0, name);
    }
    return kNoError;
}

int FindModByProc(int nProcNum, int nMatchCnt) {
    const SemGuardT lock(gModMan.dbSemaphore);
    for (int i = 0; i < kModMaxInstances; i++) {
        if (gModMan.nRemModProcNum[i] == nProcNum && nMatchCnt-- == 0) {
            return i;
        }
    }
    return -1;
}

eErrorT ModRegProxyFuncs(ModT* pMod, const char* pFuncName, ProxyClientFuncT* address,
                         ProxyClientFuncT proxyClientFunc, ProxyServerFuncT proxyServerFunc) {
    OsAssert(pMod);
    OsAssert(pFuncName);
    ModDBEntryT* entry = ModDBFind(nullptr, pMod->name);
    if (entry == nullptr) {
        return kBadParameter;
    }
    const bool client = pMod->proxy.nodeType == kProxyClient;
    const bool reversed = strcmp(pFuncName, "CallCallbacks") == 0;
    if (!client && pMod->proxy.nodeType != kProxyServer) {
        return kNoError;
    }
    if (client != reversed) {
        *address = proxyClientFunc;
        return kNoError;
    }
    const SemGuardT lock(gModMan.dbSemaphore);
    SetUpHash(entry);
    return HashAdd(&entry->proxyFuncHash, pFuncName,
                   reinterpret_cast<HashValueT>(proxyServerFunc)) == kNoError
               ? kNoError
               : kOutOfMemory;
}

eErrorT regProxyServerFuncs(ModT* pMod) {
    OsAssert(pMod);
    logdebug("MODMAN", "regProxyServerFuncs %s %x\n", pMod->name, shown_address(pMod));
    return RegisterFunctions(pMod);
}

eErrorT regProxyClientFuncs(ModT* pMod) {
    OsAssert(pMod);
    return RegisterFunctions(pMod);
}

int ModInitProxyServer(ModT* pMod, char* pMsg) {
    OsAssert(pMod);
    OsAssert(pMsg);
    char name[kModNameLen + 1];
    int instance;
    UInt32 owner;
    if (sscanf(pMsg, "%32s %d %x", name, &instance, &owner) != 3) {
        return ProxyReply(pMsg, kBadParameter);
    }
    ModDBEntryT* entry = ModDBFind(nullptr, name);
    if (entry == nullptr) {
        logcrit("MODMAN", "can't init module:%s, module not in the database\n", name);
        return ProxyReply(pMsg, kItemNotFound);
    }
    if (entry->pInitFunc == nullptr) {
        logcrit("MODMAN", "can't init module:%s, NULL Init function\n", name);
        return ProxyReply(pMsg, kNotImplemented);
    }
    const ModProxyT proxy = pMod->proxy;
    const eErrorT err = entry->pInitFunc(pMod, name, instance, from_id<void>(owner));
    pMod->proxy = proxy;
    if (err == kNoError) {
        regProxyServerFuncs(pMod);
    }
    return ProxyReply(pMsg, err);
}

void ModDBDump() {
    puts("name                              size  used  free");
    puts("-------------------------------- ----- ----- -----");
    for (const ModDBTableT& table : gModDB) {
        for (int i = 0;; i++) {
            ShownTypeT shown;
            {
                const SemGuardT lock(gModMan.dbSemaphore);
                if (table.pEntry == nullptr || i >= table.numEntries) {
                    break;
                }
                shown = CountType(table.pEntry[i]);
            }
            if (shown.name[0] != '\0') {
                printf("%-32.32s %5d %5d %5d\n", shown.name, shown.size, shown.used, shown.free);
            }
        }
    }
}
