// A hash of texts, and a small table from names to functions: the server functions of a module
// type. Its storage is the caller's, an array of entries; nothing is allocated. Any thread may look
// up while another adds; those who add to one table serialise among themselves.
#pragma once

#include "Common/OS/errors.h"
#include "Common/OS/types.h"

// The capacity of the tables that the framework uses.
constexpr int kHashEntries = 128;

// What a name stands for: a function, cast to its own type by who looks it up.
typedef void (*HashValueT)();

typedef struct HashTableEntryS {
    const char* pName;  // null while the entry is free
    HashValueT value;
} HashTableEntryT;

typedef struct HashTableS {
    HashTableEntryT* pEntries;  // null until HashInit
    int numEntries;
    int numUsed;
} HashTableT;

// The FNV-1a hash of a text, and of what is appended to it, up to 32 bits at a time.
constexpr UInt32 HashAppend(UInt32 hash, UInt32 value) {
    return (hash ^ value) * 16777619U;
}
constexpr UInt32 HashText(const char* pText) {
    UInt32 hash = 2166136261U;
    for (; *pText != '\0'; pText++) {
        hash = HashAppend(hash, static_cast<UInt8>(*pText));
    }
    return hash;
}

// Makes an empty table in `numEntries` entries at `pEntries`, which stay the caller's and live as
// long as the table.
void HashInit(HashTableT* pTable, HashTableEntryT* pEntries, int numEntries);

// Stores `value` under `pName`, replacing what the name held. The name is not copied: it lives as
// long as the table. Returns kNoError, kOutOfMemory when the table is full, or kBadParameter for a
// table that was not initialised.
eErrorT HashAdd(HashTableT* pTable, const char* pName, HashValueT value);

// What is stored under `pName` (an exact match, case included); null if nothing is.
HashValueT HashFind(const HashTableT* pTable, const char* pName);
