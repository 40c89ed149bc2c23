// See buf.h for a buffer's layout.
#include "Common/framework/buf.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Common/OS/assertion.h"
#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/log.h"
#include "Common/framework/address.h"

namespace {

constexpr unsigned char kGuardBytes[2] = {0xAA, 0x55};
constexpr unsigned int kLargestSize = UINT32_MAX / kBufAlign * kBufAlign;

UInt64 RoundUp(UInt64 size) {
    return (size + kBufAlign - 1) / kBufAlign * kBufAlign;
}

unsigned int RoundUpSize(unsigned int size) {
    return size > kLargestSize ? kLargestSize : static_cast<unsigned int>(RoundUp(size));
}

// A shared or returned descriptor may still point at another's data: it has none of its own.
bool HasData(const BufT* pBuf) {
    return pBuf->pData != nullptr && pBuf->dataLen != 0;
}

unsigned char* GuardOf(const BufT* pBuf) {
    return pBuf->pData + pBuf->dataLen + pBuf->headerSpace;
}

void LogBadGuard(const BufT* pBuf) {
    char bytes[kBufGuardSize * 3 + 1];
    for (unsigned int i = 0; i < kBufGuardSize; i++) {
        snprintf(bytes + i * 3, 4, "%02x ", pBuf->pData[pBuf->dataLen + i]);
    }
    logerr("buf", "possible corrupt buffer, guard pattern failed: %s\n", bytes);
}

BufT* NextSegment(BufT* pBuf, BufT* segment) {
    return reinterpret_cast<BufT*>(ListNextElement(&pBuf->list, &segment->list));
}

// Calls `visit` for each part of the valid data that the range covers, with the bytes passed so
// far. Returns the bytes covered.
template <typename VisitT>
unsigned int VisitData(BufT* pBuf, unsigned int offset, unsigned int len, VisitT visit) {
    unsigned int done = 0;
    for (BufT* at = pBuf; at != nullptr && done < len; at = NextSegment(pBuf, at)) {
        if (offset >= at->len) {
            offset -= at->len;
            continue;
        }
        const unsigned int room = at->len - offset;
        const unsigned int part = len - done < room ? len - done : room;
        visit(at->ptr + offset, done, part);
        done += part;
        offset = 0;
    }
    return done;
}

template <typename SizeT>
unsigned int SumSegments(BufT* pBuf, SizeT size) {
    OsAssert(pBuf);
    unsigned int sum = 0;
    for (BufT* at = pBuf; at != nullptr; at = NextSegment(pBuf, at)) {
        sum += size(at);
    }
    return sum;
}

unsigned int RoomOf(const BufT* pBuf) {
    if (!HasData(pBuf)) {
        return 0;
    }
    const unsigned char* end = GuardOf(pBuf);
    const unsigned char* used = pBuf->ptr + pBuf->len;
    return used < end ? static_cast<unsigned int>(end - used) : 0;
}

}  // namespace

BufT* BufAllocMem(unsigned int bufLen, unsigned int bufDescLen, unsigned int headerSpace, UInt32) {
    OsAssert(bufDescLen >= sizeof(BufT));
    OsAssert(bufDescLen <= UINT16_MAX);
    OsAssert(headerSpace <= UINT16_MAX);
    UInt64 size = bufDescLen;
    if (bufLen != 0) {
        size += UInt64{bufLen} + headerSpace + kBufExtra + kBufGuardSize;
    }
    size = RoundUp(size);
    if (size > UINT32_MAX) {
        return nullptr;
    }
    void* block = aligned_alloc(kBufAlign, static_cast<size_t>(size));
    if (block == nullptr) {
        return nullptr;
    }
    memset(block, 0, static_cast<size_t>(size));
    auto* pBuf = static_cast<BufT*>(block);
    pBuf->bufDescLen = static_cast<UInt16>(bufDescLen);
    pBuf->headerSpace = static_cast<UInt16>(headerSpace);
    if (bufLen != 0) {
        pBuf->pData = static_cast<unsigned char*>(block) + bufDescLen;
        pBuf->dataLen = bufLen + kBufExtra;
        for (unsigned int i = 0; i < kBufGuardSize; i++) {
            GuardOf(pBuf)[i] = kGuardBytes[i % 2];
        }
    }
    BufInit(pBuf);
    pBuf->list.next = &pBuf->list;
    pBuf->list.prev = &pBuf->list;
    return pBuf;
}

void BufFreeMem(BufT* pBuf, UInt32) {
    OsAssert(pBuf);
    if (pBuf->refCount >= 2) {
        return;
    }
    if (BufTestGuard(pBuf) != kNoError) {
        const NoCancelT no_cancel;  // a task deleted while it prints still frees
        LogBadGuard(pBuf);
        BufDump(pBuf);
    }
    free(pBuf);
}

void BufInit(BufT* pBuf) {
    OsAssert(pBuf);
    pBuf->len = 0;
    pBuf->refCount = 1;
    pBuf->ptr = nullptr;
    if (pBuf->pData != nullptr) {
        unsigned char* first = pBuf->pData + pBuf->headerSpace;
        const auto address = reinterpret_cast<std::uintptr_t>(first);
        pBuf->ptr = first + (kBufAlign - address % kBufAlign) % kBufAlign;
    }
}

void BufAlignParms(unsigned int* pBufDescLen, unsigned int* pHeaderSpace, unsigned int* pBufLen) {
    OsAssert(pBufDescLen);
    OsAssert(pHeaderSpace);
    OsAssert(pBufLen);
    *pBufDescLen = RoundUpSize(*pBufDescLen);
    *pHeaderSpace = RoundUpSize(*pHeaderSpace);
    *pBufLen = RoundUpSize(*pBufLen);
}

unsigned int BufWrite(BufT* pBuf, unsigned int offset, unsigned int len, const void* ptr) {
    OsAssert(pBuf);
    OsAssert(ptr);
    const auto* from = static_cast<const unsigned char*>(ptr);
    return VisitData(pBuf, offset, len,
                     [from](unsigned char* data, unsigned int done, unsigned int part) {
                         memcpy(data, from + done, part);
                     });
}

unsigned int BufRead(BufT* pBuf, unsigned int offset, unsigned int len, void* ptr) {
    OsAssert(pBuf);
    OsAssert(ptr);
    auto* to = static_cast<unsigned char*>(ptr);
    return VisitData(pBuf, offset, len,
                     [to](const unsigned char* data, unsigned int done, unsigned int part) {
                         memcpy(to + done, data, part);
                     });
}

unsigned int BufLenUnprot(BufT* pBuf) {
    return SumSegments(pBuf, [](const BufT* at) { return at->len; });
}

unsigned int BufCountUnprot(BufT* pBuf) {
    return SumSegments(pBuf, [](const BufT*) { return 1U; });
}

unsigned int BufSpaceUnprot(BufT* pBuf) {
    return SumSegments(pBuf, RoomOf);
}

unsigned int BufLen(BufT* pBuf) {
    const InterruptsOffT section;
    return BufLenUnprot(pBuf);
}

unsigned int BufCount(BufT* pBuf) {
    const InterruptsOffT section;
    return BufCountUnprot(pBuf);
}

unsigned int BufSpace(BufT* pBuf) {
    const InterruptsOffT section;
    return BufSpaceUnprot(pBuf);
}

eErrorT BufTestGuard(BufT* pBuf) {
    OsAssert(pBuf);
    if (!HasData(pBuf) || pBuf->pDstProxyBuf != nullptr) {
        return kNoError;
    }
    const unsigned char* guard = GuardOf(pBuf);
    for (unsigned int i = 0; i < kBufGuardSize; i++) {
        if (guard[i] != kGuardBytes[i % 2]) {
            return kFuncReturnedError;
        }
    }
    return kNoError;
}

void BufDump(BufT* pBuf) {
    OsAssert(pBuf);
    printf("buffer 0x%8.8x pool 0x%8.8x owner 0x%8.8x refs %d segments %u\n", shown_address(pBuf),
           shown_address(pBuf->pBufPool), shown_address(pBuf->pOwner), pBuf->refCount,
           BufCount(pBuf));
    printf("  desc %d header %d data 0x%8.8x size %u valid 0x%8.8x len %u dup 0x%8.8x sent %ums\n",
           pBuf->bufDescLen, pBuf->headerSpace, shown_address(pBuf->pData), pBuf->dataLen,
           shown_address(pBuf->ptr), pBuf->len, shown_address(pBuf->pDup), pBuf->timeSent);
}
