// Free buffers are on the pool's list, under freeListRegion, which covers nothing else: buffers are
// made, freed and stamped outside. See bufpool.h.
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
#include "Common/framework/sharedfield.h"

std::atomic<BufPoolT*> gBufPools[kBufMaxPools];
std::atomic<int> numBufPools{0};
std::atomic<UInt32> freeListRegion{0};
std::atomic<Boolean> bDynamicPools{0};

namespace {

pthread_mutex_t gRegionMutex = PTHREAD_MUTEX_INITIALIZER;  // while the semaphore is made

void CheckPool(const BufPoolT* pBufPool) {
    OsAssert(pBufPool);
    if (pBufPool->mod.initializedSig != kModSignature) [[unlikely]] {
        printf("ERROR, bad module ptr 0x%x\n", shown_address(pBufPool));
        OsAssertText(false, "pBufPool->mod.initializedSig == kModSignature");
    }
}

// The free lists for a scope.
class RegionT {
  public:
    RegionT() : guard_(freeListRegion.load(std::memory_order_relaxed)) {}

  private:
    CancellableSemGuardT guard_;
};

std::atomic_ref<unsigned int> Counter(unsigned int& field) {
    return std::atomic_ref<unsigned int>(field);
}

void Count(unsigned int& field, int step) {
    Counter(field).fetch_add(static_cast<unsigned int>(step), std::memory_order_relaxed);
}

void LowerTo(unsigned int& field, unsigned int value) {
    const auto lowest = Counter(field);
    unsigned int before = lowest.load(std::memory_order_relaxed);
    while (value < before &&
           !lowest.compare_exchange_weak(before, value, std::memory_order_relaxed)) {
    }
}

std::atomic_ref<eBufPoolStateT> State(BufPoolT* pBufPool) {
    return std::atomic_ref<eBufPoolStateT>(pBufPool->state);
}

BufT* BufOf(ListT* node) {
    return reinterpret_cast<BufT*>(node);
}

// Takes a free buffer and notes the lowest number of free ones, which in a dynamic pool is 0 from
// the start.
BufT* TakeFree(BufPoolT* pBufPool) {
    BufT* pBuf;
    {
        const RegionT region;
        pBuf = BufOf(ListDequeueUnprot(&pBufPool->pFreeBufs));
    }
    if (pBuf != nullptr) {
        LowerTo(pBufPool->minFreeBufs,
                Counter(pBufPool->numFreeBufs).fetch_sub(1, std::memory_order_relaxed) - 1);
    }
    return pBuf;
}

// Appends a buffer to the free list.
void EnqueueFree(BufPoolT* pBufPool, BufT* pBuf) {
    Count(pBufPool->numFreeBufs, 1);
    const RegionT region;
    ListEnqueueUnprot(&pBufPool->pFreeBufs, &pBuf->list);
}

BufT* DequeueDesc(BufPoolT* pBufPool) {
    const RegionT region;
    return BufOf(ListDequeueUnprot(&pBufPool->pBufDescs));
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

// How a free list is emptied: to close the pool, or because buffers came back to a closed one,
// which ends when the pool is opened again meanwhile.
enum class EmptyT { kClose, kIfClosed };

// Takes a free buffer or descriptor to be freed. When there is none the pool is closed, and null
// returned.
BufT* TakeToFree(BufPoolT* pBufPool, EmptyT why) {
    const RegionT region;
    if (why == EmptyT::kIfClosed && State(pBufPool).load() != kBufPoolClosed) {
        return nullptr;
    }
    if (BufT* pBuf = BufOf(ListDequeueUnprot(&pBufPool->pFreeBufs))) {
        Count(pBufPool->numFreeBufs, -1);
        return pBuf;
    }
    BufT* pDesc = BufOf(ListDequeueUnprot(&pBufPool->pBufDescs));
    if (pDesc == nullptr) {
        State(pBufPool).store(kBufPoolClosed);
    }
    return pDesc;
}

void EmptyFreeList(BufPoolT* pBufPool, EmptyT why) {
    while (BufT* pBuf = TakeToFree(pBufPool, why)) {
        pBufPool->BufFreeMem(pBuf, pBufPool->memType);
    }
}

eErrorT DestroyFreeList(BufPoolT* pBufPool) {
    EmptyFreeList(pBufPool, EmptyT::kClose);
    return kNoError;
}

// Frees what came back to a closed pool.
void FreeReturned(BufPoolT* pBufPool) {
    if (State(pBufPool).load() != kBufPoolClosed) {
        return;
    }
    if (pBufPool->DestroyFreeList != DestroyFreeList) {
        pBufPool->DestroyFreeList(pBufPool);
    } else {
        EmptyFreeList(pBufPool, EmptyT::kIfClosed);
    }
}

eErrorT BuildFreeList(BufPoolT* pBufPool) {
    if (pBufPool->maxBufs == 0 || State(pBufPool).load() == kBufPoolOpened) {
        return kNoError;
    }
    {
        // Before the buffers are there: one that comes back now would take them for returned ones.
        const RegionT region;
        State(pBufPool).store(kBufPoolOpened);
    }
    const unsigned int count = pBufPool->numBufs;
    for (unsigned int i = 0; i < count; i++) {
        BufT* pBuf = MakeBuf(pBufPool);
        if (pBuf == nullptr) {
            pBufPool->DestroyFreeList(pBufPool);
            State(pBufPool).store(kBufPoolClosed);
            return kOutOfMemory;
        }
        EnqueueFree(pBufPool, pBuf);
    }
    return kNoError;
}

eErrorT SetFreeBufParms(BufPoolT* pBufPool, unsigned int maxBufs, unsigned int bufLen,
                        unsigned int bufDescLen, unsigned int headerSpace, UInt32 memType) {
    CheckPool(pBufPool);
    if (State(pBufPool).load() == kBufPoolOpened) {
        return kBadState;
    }
    BufAlignParms(&bufDescLen, &headerSpace, &bufLen);
    pBufPool->maxBufs = maxBufs;
    pBufPool->bufLen = bufLen;
    pBufPool->bufDescLen = bufDescLen;
    pBufPool->headerSpace = headerSpace;
    pBufPool->memType = memType;
    pBufPool->numBufs = bDynamicPools.load(std::memory_order_relaxed) != 0 ? 0 : maxBufs;
    pBufPool->minFreeBufs = pBufPool->numBufs;
    return kNoError;
}

// Makes one more buffer, as long as the pool may have more.
BufT* Expand(BufPoolT* pBufPool) {
    const auto created = Counter(pBufPool->numBufs);
    unsigned int before = created.load(std::memory_order_relaxed);
    do {
        if (before >= pBufPool->maxBufs) {
            return nullptr;
        }
    } while (!created.compare_exchange_weak(before, before + 1, std::memory_order_relaxed));
    BufT* pBuf = MakeBuf(pBufPool);
    if (pBuf == nullptr) {
        created.fetch_sub(1, std::memory_order_relaxed);
    }
    return pBuf;
}

BufT* PoolAlloc(BufPoolT* pBufPool) {
    BufT* pBuf = TakeFree(pBufPool);
    if (pBuf != nullptr) {
        Adopt(pBufPool, pBuf);
    } else {
        pBuf = Expand(pBufPool);
    }
    if (pBuf != nullptr) {
        pBuf->timeSent = RealTimeMilliSeconds();
    }
    return pBuf;
}

eErrorT PoolFree(BufPoolT* pBufPool, BufT* pBuf) {
    pBuf->pUser = nullptr;
    pBuf->pOwner = pBufPool->mod.pOwner;
    EnqueueFree(pBufPool, pBuf);
    FreeReturned(pBufPool);
    return kNoError;
}

BufT* DescAlloc(BufPoolT* pBufPool, BufT* pBuf) {
    BufT* pDesc = DequeueDesc(pBufPool);
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
    {
        const RegionT region;
        ListEnqueueUnprot(&pBufPool->pBufDescs, &pDesc->list);
    }
    FreeReturned(pBufPool);
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

void MakeRegion() {
    const MutexGuardT guard(&gRegionMutex);
    if (freeListRegion.load(std::memory_order_relaxed) == 0) {
        UInt32 smid = 0;
        OsAssert(sm_create("#region", 1, 0, &smid) == kSmOk);
        freeListRegion.store(smid, std::memory_order_relaxed);
    }
}

// Calls `visit` for every listed pool.
template <typename VisitT>
void ForEachPool(VisitT visit) {
    for (auto& slot : gBufPools) {
        BufPoolT* pBufPool = slot.load(std::memory_order_acquire);
        if (pBufPool != nullptr) {
            visit(pBufPool);
        }
    }
}

void Register(BufPoolT* pBufPool) {
    for (auto& slot : gBufPools) {
        BufPoolT* none = nullptr;
        if (slot.compare_exchange_strong(none, pBufPool, std::memory_order_acq_rel)) {
            numBufPools.fetch_add(1, std::memory_order_relaxed);
            return;
        }
    }
}

void Unregister(BufPoolT* pBufPool) {
    for (auto& slot : gBufPools) {
        BufPoolT* expected = pBufPool;
        if (slot.compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel)) {
            numBufPools.fetch_sub(1, std::memory_order_relaxed);
        }
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
    MakeRegion();
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
    bDynamicPools.store(dynamic, std::memory_order_relaxed);
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
    const unsigned int created = FieldRead(pBufPool->numBufs);
    const unsigned int used = created - FieldRead(pBufPool->minFreeBufs);
    const UInt64 size = UInt64{pBufPool->bufLen} + pBufPool->headerSpace + pBufPool->bufDescLen;
    const ListT* free_list;
    {
        const RegionT region;
        free_list = pBufPool->pFreeBufs;
    }
    printf("%-22.22s %7.7s %4d %8d %5d %5d %4d %5dK %5dK %3d%% 0x%8.8x  0x%8.8x\n",
           BufPoolName(pBufPool), State(pBufPool).load() == kBufPoolOpened ? "opened" : "closed",
           pBufPool->maxBufs, pBufPool->bufLen, pBufPool->headerSpace, pBufPool->bufDescLen, used,
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
        if (State(pBufPool).load() == kBufPoolOpened) {
            pBufPool->mod.Dump(&pBufPool->mod, 0);
        }
    });
}

void BufPoolDumpAll() {
    BufPoolDumpHeading();
    ForEachPool([](BufPoolT* pBufPool) { pBufPool->mod.Dump(&pBufPool->mod, 0); });
}
