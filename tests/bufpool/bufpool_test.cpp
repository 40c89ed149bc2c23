// Buffer pools.
#include "Common/framework/bufpool.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <set>
#include <thread>
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
    pBuf->len = 9;
    pBuf->pUser = &p;
    p.Return(pBuf);
    EXPECT_EQ(p.Take(), pBuf);
    EXPECT_EQ(pBuf->len, 0U);
    EXPECT_EQ(pBuf->pUser, nullptr);
    EXPECT_EQ(pBuf->pOwner, &p.owner);
    EXPECT_EQ(pBuf->pBufPool, &p.pool);
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

TEST(BufPool, SizesAreRoundedAndCannotChangeUnderAnOpenPool) {
    PoolT p(2);
    EXPECT_EQ(p.pool.SetFreeBufParms(&p.pool, 9, 1, 128, 0, 0), kBadState);
    EXPECT_EQ(p.pool.maxBufs, 2U);
    BufPoolClose(&p.pool);
    EXPECT_EQ(p.pool.SetFreeBufParms(&p.pool, 9, 1, 128, 0, 0), kNoError);
    EXPECT_EQ(p.pool.bufLen, 128U);
    EXPECT_EQ(p.pool.bufDescLen, 128U);
    EXPECT_EQ(p.pool.headerSpace, 0U);
}

TEST(BufPool, DescriptorsShareDataAndAreReusedWithoutTheOldPointers) {
    PoolT p(1);
    BufT* pBuf = p.Take();
    BufT* desc = BufPoolDescAlloc(&p.pool, pBuf);
    EXPECT_EQ(desc->pData, nullptr);
    desc->pDup = pBuf;
    desc->pData = pBuf->pData;
    EXPECT_EQ(BufTestGuard(desc), kNoError) << "the shared buffer's guard";
    BufPoolDescFree(&p.pool, desc);
    EXPECT_EQ(BufPoolDescAlloc(&p.pool, pBuf), desc);
    EXPECT_TRUE(desc->pData == nullptr && desc->pDup == nullptr && desc->ptr == nullptr);
    BufPoolDescFree(&p.pool, desc);
}

TEST(BufPool, ListedPoolsAreFoundDumpedAndChecked) {
    const StdoutFile out;
    InitSyslogInterface();
    PoolT a(1, "Alpha", 1);
    PoolT b(0, "beta", 12);
    EXPECT_EQ(BufPoolFindByName("alpha", 1), &a.pool);
    EXPECT_EQ(BufPoolFindByName("BETA", kModAnyInstance), &b.pool);
    EXPECT_EQ(BufPoolFindByName("alpha", 2), nullptr);
    EXPECT_EQ(b.pool.state, kBufPoolClosed) << "nothing to open";
    BufPoolDumpOpen();
    EXPECT_TRUE(out.Has("desc used memory   used   %\n----------------------"));
    EXPECT_TRUE(out.Has("Alpha[01]               opened"));
    EXPECT_FALSE(out.Has("beta[12]"));
    BufPoolDumpAll();
    EXPECT_TRUE(
        out.Has("beta[12]                closed    0     1024   128   128    0     0K     "
                "0K   0% 0x"));
    BufT* pBuf = a.Take();
    unsigned char* guard = pBuf->pData + pBuf->dataLen + pBuf->headerSpace;
    guard[3] = 0;
    a.Return(pBuf);
    EXPECT_EQ(BufPoolCheckAll(), kNoError);
    EXPECT_TRUE(out.WaitFor("buf: pool Alpha[01]: 1 free buffers with a bad guard\n"));
    guard[3] = 0x55;
    EXPECT_EQ(a.Take(), pBuf) << "checked buffers stay free";
}

TEST(BufPool, ThePoolThatDoesNotFitTheTableStillWorks) {
    std::vector<BufPoolT> pools(kBufMaxPools);
    for (BufPoolT& pool : pools) {
        ASSERT_EQ(BufPoolInit(&pool, "many", 0, nullptr, 1, 1, 128, 0, 0), kNoError);
    }
    {
        PoolT last(1, "last");
        EXPECT_EQ(BufPoolFindByName("last", 0), nullptr);
        EXPECT_NE(last.Take(), nullptr);
    }
    EXPECT_EQ(numBufPools, kBufMaxPools);
    BufPoolExit(&pools[0]);
    EXPECT_EQ(numBufPools, kBufMaxPools - 1);
}

TEST(BufPool, APoolThatWasNotInitialisedEndsTheProgramByItsAddress) {
    const auto take = [] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        BufPoolT raw = {};
        BufPoolBufAlloc(&raw);
    };
    EXPECT_EXIT(take(), testing::KilledBySignal(SIGABRT),
                "ERROR, bad module ptr 0x.*\n.*Common/framework/bufpool");
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
