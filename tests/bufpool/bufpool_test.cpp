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

// A pool whose memory is counted. Ends with all its buffers freed.
struct PoolT {
    explicit PoolT(unsigned int max, const char* name = "pool", int instance = 0) {
        pool.BufAllocMem = CountedAlloc;
        pool.BufFreeMem = CountedFree;
        EXPECT_EQ(BufPoolInit(&pool, name, instance, &owner, max, 1000, sizeof(BufT), 10, 7),
                  kNoError);
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
    std::vector<BufT*> TakeAll() {
        std::vector<BufT*> all;
        while (BufT* pBuf = Take()) {
            all.push_back(pBuf);
        }
        return all;
    }
    std::set<BufT*> out;
    ModT owner = {};
    BufPoolT pool = {};
};

}  // namespace

TEST(BufPool, AStaticPoolMakesItsBuffersOnceAndHandsOutNoMore) {
    const StdoutFile out;
    PoolT p(4);
    EXPECT_EQ(p.Take(), nullptr) << "closed";
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    EXPECT_EQ(gMade, 4);
    std::vector<BufT*> all = p.TakeAll();
    ASSERT_EQ(std::set<BufT*>(all.begin(), all.end()).size(), 4U);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    EXPECT_EQ(gMade, 4) << "opened again with all buffers out";
    EXPECT_EQ(p.pool.numFreeBufs, 0U);
    EXPECT_EQ(p.pool.minFreeBufs, 0U);
    all[1]->len = 9;
    all[1]->pUser = &p;
    p.Return(all[1]);
    BufT* again = p.Take();
    EXPECT_EQ(again, all[1]);
    EXPECT_EQ(again->len, 0U);
    EXPECT_EQ(again->pUser, nullptr);
    EXPECT_EQ(again->pOwner, &p.owner);
    EXPECT_EQ(again->pBufPool, &p.pool);
    for (BufT* pBuf : all) {
        p.Return(pBuf);
    }
    EXPECT_EQ(p.pool.numFreeBufs, 4U);
    BufPoolDump(&p.pool.mod, 0);
    BufPoolDumpHeading();
    // 4 buffers of 1024 + 128 + 128 bytes, all in use at the peak.
    EXPECT_TRUE(
        out.Has("pool[00]                opened    4     1024   128   128    4     5K     5K "
                "100% 0x"));
    EXPECT_TRUE(out.Has("hdr  desc used memory   used   %\n----------------------"));
    EXPECT_EQ(BufPoolExit(&p.pool), kNoError);
    EXPECT_EQ(gFreed, 4);
    EXPECT_EQ(BufPoolFindByName("pool", 0), nullptr);
}

TEST(BufPool, ADynamicPoolGrowsToItsLimitAndKeepsWhatItMade) {
    BufPoolSetDynamic(1);
    PoolT p(3);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    EXPECT_EQ(gMade, 0);
    p.Return(p.Take());
    p.Return(p.Take());
    EXPECT_EQ(gMade, 1);
    gFailAfter = 0;
    BufT* pBuf = p.Take();
    EXPECT_EQ(p.Take(), nullptr) << "memory exhausted";
    gFailAfter = -1;
    std::vector<BufT*> rest = p.TakeAll();
    EXPECT_EQ(rest.size(), 2U) << "a failed attempt must not count";
    EXPECT_EQ(p.pool.numBufs, 3U);
    p.Return(pBuf);
    for (BufT* each : rest) {
        p.Return(each);
    }
    EXPECT_EQ(gFreed, 0);
    BufPoolExit(&p.pool);
    EXPECT_EQ(gFreed, 3);
}

TEST(BufPool, BuffersThatComeBackAfterTheCloseAreFreed) {
    PoolT p(3);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    BufT* first = p.Take();
    BufT* second = p.Take();
    BufT* desc = p.pool.BufDescAlloc(&p.pool, first);
    BufPoolClose(&p.pool);
    EXPECT_EQ(gFreed, 1);
    p.Return(first);
    p.Return(second);
    p.pool.BufDescFree(&p.pool, desc);
    EXPECT_EQ(gFreed, gMade);
    EXPECT_EQ(p.pool.numFreeBufs, 0U);
}

TEST(BufPool, AFailedPreallocationLeavesNothingBehind) {
    PoolT p(4);
    gFailAfter = 3;
    EXPECT_EQ(BufPoolOpen(&p.pool), kOutOfMemory);
    EXPECT_EQ(gMade, 3);
    EXPECT_EQ(gFreed, 3);
    EXPECT_EQ(p.pool.state, kBufPoolClosed);
    gFailAfter = -1;
    EXPECT_EQ(BufPoolOpen(&p.pool), kNoError);
    EXPECT_EQ(p.TakeAll().size(), 4U);
}

TEST(BufPool, SizesCannotChangeUnderAnOpenPool) {
    PoolT p(2);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    EXPECT_EQ(p.pool.SetFreeBufParms(&p.pool, 9, 1, 128, 0, 0), kBadState);
    EXPECT_EQ(p.pool.maxBufs, 2U);
    BufPoolClose(&p.pool);
    EXPECT_EQ(p.pool.SetFreeBufParms(&p.pool, 9, 1, sizeof(BufT), 0, 0), kNoError);
    EXPECT_EQ(p.pool.bufLen, 128U);
    EXPECT_EQ(p.pool.bufDescLen, 128U);
}

TEST(BufPool, DescriptorsShareDataAndAreReusedWithoutTheOldPointers) {
    PoolT p(1);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    BufT* pBuf = p.Take();
    BufT* desc = BufPoolDescAlloc(&p.pool, pBuf);
    EXPECT_EQ(desc->pData, nullptr);
    EXPECT_EQ(desc->dataLen, pBuf->dataLen);
    EXPECT_EQ(desc->headerSpace, pBuf->headerSpace);
    desc->pDup = pBuf;
    desc->pData = pBuf->pData;
    EXPECT_EQ(BufTestGuard(desc), kNoError) << "the shared buffer's guard";
    BufPoolDescFree(&p.pool, desc);
    EXPECT_EQ(BufPoolDescAlloc(&p.pool, pBuf), desc);
    EXPECT_EQ(desc->pData, nullptr);
    EXPECT_EQ(desc->pDup, nullptr);
    EXPECT_EQ(desc->ptr, nullptr);
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
    ASSERT_EQ(BufPoolOpen(&a.pool), kNoError);
    ASSERT_EQ(BufPoolOpen(&b.pool), kNoError);
    EXPECT_EQ(b.pool.state, kBufPoolClosed) << "nothing to open";
    BufPoolDumpOpen();
    EXPECT_TRUE(out.Has("Alpha[01]               opened"));
    EXPECT_FALSE(out.Has("beta[12]"));
    BufPoolDumpAll();
    EXPECT_TRUE(
        out.Has("beta[12]                closed    0     1024   128   128    0     0K     "
                "0K   0% 0x"));
    EXPECT_STREQ(BufPoolName(nullptr), "none");
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
    std::vector<BufPoolT> pools(kBufMaxPools + 1);
    for (int i = 0; i <= kBufMaxPools; i++) {
        ASSERT_EQ(BufPoolInit(&pools[static_cast<size_t>(i)], "many", i, nullptr, 1, 1, 128, 0, 0),
                  kNoError);
    }
    EXPECT_EQ(numBufPools, kBufMaxPools);
    EXPECT_EQ(BufPoolFindByName("many", kBufMaxPools), nullptr);
    BufPoolT& last = pools.back();
    ASSERT_EQ(BufPoolOpen(&last), kNoError);
    BufT* pBuf = BufPoolBufAlloc(&last);
    ASSERT_NE(pBuf, nullptr);
    BufPoolBufFree(&last, pBuf);
    BufPoolExit(&last);
    EXPECT_EQ(numBufPools, kBufMaxPools);
    BufPoolExit(&pools[0]);
    EXPECT_EQ(numBufPools, kBufMaxPools - 1);
}

TEST(BufPool, ProgrammingErrorsNameThePool) {
    static BufPoolT raw;
    const char* path = "Common/framework/bufpool";
    EXPECT_DEATH(BufPoolOpen(nullptr), path);
    EXPECT_DEATH(BufPoolBufAlloc(&raw), path);
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            BufPoolDump(&raw.mod, 0);
        },
        testing::KilledBySignal(SIGABRT), "ERROR, bad module ptr 0x");
    PoolT p(1);
    EXPECT_DEATH(BufPoolBufFree(&p.pool, nullptr), path);
}

// Each buffer carries the mark of the thread that holds it; a buffer in two hands is seen.
void UseBuffers(BufPoolT* pool, unsigned char mark, int rounds) {
    for (int round = 0; round < rounds; round++) {
        BufT* held[3];
        for (BufT*& each : held) {
            each = BufPoolBufAlloc(pool);
            if (each != nullptr) {
                memset(each->ptr, mark, 100);
            }
        }
        for (BufT* each : held) {
            if (each != nullptr) {
                ASSERT_EQ(each->ptr[0], mark);
                ASSERT_EQ(each->ptr[99], mark);
                BufPoolBufFree(pool, each);
            }
        }
    }
}

TEST(BufPool, ManyThreadsNeverShareOrLoseABuffer) {
    PoolT p(7);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    std::vector<std::thread> threads;
    for (unsigned char t = 1; t <= 4; t++) {
        threads.emplace_back(UseBuffers, &p.pool, t, 5000);
    }
    for (int i = 0; i < 100; i++) {
        BufPoolCheckAll();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(p.pool.numFreeBufs, 7U);
    EXPECT_EQ(p.TakeAll().size(), 7U);
    EXPECT_EQ(gMade, 7);
}

TEST(BufPool, ClosingWhileBuffersComeBackLosesNone) {
    for (int round = 0; round < 300; round++) {
        PoolT p(2);
        ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
        BufT* pBuf = p.Take();
        std::thread other([&] { p.Return(pBuf); });
        BufPoolClose(&p.pool);
        other.join();
        ASSERT_EQ(gMade, gFreed) << round;
    }
}

TEST(BufPool, TakingAndReturningDoesNotAllocate) {
    PoolT p(3);
    ASSERT_EQ(BufPoolOpen(&p.pool), kNoError);
    p.Return(p.Take());
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; i++) {
        BufT* a = p.Take();
        BufT* b = p.Take();
        p.Return(a);
        p.Return(b);
    }
    EXPECT_EQ(mallinfo2().uordblks, before);
    EXPECT_EQ(gMade, 3);
}
