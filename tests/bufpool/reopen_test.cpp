// Buffers that come back late, while their pool is opened again; pools made in odd ways.
#include <gtest/gtest.h>

#include <utility>

#include "Common/framework/bufpool.h"

namespace {

BufPoolT gPool;
BufT* gLate;
bool gReopen;

// The second buffer of a pool that is opened again: one of before comes back just then.
BufT* Alloc(unsigned int len, unsigned int desc, unsigned int header, UInt32 type) {
    if (gLate != nullptr && gPool.numFreeBufs == 1) {
        BufPoolBufFree(&gPool, std::exchange(gLate, nullptr));
    }
    return BufAllocMem(len, desc, header, type);
}

// The first buffer that comes back to the closed pool: it is opened while that one is freed.
void Free(BufT* pBuf, UInt32 type) {
    BufFreeMem(pBuf, type);
    if (std::exchange(gReopen, false)) {
        EXPECT_EQ(BufPoolOpen(&gPool), kNoError);
    }
}

}  // namespace

TEST(BufPoolReopen, LateBuffersNeitherCloseThePoolNorTakeItsBuffersAlong) {
    gPool.BufAllocMem = Alloc;
    gPool.BufFreeMem = Free;
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

TEST(BufPoolReopen, AStaticPoolKeepsItsPeakThoughLaterPoolsAreDynamic) {
    BufPoolInit(&gPool, "pool", 0, nullptr, 3, 100, sizeof(BufT), 0, 0);
    BufPoolOpen(&gPool);
    BufPoolSetDynamic(1);
    BufPoolBufFree(&gPool, BufPoolBufAlloc(&gPool));
    EXPECT_EQ(gPool.minFreeBufs, 2U);
    BufPoolExit(&gPool);
}

TEST(BufPoolReopen, ASizeThatCannotBeRoundedUpIsNotTakenForNone) {
    BufPoolInit(&gPool, "pool", 0, nullptr, 1, UINT32_MAX, sizeof(BufT), 0, 0);
    EXPECT_EQ(BufPoolOpen(&gPool), kOutOfMemory);
}
