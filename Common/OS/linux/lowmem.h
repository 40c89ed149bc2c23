// Control blocks whose addresses serve as 32-bit identifiers.
//
// Tasks, timers, semaphores and devices are named by the address of their control block, carried in
// a UInt32. On the board every address fits. On a 64-bit workstation the blocks must lie under
// 4 GiB: heap blocks come from LowCalloc, static ones are low because programs are linked at fixed
// addresses. id_of and from_id are the only places that convert. Any thread may call; nothing here
// blocks for longer than a short lock.
#pragma once

#include <cstdint>

#include "Common/OS/assertion.h"
#include "Common/OS/types.h"

// Zeroed memory for `size` bytes, aligned to 16, addressable in 32 bits; null when memory is
// exhausted. Freed with LowFree only.
void* LowCalloc(size_t size);

// Gives back a block of LowCalloc; null is ignored. The block's contents are
// destroyed at once, so a signature in it is gone.
void LowFree(void* block);

// Bytes handed out and not yet given back, for leak checks.
size_t LowBytesInUse();

// The identifier of a control block; 0 for null.
inline UInt32 id_of(const volatile void* block) {
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    OsAssertText(address <= UINT32_MAX, "control block under 4 GiB");
    return static_cast<UInt32>(address);
}

// The control block of an identifier; null for 0. The identifier is not checked.
template <typename T>
inline T* from_id(UInt32 id) {
    return reinterpret_cast<T*>(static_cast<std::uintptr_t>(id));
}
