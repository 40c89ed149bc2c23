// Data buffers. One allocation holds a descriptor (BufT), room for headers, the data and a guard
// that shows writing past the end:
//
//   descriptor area   bufDescLen bytes, at least a BufT
//   data area         from pData on: headerSpace, then dataLen = requested length + 256 bytes; the
//                     valid data begins at ptr, aligned to 128, and has len bytes
//   guard             16 bytes, AA 55 AA 55 ..., at pData + dataLen + headerSpace
//
// Descriptors are linked into a ring (list) to form one logical buffer of several segments. A
// buffer belongs to one task at a time; the calls that walk a ring exist in two forms, of which the
// plain one does so in the interrupts-off section and the Unprot one leaves locking to the caller.
// Nothing here blocks for longer than that section; allocation is the C library's.
#pragma once

#include "Common/OS/errors.h"
#include "Common/OS/types.h"
#include "Common/framework/list.h"

constexpr unsigned int kBufAlign = 128;     // bytes; of blocks, of ptr, and of all sizes of pools
constexpr unsigned int kBufExtra = 256;     // bytes of a data area beyond the requested length
constexpr unsigned int kBufGuardSize = 16;  // bytes

typedef struct BufS {
    ListT list;             // ring of segments, or node of a pool's free list
    UInt16 bufDescLen;      // bytes of the descriptor area
    UInt16 refCount;        // 2 or more: BufFreeMem leaves the buffer alone
    void* pOwner;           // the pool's owner module
    unsigned char* pData;   // null for a descriptor without data
    unsigned int dataLen;   // usable bytes of the data area, header space not counted
    unsigned char* ptr;     // the valid data
    unsigned int len;       // bytes of valid data
    struct BufS* pDup;      // the buffer whose data this descriptor shares, if any
    UInt16 headerSpace;     // bytes kept free in front of the data
    UInt16 srcProcNum;      // the processor that the buffer came from
    void* pUser;            // the user's word; null when taken from a pool
    void* pSrcProxyBuf;     // the proxies' own
    void* pDstProxyBuf;     // the same; while set, the guard is not tested
    void* pProxyOwner;      // the same
    unsigned int timeSent;  // ms clock when last taken from its pool
    void* pBufPool;         // the pool, null for none
} BufT;

// Allocates a buffer of its own for `bufLen` bytes, or a descriptor without data when that is 0:
// one block, aligned to 128 and zeroed, initialised, a ring of one. `bufDescLen` is at least
// sizeof(BufT); it and `headerSpace` are at most 65535. `memType` is not looked at. Null when
// memory is exhausted or the sizes add up to more than 4 GiB. The caller owns the buffer.
BufT* BufAllocMem(unsigned int bufLen, unsigned int bufDescLen, unsigned int headerSpace,
                  UInt32 memType);

// Frees a buffer of BufAllocMem unless its reference count is 2 or more. A guard that was
// overwritten is logged with the buffer, which is freed all the same.
void BufFreeMem(BufT* pBuf, UInt32 memType);

// Makes a buffer empty: no valid data, ptr at its first place, one reference.
void BufInit(BufT* pBuf);

// Rounds each size up to a multiple of 128, 0 staying 0; what would not fit becomes the largest
// multiple, which is more than BufAllocMem can give.
void BufAlignParms(unsigned int* pBufDescLen, unsigned int* pHeaderSpace, unsigned int* pBufLen);

// Copy up to `len` bytes between `ptr` and the valid data of a ring, from the byte `offset` on.
// Only valid data is touched; a buffer's length does not change. Return the bytes copied, 0 for an
// offset behind the data. Take no lock.
unsigned int BufWrite(BufT* pBuf, unsigned int offset, unsigned int len, const void* ptr);
unsigned int BufRead(BufT* pBuf, unsigned int offset, unsigned int len, void* ptr);

// Over all segments of a ring: the bytes of valid data, the number of segments, the bytes of room
// behind the valid data.
unsigned int BufLen(BufT* pBuf);
unsigned int BufCount(BufT* pBuf);
unsigned int BufSpace(BufT* pBuf);
unsigned int BufLenUnprot(BufT* pBuf);
unsigned int BufCountUnprot(BufT* pBuf);
unsigned int BufSpaceUnprot(BufT* pBuf);

// kFuncReturnedError when the guard was overwritten; kNoError otherwise, also for a buffer that has
// no guard to test.
eErrorT BufTestGuard(BufT* pBuf);

// Prints the descriptor to standard output.
void BufDump(BufT* pBuf);
