// A growing pool of control blocks of one kind, each named by its 32-bit address.
//
// Memory of the pool is only ever reused for blocks of the same kind, so an id can be checked
// before it is believed: Find tells ids of the pool from any other number, and a block's own
// signature or state tells whether it is in use. Find takes no lock; Take, Give and ForEach must be
// serialised by the pool's user.
#pragma once

#include <atomic>
#include <bit>

#include "Common/OS/linux/lowmem.h"

template <typename T>
class BlockPoolT {
  public:
    // A block for use: zeroed when fresh, as it was given back otherwise. Null when memory is
    // exhausted.
    T* Take() {
        if (free_ == nullptr && !Grow()) {
            return nullptr;
        }
        T* block = free_;
        free_ = block->next;
        block->next = nullptr;
        return block;
    }

    // Takes a block back.
    void Give(T* block) {
        block->next = free_;
        free_ = block;
    }

    // The block, in use or free, that `id` names; null when the id is not one of the pool's.
    T* Find(UInt32 id) const {
        const int count = count_;
        for (int i = 0; i < count; i++) {
            const UInt32 offset = id - chunks_[i].first_id;
            if (offset < chunks_[i].bytes) {
                return offset % kStride == 0 ? from_id<T>(id) : nullptr;
            }
        }
        return nullptr;
    }

    // Calls `visit` for every block, in use or free.
    template <typename VisitT>
    void ForEach(VisitT visit) {
        for (int i = 0; i < count_; i++) {
            for (UInt32 offset = 0; offset < chunks_[i].bytes; offset += kStride) {
                visit(from_id<T>(chunks_[i].first_id + offset));
            }
        }
    }

  private:
    static constexpr int kFirstChunk = 32;  // blocks; each further chunk holds twice as many
    static constexpr int kMaxChunks = 20;
    // Blocks stand a power of two apart, so that checking an id costs no division.
    static constexpr UInt32 kStride = std::bit_ceil(static_cast<UInt32>(sizeof(T)));

    struct ChunkT {
        UInt32 first_id;
        UInt32 bytes;
    };

    bool Grow() {
        const int i = count_;
        if (i == kMaxChunks) {
            return false;
        }
        const UInt32 bytes = (static_cast<UInt32>(kFirstChunk) << i) * kStride;
        void* chunk = LowCalloc(bytes);
        if (chunk == nullptr) {
            return false;
        }
        const UInt32 first = id_of(chunk);
        for (UInt32 offset = bytes; offset > 0; offset -= kStride) {
            Give(from_id<T>(first + offset - kStride));
        }
        chunks_[i] = {first, bytes};
        count_ = i + 1;
        return true;
    }

    T* free_ = nullptr;
    ChunkT chunks_[kMaxChunks] = {};
    std::atomic<int> count_{0};
};
