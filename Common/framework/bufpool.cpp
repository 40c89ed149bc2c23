// Free buffers are on the pool's list. The list, the counters and the state change under
// freeListRegion, which covers nothing else: buffers are made, freed and stamped outside. A task is
// never deleted while a buffer of it is neither the user's nor on a list.
//
// The table of pools has a mutex: a pool that is walked over cannot end meanwhile. It is recursive,
// because an owner's Dump may look for pools. The region may be taken under it, never the reverse.
#include "Common/framework/bufpool.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/log.h"
#include "Common/framework/address.h"
#include "Common/framework/mod_internal.h"
#include "Common/framework/semguard.h"

std::atomic<BufPoolT*> gBufPools[kBufMaxPools];
std::atomic<int> numBufPools{0};
std::atomic<UInt32> freeListRegion{0};
std::atomic<Boolean> bDynamicPools{0};

namespace {

pthread_mutex_t gTableMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

void CheckPool(const BufPoolT* pBufPool) {
    OsAssert(pBufPool);
    if (pBufPool->mod.initializedSig != kModSignature) [[unlikely]] {
        printf("ERROR, bad module ptr 0x%x\n", shown_address(pBufPool));
        OsAssertText(false, "pBufPool->mod.initializedSig == kModSignature");
    }
}

// The free lists, counters and states for a scope.
struct RegionT : SemGuardT {
    RegionT() : SemGuardT(freeListRegion) {}
};

// Changes numFreeBufs, which is read without the region, and returns it.
unsigned int CountFree(BufPoolT* pBufPool, int step) {
    const auto change = static_cast<unsigned int>(step);
    return std::atomic_ref<unsigned int>(pBufPool->numFreeBufs).fetch_add(change) + change;
}

BufT* BufOf(ListT* node) {
    return reinterpret_cast<BufT*>(node);
}

void Adopt(BufPoolT* pBufPool, BufT* pBuf) {
    pBuf->pBufPool = pBufPool;
    pBuf->pOwner = pBufPool->mod.pOwner;
    BufInit(pBuf);
}

BufT* MakeBuf(BufPoolT* pBufPool) {
    BufT* pBuf = pBufPool->BufAllocMem(pBufPool->bufLen, pBufPool->bufDescLen,
                                       pBufPool->headerSpace, pBufPool->memType);
    if (pBuf != nullptr) {
        Adopt(pBufPool, pBuf);
    }
    return pBuf;
}

// Takes a free buffer or descriptor of a closed pool to be freed; null when there is none, or the
// pool was opened again.
BufT* TakeToFree(BufPoolT* pBufPool) {
    const RegionT region;
    if (pBufPool->state != kBufPoolClosed) {
        return nullptr;
    }
    if (pBufPool->pFreeBufs == nullptr) {
        return BufOf(ListDequeueUnprot(&pBufPool->pBufDescs));
    }
    CountFree(pBufPool, -1);
    return BufOf(ListDequeueUnprot(&pBufPool->pFreeBufs));
}

void FreeWhileClosed(BufPoolT* pBufPool) {
    const NoCancelT no_cancel;
    while (BufT* pBuf = TakeToFree(pBufPool)) {
        pBufPool->BufFreeMem(pBuf, pBufPool->memType);
    }
}

void SetState(BufPoolT* pBufPool, eBufPoolStateT state) {
    const RegionT region;
    pBufPool->state = state;
}

bool IsOpen(BufPoolT* pBufPool) {
    const RegionT region;
    return pBufPool->state == kBufPoolOpened;
}

eErrorT DestroyFreeList(BufPoolT* pBufPool) {
    SetState(pBufPool, kBufPoolClosed);
    FreeWhileClosed(pBufPool);
    return kNoError;
}

// Puts a buffer on the free list, or a descriptor on theirs. What comes back to a closed pool is
// freed; one that is opened again meanwhile stays open.
void PutBack(BufPoolT* pBufPool, ListT** list, BufT* pBuf) {
    bool closed;
    {
        const RegionT region;
        ListEnqueueUnprot(list, &pBuf->list);
        if (list == &pBufPool->pFreeBufs) {
            CountFree(pBufPool, 1);
        }
        closed = pBufPool->state == kBufPoolClosed;
    }
    if (closed && pBufPool->DestroyFreeList != DestroyFreeList) {
        pBufPool->DestroyFreeList(pBufPool);
    } else if (closed) {
        FreeWhileClosed(pBufPool);
    }
}

eErrorT BuildFreeList(BufPoolT* pBufPool) {
    if (pBufPool->maxBufs == 0 || IsOpen(pBufPool)) {
        return kNoError;
    }
    // Before the buffers are there: one that comes back now would take them for returned ones.
    SetState(pBufPool, kBufPoolOpened);
    const unsigned int count = pBufPool->numBufs;
    for (unsigned int i = 0; i < count; i++) {
        BufT* pBuf = MakeBuf(pBufPool);
        if (pBuf == nullptr) {
            pBufPool->DestroyFreeList(pBufPool);
            return kOutOfMemory;
        }
        PutBack(pBufPool, &pBufPool->pFreeBufs, pBuf);
    }
    return kNoError;
}

eErrorT SetFreeBufParms(BufPoolT* pBufPool, unsigned int maxBufs, unsigned int bufLen,
                        unsigned int bufDescLen, unsigned int headerSpace, UInt32 memType) {
    CheckPool(pBufPool);
    if (IsOpen(pBufPool)) {
        return kBadState;
    }
    BufAlignParms(&bufDescLen, &headerSpace, &bufLen);
    pBufPool->maxBufs = maxBufs;
    pBufPool->bufLen = bufLen;
    pBufPool->bufDescLen = bufDescLen;
    pBufPool->headerSpace = headerSpace;
    pBufPool->memType = memType;
    pBufPool->numBufs = bDynamicPools != 0 ? 0 : maxBufs;
    pBufPool->minFreeBufs = pBufPool->numBufs;
    return kNoError;
}

// Takes a free buffer and notes the lowest number of free ones, which in a dynamic pool is 0 from
// the start. When none is free and the pool may have more, counts one that is to be made.
BufT* TakeFree(BufPoolT* pBufPool, bool* make) {
    const RegionT region;
    BufT* pBuf = BufOf(ListDequeueUnprot(&pBufPool->pFreeBufs));
    if (pBuf != nullptr) {
        const unsigned int left = CountFree(pBufPool, -1);
        if (left < pBufPool->minFreeBufs) {
            pBufPool->minFreeBufs = left;
        }
    } else if (pBufPool->numBufs < pBufPool->maxBufs) {
        pBufPool->numBufs++;
        *make = true;
    }
    return pBuf;
}

BufT* PoolAlloc(BufPoolT* pBufPool) {
    const NoCancelT no_cancel;
    bool make = false;
    BufT* pBuf = TakeFree(pBufPool, &make);
    if (pBuf != nullptr) {
        Adopt(pBufPool, pBuf);
    } else if (make) {
        pBuf = MakeBuf(pBufPool);
        if (pBuf == nullptr) {
            const RegionT region;
            pBufPool->numBufs--;
        }
    }
    if (pBuf != nullptr) {
        pBuf->timeSent = RealTimeMilliSeconds();
    }
    return pBuf;
}

eErrorT PoolFree(BufPoolT* pBufPool, BufT* pBuf) {
    pBuf->pUser = nullptr;
    pBuf->pOwner = pBufPool->mod.pOwner;
    PutBack(pBufPool, &pBufPool->pFreeBufs, pBuf);
    return kNoError;
}

BufT* DescAlloc(BufPoolT* pBufPool, BufT* pBuf) {
    BufT* pDesc;
    {
        const RegionT region;
        pDesc = BufOf(ListDequeueUnprot(&pBufPool->pBufDescs));
    }
    if (pDesc == nullptr) {
        pDesc = pBufPool->BufAllocMem(0, pBuf->bufDescLen, 0, pBufPool->memType);
    }
    if (pDesc == nullptr) {
        return nullptr;
    }
    pDesc->bufDescLen = pBuf->bufDescLen;
    pDesc->headerSpace = static_cast<UInt16>(pBufPool->headerSpace);
    pDesc->dataLen = pBufPool->bufLen + kBufExtra;
    Adopt(pBufPool, pDesc);
    return pDesc;
}

eErrorT DescFree(BufPoolT* pBufPool, BufT* pDesc) {
    pDesc->dataLen = 0;
    pDesc->pData = nullptr;
    pDesc->pDup = nullptr;
    pDesc->pUser = nullptr;
    PutBack(pBufPool, &pBufPool->pBufDescs, pDesc);
    return kNoError;
}

template <typename FuncT>
void SetDefault(FuncT** operation, FuncT* function) {
    if (*operation == nullptr) {
        *operation = function;
    }
}

void SetDefaults(BufPoolT* pBufPool) {
    SetDefault(&pBufPool->BuildFreeList, BuildFreeList);
    SetDefault(&pBufPool->DestroyFreeList, DestroyFreeList);
    SetDefault(&pBufPool->SetFreeBufParms, SetFreeBufParms);
    SetDefault(&pBufPool->BufAlloc, PoolAlloc);
    SetDefault(&pBufPool->BufFree, PoolFree);
    SetDefault(&pBufPool->BufAllocMem, BufAllocMem);
    SetDefault(&pBufPool->BufFreeMem, BufFreeMem);
    SetDefault(&pBufPool->BufDescAlloc, DescAlloc);
    SetDefault(&pBufPool->BufDescFree, DescFree);
}

// Calls `visit` for every listed pool, none of which can end meanwhile.
template <typename VisitT>
void ForEachPool(VisitT visit) {
    for (auto& slot : gBufPools) {
        if (slot == nullptr) {
            continue;
        }
        const CancellableMutexGuardT guard(&gTableMutex);
        if (BufPoolT* pBufPool = slot) {
            visit(pBufPool);
        }
    }
}

// Puts `now` in place of the first `before` in the table. False if there is none.
bool Exchange(BufPoolT* before, BufPoolT* now) {
    for (auto& slot : gBufPools) {
        if (slot == before) {
            slot = now;
            return true;
        }
    }
    return false;
}

void Register(BufPoolT* pBufPool) {
    const MutexGuardT guard(&gTableMutex);
    if (freeListRegion == 0) {
        UInt32 smid = 0;
        OsAssert(sm_create("#region", 1, 0, &smid) == kSmOk);
        freeListRegion = smid;
    }
    if (Exchange(nullptr, pBufPool)) {
        numBufPools++;
    }
}

void Unregister(BufPoolT* pBufPool) {
    const MutexGuardT guard(&gTableMutex);
    if (Exchange(pBufPool, nullptr)) {
        numBufPools--;
    }
}

// The number of a pool's free buffers with a bad guard.
int CountBadGuards(BufPoolT* pBufPool) {
    const RegionT region;
    int bad = 0;
    for (ListT* at = pBufPool->pFreeBufs; at != nullptr;
         at = ListNextElement(pBufPool->pFreeBufs, at)) {
        bad += BufTestGuard(BufOf(at)) != kNoError;
    }
    return bad;
}

}  // namespace

eErrorT BufPoolInit(BufPoolT* pBufPool, const char* pName, int instance, void* pOwner,
                    unsigned int maxBufs, unsigned int bufLen, unsigned int bufDescLen,
                    unsigned int headerSpace, UInt32 memType) {
    OsAssert(pBufPool);
    OsAssert(pName);
    ModInit(&pBufPool->mod, pName, instance, pOwner);
    SetDefaults(pBufPool);
    pBufPool->numFreeBufs = 0;
    pBufPool->pFreeBufs = nullptr;
    pBufPool->pBufDescs = nullptr;
    pBufPool->state = kBufPoolClosed;
    const eErrorT err =
        pBufPool->SetFreeBufParms(pBufPool, maxBufs, bufLen, bufDescLen, headerSpace, memType);
    pBufPool->mod.Dump = BufPoolDump;
    pBufPool->mod.DumpHeading = BufPoolDumpHeading;
    Register(pBufPool);
    return err;
}

eErrorT BufPoolOpen(BufPoolT* pBufPool) {
    CheckPool(pBufPool);
    return pBufPool->BuildFreeList(pBufPool);
}

eErrorT BufPoolClose(BufPoolT* pBufPool) {
    CheckPool(pBufPool);
    return pBufPool->DestroyFreeList(pBufPool);
}

eErrorT BufPoolExit(BufPoolT* pBufPool) {
    BufPoolClose(pBufPool);
    ModExit(&pBufPool->mod);
    Unregister(pBufPool);
    return kNoError;
}

BufT* BufPoolBufAlloc(BufPoolT* pBufPool) {
    CheckPool(pBufPool);
    return pBufPool->BufAlloc(pBufPool);
}

eErrorT BufPoolBufFree(BufPoolT* pBufPool, BufT* pBuf) {
    CheckPool(pBufPool);
    OsAssert(pBuf);
    return pBufPool->BufFree(pBufPool, pBuf);
}

BufT* BufPoolDescAlloc(BufPoolT* pBufPool, BufT* pBuf) {
    CheckPool(pBufPool);
    OsAssert(pBuf);
    return pBufPool->BufDescAlloc(pBufPool, pBuf);
}

eErrorT BufPoolDescFree(BufPoolT* pBufPool, BufT* pBuf) {
    CheckPool(pBufPool);
    OsAssert(pBuf);
    return pBufPool->BufDescFree(pBufPool, pBuf);
}

BufPoolT* BufPoolFindByName(const char* pName, int instance) {
    OsAssert(pName);
    BufPoolT* found = nullptr;
    ForEachPool([&](BufPoolT* pBufPool) {
        if (found == nullptr &&
            (instance == kModAnyInstance || pBufPool->mod.instance == instance) &&
            strncasecmp(pBufPool->mod.name, pName, kModNameLen) == 0) {
            found = pBufPool;
        }
    });
    return found;
}

void BufPoolSetDynamic(Boolean dynamic) {
    bDynamicPools = dynamic;
}

eErrorT BufPoolCheckAll() {
    ForEachPool([](BufPoolT* pBufPool) {
        const int bad = CountBadGuards(pBufPool);
        if (bad != 0) {
            logerr("buf", "pool %s: %d free buffers with a bad guard\n", BufPoolName(pBufPool),
                   bad);
        }
    });
    return kNoError;
}

const char* BufPoolName(BufPoolT* pBufPool) {
    static thread_local char name[kModNameLen + 16];
    if (pBufPool == nullptr) {
        return "none";
    }
    snprintf(name, sizeof(name), "%s[%2.2d]", pBufPool->mod.name, pBufPool->mod.instance);
    return name;
}

eErrorT BufPoolDump(ModT* pMod, int) {
    auto* pBufPool = reinterpret_cast<BufPoolT*>(pMod);
    CheckPool(pBufPool);
    unsigned int created;
    unsigned int used;
    const ListT* free_list;
    {
        const RegionT region;
        created = pBufPool->numBufs;
        used = created - pBufPool->minFreeBufs;
        free_list = pBufPool->pFreeBufs;
    }
    const UInt64 size = UInt64{pBufPool->bufLen} + pBufPool->headerSpace + pBufPool->bufDescLen;
    printf("%-22.22s %7.7s %4d %8d %5d %5d %4d %5dK %5dK %3d%% 0x%8.8x  0x%8.8x\n",
           BufPoolName(pBufPool), IsOpen(pBufPool) ? "opened" : "closed", pBufPool->maxBufs,
           pBufPool->bufLen, pBufPool->headerSpace, pBufPool->bufDescLen, used,
           static_cast<unsigned int>(created * size / 1000),
           static_cast<unsigned int>(used * size / 1000),
           static_cast<unsigned int>(created != 0 ? UInt64{used} * 100 / created : 0),
           shown_address(pBufPool), shown_address(free_list));
    return kNoError;
}

void BufPoolDumpHeading() {
    printf("Buffer pool              state  max      len   hdr  desc used memory   used   %%\n");
    printf("---------------------- ------- ---- -------- ----- ----- ---- ------ ------ ----\n");
}

void BufPoolDumpOpen() {
    BufPoolDumpHeading();
    ForEachPool([](BufPoolT* pBufPool) {
        if (IsOpen(pBufPool)) {
            pBufPool->mod.Dump(&pBufPool->mod, 0);
        }
    });
}

void BufPoolDumpAll() {
    BufPoolDumpHeading();
    ForEachPool([](BufPoolT* pBufPool) { pBufPool->mod.Dump(&pBufPool->mod, 0); });
}
