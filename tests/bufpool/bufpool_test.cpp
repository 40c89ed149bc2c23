// Buffer pools.
#include "Common/framework/bufpool.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "Common/OS/syslogq.h"
#include "tests/support/stdout_file.h"

namespace {

std::atomic<int> gMade{0};
std::atomic<int> gFreed{0};
std::atomic<int> gFailAfter{-1};  // allocations that still succeed; -1: all

BufT* CountedAlloc(unsigned int len, unsigned int desc, unsigned int header, UInt32 type) {
    if (gFailAfter >= 0 && gFailAfter-- == 0) {
        gFailAfter = 0;
        return nullptr;
    }
    gMade++;
    return BufAllocMem(len, desc, header, type);
}

void CountedFree(BufT* pBuf, UInt32 type) {
    gFreed++;
    BufFreeMem(pBuf, type);
}

// An open pool whose memory is counted. Ends with all its buffers freed.
struct PoolT {
    explicit PoolT(unsigned int max, const char* name = "pool", int instance = 0) {
        pool.BufAllocMem = CountedAlloc;
        pool.BufFreeMem = CountedFree;
        EXPECT_EQ(BufPoolInit(&pool, name, instance, &owner, max, 1000, sizeof(BufT), 10, 7),
                  kNoError);
        opened = BufPoolOpen(&pool);
    }
    ~PoolT() {
        for (BufT* pBuf : std::set<BufT*>(out)) {
            Return(pBuf);
        }
        BufPoolExit(&pool);
        EXPECT_TRUE(numBufPools != 0 || gMade == gFreed) << gMade << ' ' << gFreed;
    }
    PoolT(const PoolT&) = delete;
    PoolT& operator=(const PoolT&) = delete;

    BufT* Take() {
        BufT* pBuf = BufPoolBufAlloc(&pool);
        if (pBuf != nullptr) {
            out.insert(pBuf);
        }
        return pBuf;
    }
    void Return(BufT* pBuf) {
        out.erase(pBuf);
        EXPECT_EQ(BufPoolBufFree(&pool, pBuf), kNoError);
    }
    // Takes what there is; the number of different buffers that are out then.
    size_t TakeAll() {
        while (Take() != nullptr) {
        }
        return out.size();
    }
    eErrorT opened;
    std::set<BufT*> out;
    ModT owner = {};
    BufPoolT pool = {};
};

}  // namespace

TEST(BufPool, AStaticPoolMakesItsBuffersOnceAndHandsOutNoMore) {
    const StdoutFile out;
    PoolT p(4);
    EXPECT_EQ(p.TakeAll(), 4U);
    EXPECT_EQ(BufPoolOpen(&p.pool), kNoError);
    EXPECT_EQ(gMade, 4) << "opened again with all buffers out";
    EXPECT_EQ(p.pool.numFreeBufs + p.pool.minFreeBufs, 0U);
    BufT* pBuf = *p.out.begin();
    p.Return(pBuf);
    EXPECT_EQ(p.Take(), pBuf);
    p.Return(pBuf);
    BufPoolDump(&p.pool.mod, 0);
    // 4 buffers of 1024 + 128 + 128 bytes, all in use at the peak.
    EXPECT_TRUE(
        out.Has("pool[00]                opened    4     1024   128   128    4     5K     5K "
                "100% 0x"));
}

TEST(BufPool, ADynamicPoolGrowsToItsLimitAndKeepsWhatItMade) {
    BufPoolSetDynamic(1);
    PoolT p(3);
    EXPECT_EQ(gMade, 0);
    p.Return(p.Take());
    p.Return(p.Take());
    EXPECT_EQ(gMade, 1);
    gFailAfter = 0;
    EXPECT_EQ(p.TakeAll(), 1U) << "memory exhausted";
    gFailAfter = -1;
    EXPECT_EQ(p.TakeAll(), 3U) << "a failed attempt must not count";
    EXPECT_EQ(p.pool.numBufs, 3U);
    for (BufT* each : std::set<BufT*>(p.out)) {
        p.Return(each);
    }
    EXPECT_EQ(gFreed, 0);
}

TEST(BufPool, BuffersThatComeBackAfterTheCloseAreFreed) {
    PoolT p(3);
    BufT* first = p.Take();
    BufT* second = p.Take();
    BufT* desc = p.pool.BufDescAlloc(&p.pool, first);
    BufPoolClose(&p.pool);
    EXPECT_EQ(gFreed, 1);
    EXPECT_EQ(p.Take(), nullptr);
    p.Return(first);
    p.Return(second);
    p.pool.BufDescFree(&p.pool, desc);
    EXPECT_EQ(gFreed, gMade);
    EXPECT_EQ(p.pool.numFreeBufs, 0U);
}

TEST(BufPool, AFailedPreallocationLeavesNothingBehind) {
    gFailAfter = 3;
    PoolT p(4);
    EXPECT_EQ(p.opened, kOutOfMemory);
    EXPECT_EQ(gMade, 3);
    EXPECT_EQ(gFreed, 3);
    EXPECT_EQ(p.pool.state, kBufPoolClosed);
    gFailAfter = -1;
    EXPECT_EQ(BufPoolOpen(&p.pool), kNoError);
    EXPECT_EQ(p.TakeAll(), 4U);
}

TEST(BufPool, ListedPoolsAreFoundAndChecked) {
    const StdoutFile out;
    InitSyslogInterface();
    PoolT a(1, "Alpha", 1);
    EXPECT_EQ(BufPoolFindByName("alpha", 1), &a.pool);
    BufT* pBuf = a.Take();
    unsigned char* guard = pBuf->pData + pBuf->dataLen + pBuf->headerSpace;
    guard[3] = 0;
    a.Return(pBuf);
    EXPECT_EQ(BufPoolCheckAll(), kNoError);
    EXPECT_TRUE(out.WaitFor("buf: pool Alpha[01]: 1 free buffers with a bad guard\n"));
    guard[3] = 0x55;
    EXPECT_EQ(a.Take(), pBuf) << "checked buffers stay free";
}

TEST(BufPool, ManyThreadsNeverShareOrLoseABuffer) {
    PoolT p(3);
    // Each buffer carries the mark of the thread that holds it; a buffer in two hands is seen.
    const auto use = [&p](unsigned char mark) {
        for (int round = 0; round < 100000; round++) {
            if (BufT* pBuf = BufPoolBufAlloc(&p.pool)) {
                memset(pBuf->ptr, mark, 100);
                ASSERT_TRUE(pBuf->ptr[0] == mark && pBuf->ptr[99] == mark);
                BufPoolBufFree(&p.pool, pBuf);
            }
        }
    };
    std::vector<std::jthread> threads;
    for (unsigned char t = 1; t <= 4; t++) {
        threads.emplace_back(use, t);
    }
    for (int i = 0; i < 100; i++) {
        BufPoolCheckAll();
    }
    threads.clear();
    EXPECT_EQ(p.pool.numFreeBufs, 3U);
    EXPECT_EQ(p.TakeAll(), 3U);
}

TEST(BufPool, ClosingWhileBuffersComeBackLosesNone) {
    for (int round = 0; round < 3000; round++) {
        PoolT p(2);
        BufT* pBuf = p.Take();
        std::thread other([&] { p.Return(pBuf); });
        BufPoolClose(&p.pool);
        other.join();
        ASSERT_EQ(gMade, gFreed) << round;
    }
}

TEST(BufPool, TakingAndReturningDoesNotAllocate) {
    PoolT p(3);
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; i++) {
        BufT* a = BufPoolBufAlloc(&p.pool);
        BufT* b = BufPoolBufAlloc(&p.pool);
        BufPoolBufFree(&p.pool, a);
        BufPoolBufFree(&p.pool, b);
    }
    EXPECT_EQ(mallinfo2().uordblks, before);
}

namespace {

BufPoolT gPool;
BufT* gLate;
bool gReopen;

// The second buffer of a pool that is opened again: one of before comes back just then.
BufT* AllocLate(unsigned int len, unsigned int desc, unsigned int header, UInt32 type) {
    if (gLate != nullptr && gPool.numFreeBufs == 1) {
        BufPoolBufFree(&gPool, std::exchange(gLate, nullptr));
    }
    return BufAllocMem(len, desc, header, type);
}

// The first buffer that comes back to the closed pool: it is opened while that one is freed.
void FreeLate(BufT* pBuf, UInt32 type) {
    BufFreeMem(pBuf, type);
    if (std::exchange(gReopen, false)) {
        EXPECT_EQ(BufPoolOpen(&gPool), kNoError);
    }
}

}  // namespace

TEST(BufPool, LateBuffersNeitherCloseThePoolNorTakeItsBuffersAlong) {
    gPool.BufAllocMem = AllocLate;
    gPool.BufFreeMem = FreeLate;
    BufPoolInit(&gPool, "pool", 0, nullptr, 3, 100, sizeof(BufT), 0, 0);
    BufPoolOpen(&gPool);
    BufT* first = BufPoolBufAlloc(&gPool);
    BufT* late = BufPoolBufAlloc(&gPool);
    BufPoolClose(&gPool);
    gLate = late;
    gReopen = true;
    BufPoolBufFree(&gPool, first);
    EXPECT_EQ(gPool.state, kBufPoolOpened);
    EXPECT_EQ(gPool.numFreeBufs, 4U) << "three made, and the late one";
    BufT* taken[4];
    for (BufT*& pBuf : taken) {
        pBuf = BufPoolBufAlloc(&gPool);
        ASSERT_NE(pBuf, nullptr);
    }
    BufPoolBufFree(&gPool, taken[2]);
    BufPoolBufFree(&gPool, taken[0]);
    EXPECT_EQ(BufPoolBufAlloc(&gPool), taken[2]) << "not the one that rested longest";
    BufPoolExit(&gPool);
    for (const int i : {1, 2, 3}) {
        BufPoolBufFree(&gPool, taken[i]);
    }
}

TEST(BufPool, AStaticPoolKeepsItsPeakThoughLaterPoolsAreDynamic) {
    PoolT p(3);
    BufPoolSetDynamic(1);
    p.Return(p.Take());
    EXPECT_EQ(p.pool.minFreeBufs, 2U);
}

TEST(BufPool, ASizeThatCannotBeRoundedUpIsNotTakenForNone) {
    BufPoolInit(&gPool, "pool", 0, nullptr, 1, UINT32_MAX, sizeof(BufT), 0, 0);
    EXPECT_EQ(BufPoolOpen(&gPool), kOutOfMemory);
}
