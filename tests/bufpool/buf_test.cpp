// Buffers: layout, guard and chains.
#include "Common/framework/buf.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>

#include "Common/OS/syslogq.h"
#include "tests/support/stdout_file.h"

namespace {

// The smallest descriptor area: 64 on the board, more where pointers are wider.
constexpr unsigned int kDesc = sizeof(void*) == 4 ? 64 : 128;

struct FreeBuf {
    void operator()(BufT* pBuf) const {
        pBuf->refCount = 1;
        BufFreeMem(pBuf, 0);
    }
};
typedef std::unique_ptr<BufT, FreeBuf> OwnedBuf;

OwnedBuf Alloc(unsigned int len, unsigned int desc = kDesc, unsigned int header = 0) {
    return OwnedBuf(BufAllocMem(len, desc, header, 0));
}

unsigned char* BlockOf(const OwnedBuf& buf) {
    return reinterpret_cast<unsigned char*>(buf.get());
}

}  // namespace

TEST(Buf, LayoutPutsDataHeaderAndGuardWhereDriversExpectThem) {
    {
        const OwnedBuf dirty = Alloc(5000);  // memory that the next ones get
        memset(dirty->pData, 0xFF, dirty->dataLen);
    }
    const struct {
        unsigned int len, desc, header, first_data;
    } cases[] = {
        {100, kDesc, 0, 128},
        {1, 128, 128, 256},
        {5000, 200, 100, 384},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        const OwnedBuf buf = Alloc(c.len, c.desc, c.header);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buf.get()) % 128, 0U);
        EXPECT_EQ(buf->pData, BlockOf(buf) + c.desc);
        EXPECT_EQ(buf->ptr, BlockOf(buf) + c.first_data);
        const unsigned char* guard = buf->pData + c.len + 256 + c.header;
        for (int i = 0; i < 16; i++) {
            EXPECT_EQ(guard[i], i % 2 == 0 ? 0xAA : 0x55);
        }
        EXPECT_EQ(std::accumulate(buf->pData, buf->pData + buf->dataLen + c.header, 0), 0);
        EXPECT_EQ(BufSpace(buf.get()), c.desc + c.len + 256 + c.header - c.first_data);
    }
}

TEST(Buf, EveryOverwrittenGuardByteIsSeenAndLoggedWhenFreed) {
    const StdoutFile out;
    InitSyslogInterface();
    for (const unsigned int at : {0U, 1U, 15U}) {
        OwnedBuf buf = Alloc(100);
        buf->pData[buf->dataLen + at] ^= 0xFF;
        EXPECT_EQ(BufTestGuard(buf.get()), kFuncReturnedError);
        buf->pDstProxyBuf = buf.get();  // the proxy's: not tested
        EXPECT_EQ(BufTestGuard(buf.get()), kNoError);
        buf->pDstProxyBuf = nullptr;
        buf->len = 1000;
        EXPECT_EQ(BufSpace(buf.get()), 0U);
        buf->refCount = 2;
        BufFreeMem(buf.get(), 0);  // still referenced: stays
        EXPECT_EQ(buf->dataLen, 356U);
    }
    EXPECT_TRUE(out.WaitFor("buf: possible corrupt buffer, guard pattern failed: "));
    EXPECT_TRUE(out.WaitFor("aa 55 aa 55 aa 55 aa 55 aa 55 aa 55 aa 55 aa aa \n"));
}

TEST(Buf, CopiesCrossSegmentsAndNeverLeaveTheValidData) {
    const OwnedBuf first = Alloc(100);
    const OwnedBuf empty = Alloc(100);
    const OwnedBuf last = Alloc(100);
    ListT* ring = nullptr;
    for (BufT* buf : {first.get(), empty.get(), last.get()}) {
        ListEnqueueUnprot(&ring, &buf->list);
    }
    first->len = 5;
    last->len = 4;
    EXPECT_EQ(BufLen(first.get()), 9U);
    EXPECT_EQ(BufCount(first.get()), 3U);
    const struct {
        unsigned int offset, len, copied;
        const char* expected;  // the nine bytes afterwards
    } cases[] = {{3, 4, 4, "...ABCD.."}, {5, 4, 4, ".....ABCD"}, {7, 9, 2, ".......AB"},
                 {9, 3, 0, "........."}, {2, 0, 0, "........."}, {0, 99, 9, "ABCDEFGHI"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        memset(first->ptr, '.', 20);
        memset(last->ptr, '.', 20);
        char source[100];
        std::iota(source, source + sizeof(source), 'A');
        EXPECT_EQ(BufWrite(first.get(), c.offset, c.len, source), c.copied);
        char back[100] = "";
        EXPECT_EQ(BufRead(first.get(), 0, sizeof(back), back), 9U);
        EXPECT_STREQ(back, c.expected);
        char part[100] = "";
        EXPECT_EQ(BufRead(first.get(), c.offset, c.len, part), c.copied);
        EXPECT_EQ(std::string(part), std::string(source, c.copied));
        EXPECT_TRUE(first->ptr[5] == '.' && last->ptr[4] == '.');
    }
    for (const OwnedBuf* buf : {&first, &empty, &last}) {
        ListExtractUnprot(&ring, &(*buf)->list);
    }
}
