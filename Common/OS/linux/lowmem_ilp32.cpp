// Low memory on 32-bit machines, where every address fits: the C heap.
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "Common/OS/linux/lowmem.h"

namespace {
std::atomic<size_t> gInUse{0};
}

void* LowCalloc(size_t size) {
    void* block = calloc(1, size != 0 ? size : 1);
    if (block != nullptr) {
        gInUse += malloc_usable_size(block);
    }
    return block;
}

void LowFree(void* block) {
    if (block != nullptr) {
        gInUse -= malloc_usable_size(block);
        memset(block, 0, malloc_usable_size(block));
        free(block);
    }
}

size_t LowBytesInUse() {
    return gInUse;
}
