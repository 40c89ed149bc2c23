// Pools of buffers of one size. A pool is a module; it makes its buffers when it is opened (a
// static pool) or as they are asked for (a dynamic one), hands them out in the order in which they
// came back, and keeps the lowest number of free ones that it saw.
//
// Any thread may take and return buffers, and dump. Pools are initialised, opened, closed and ended
// by their owner. One semaphore guards the free lists of all pools; a call waits for it as long as
// another moves one buffer, and never for a buffer.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/buf.h"
#include "Common/framework/list.h"
#include "Common/framework/mod.h"

constexpr int kBufMaxPools = 1500;  // pools that are listed

typedef enum : UInt32 { kBufPoolClosed = 0, kBufPoolOpened = 1 } eBufPoolStateT;

// The record is zeroed before BufPoolInit; the owner may preset operations. Counters, lists and
// state change under freeListRegion; numFreeBufs may also be read without, through sharedfield.h.
typedef struct BufPoolS {
    ModT mod;
    eErrorT (*BuildFreeList)(struct BufPoolS* pBufPool);
    eErrorT (*DestroyFreeList)(struct BufPoolS* pBufPool);
    eErrorT (*SetFreeBufParms)(struct BufPoolS* pBufPool, unsigned int maxBufs, unsigned int bufLen,
                               unsigned int bufDescLen, unsigned int headerSpace, UInt32 memType);
    BufT* (*BufAlloc)(struct BufPoolS* pBufPool);
    eErrorT (*BufFree)(struct BufPoolS* pBufPool, BufT* pBuf);
    BufT* (*BufAllocMem)(unsigned int bufLen, unsigned int bufDescLen, unsigned int headerSpace,
                         UInt32 memType);
    void (*BufFreeMem)(BufT* pBuf, UInt32 memType);
    BufT* (*BufDescAlloc)(struct BufPoolS* pBufPool, BufT* pBuf);
    eErrorT (*BufDescFree)(struct BufPoolS* pBufPool, BufT* pBuf);
    unsigned int maxBufs;
    unsigned int numBufs;      // created; of a static pool: to be created
    unsigned int numFreeBufs;  // on the free list
    unsigned int bufLen;       // sizes, in bytes, multiples of 128
    unsigned int headerSpace;
    unsigned int bufDescLen;
    UInt32 memType;  // passed on to BufAllocMem and BufFreeMem
    void* pMem;      // not used
    ListT* pFreeBufs;
    ListT* pBufDescs;  // free descriptors without data
    eBufPoolStateT state;
    unsigned int minFreeBufs;        // lowest numFreeBufs seen; 0 in a dynamic pool
    unsigned int minFreeBufsThresh;  // not used
    ListT* pAllBufs;                 // not used
} BufPoolT;

extern std::atomic<BufPoolT*> gBufPools[kBufMaxPools];  // null: a free slot
extern std::atomic<int> numBufPools;                    // the pools in it
extern std::atomic<UInt32> freeListRegion;              // made with the first pool
extern std::atomic<Boolean> bDynamicPools;

// Initialises a pool of at most `maxBufs` buffers of `bufLen` bytes (more when rounded up), named
// and owned as ModInit has it; closed. The sizes are as BufAllocMem takes them. The 1501st pool
// works but is not listed. kNoError; an operation's error.
eErrorT BufPoolInit(BufPoolT* pBufPool, const char* pName, int instance, void* pOwner,
                    unsigned int maxBufs, unsigned int bufLen, unsigned int bufDescLen,
                    unsigned int headerSpace, UInt32 memType);

// Opens a pool: makes the buffers of a static one. Nothing to do for a pool of 0 buffers, or an
// open one. kNoError, or kOutOfMemory with the pool closed and no buffer kept.
eErrorT BufPoolOpen(BufPoolT* pBufPool);

// Closes a pool: frees what is on its free lists. Buffers that are out are freed as they come
// back. Always kNoError.
eErrorT BufPoolClose(BufPoolT* pBufPool);

// Closes and ends a pool. Buffers that are out must have come back. Waits while another thread
// finds or dumps this pool; its memory may go afterwards. Always kNoError.
eErrorT BufPoolExit(BufPoolT* pBufPool);

// Takes a buffer: empty, its bytes as they were left. Null when none is free and the pool has all
// it may have, or memory is exhausted.
BufT* BufPoolBufAlloc(BufPoolT* pBufPool);

// Returns a buffer, which is a ring of one, to its pool. kNoError.
eErrorT BufPoolBufFree(BufPoolT* pBufPool, BufT* pBuf);

// Take and return a descriptor without data of its own, for sharing the data of `pBuf`, one of the
// pool's buffers. Null when memory is exhausted; kNoError.
BufT* BufPoolDescAlloc(BufPoolT* pBufPool, BufT* pBuf);
eErrorT BufPoolDescFree(BufPoolT* pBufPool, BufT* pBuf);

// The first listed pool of that name, without regard to case, and instance (kModAnyInstance: any);
// null if there is none. Who uses it sees to it that it does not end meanwhile.
BufPoolT* BufPoolFindByName(const char* pName, int instance);

// Makes pools that are initialised from now on dynamic (1) or static (0, the initial state).
void BufPoolSetDynamic(Boolean dynamic);

// Tests the guards of all free buffers and logs each pool that has overwritten ones. Always
// kNoError.
eErrorT BufPoolCheckAll();

// "name[instance]", the instance in two digits, valid until the calling thread's next call; "none"
// for a null pool.
const char* BufPoolName(BufPoolT* pBufPool);

// Print one pool (the module's Dump), the heading, the open pools, all pools, to standard output.
eErrorT BufPoolDump(ModT* pMod, int verbose);
void BufPoolDumpHeading();
void BufPoolDumpOpen();
void BufPoolDumpAll();
