// Addresses as 32-bit numbers where the framework prints them or sends them as text. Control blocks
// go through id_of and from_id; here are functions, and records that are only shown. Any thread may
// call; nothing blocks.
#pragma once

#include <cstdint>

#include "Common/OS/assertion.h"
#include "Common/OS/types.h"

// The low 32 bits of a record's address, for dumps and log lines: the whole address on the board, a
// label on a 64-bit workstation, where records may lie anywhere. Never converted back.
inline UInt32 shown_address(const volatile void* record) {
    return static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(record));
}

// The same for a function.
template <typename R, typename... A>
inline UInt32 shown_address(R (*function)(A...)) {
    return static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(function));
}

// A function's address as a number that func_from_id turns back; 0 for null. Programs are linked at
// fixed addresses, so it fits; it is asserted.
template <typename R, typename... A>
inline UInt32 func_id(R (*function)(A...)) {
    const auto address = reinterpret_cast<std::uintptr_t>(function);
    OsAssertText(address <= UINT32_MAX, "function under 4 GiB");
    return static_cast<UInt32>(address);
}

// The function of a number; null for 0. The number is not checked.
template <typename F>
inline F func_from_id(UInt32 id) {
    return reinterpret_cast<F>(static_cast<std::uintptr_t>(id));
}
