// Open addressing with linear probing; nothing is ever removed.
#include "Common/framework/hash.h"

#include <string.h>

#include "Common/framework/sharedfield.h"

namespace {

// The entry that holds a name, or the free one where it belongs; null when the table is full.
HashTableEntryT* Probe(const HashTableT* pTable, const char* pName) {
    const auto size = static_cast<UInt32>(pTable->numEntries);
    UInt32 at = HashText(pName) % size;
    for (UInt32 i = 0; i < size; i++) {
        HashTableEntryT* entry = &pTable->pEntries[at];
        const char* name = FieldRead(entry->pName);
        if (name == nullptr || strcmp(name, pName) == 0) {
            return entry;
        }
        at = at + 1 < size ? at + 1 : 0;
    }
    return nullptr;
}

bool Usable(const HashTableT* pTable) {
    return FieldRead(pTable->pEntries) != nullptr && pTable->numEntries > 0;
}

}  // namespace

void HashInit(HashTableT* pTable, HashTableEntryT* pEntries, int numEntries) {
    memset(pEntries, 0, sizeof(*pEntries) * static_cast<size_t>(numEntries));
    pTable->numEntries = numEntries;
    pTable->numUsed = 0;
    FieldWrite(pTable->pEntries, pEntries);
}

eErrorT HashAdd(HashTableT* pTable, const char* pName, HashValueT value) {
    if (!Usable(pTable)) {
        return kBadParameter;
    }
    HashTableEntryT* entry = Probe(pTable, pName);
    if (entry == nullptr) {
        return kOutOfMemory;
    }
    FieldWrite(entry->value, value);
    if (entry->pName == nullptr) {
        pTable->numUsed++;
        FieldWrite(entry->pName, pName);
    }
    return kNoError;
}

HashValueT HashFind(const HashTableT* pTable, const char* pName) {
    if (!Usable(pTable)) {
        return nullptr;
    }
    const HashTableEntryT* entry = Probe(pTable, pName);
    return entry != nullptr && FieldRead(entry->pName) != nullptr ? FieldRead(entry->value)
                                                                  : nullptr;
}
