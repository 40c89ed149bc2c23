// Stands before the C library's allocator.
#include <stddef.h>

#include "bench/support/alloccount.h"

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);
extern "C" void* __libc_realloc(void* block, size_t size);

namespace {
thread_local long gAllocations;
}

long AllocationsSoFar() {
    return gAllocations;
}

extern "C" void* malloc(size_t size) {
    gAllocations++;
    return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) {
    gAllocations++;
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* block, size_t size) {
    gAllocations++;
    return __libc_realloc(block, size);
}

extern "C" void* aligned_alloc(size_t alignment, size_t size) {
    gAllocations++;
    return __libc_memalign(alignment, size);
}
