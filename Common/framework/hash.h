// A small hash table from names to functions: the server functions of a module type. Its storage is
// the caller's, an array of entries; nothing is allocated. Any thread may look up while another
// adds; those who add to one table serialise among themselves.
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

// Makes an empty table in `numEntries` entries at `pEntries`, which stay the caller's and live as
// long as the table.
void HashInit(HashTableT* pTable, HashTableEntryT* pEntries, int numEntries);

// Stores `value` under `pName`, replacing what the name held. The name is not copied: it lives as
// long as the table. Returns kNoError, kOutOfMemory when the table is full, or kBadParameter for a
// table that was not initialised.
eErrorT HashAdd(HashTableT* pTable, const char* pName, HashValueT value);

// What is stored under `pName` (an exact match, case included); null if nothing is.
HashValueT HashFind(const HashTableT* pTable, const char* pName);
