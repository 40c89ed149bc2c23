// A sanitizer has the allocator already; it tells of each allocation.
#include <stddef.h>

#include "tests/support/alloccount.h"

// Not every compiler brings the header that declares it.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*on_malloc)(const volatile void*,
                                                                           size_t),
                                                         void (*on_free)(const volatile void*));

namespace {

thread_local long gAllocations;

void OnMalloc(const volatile void*, size_t) {
    gAllocations++;
}

void OnFree(const volatile void*) {}

}  // namespace

long AllocationsSoFar() {
    static const int installed = __sanitizer_install_malloc_and_free_hooks(OnMalloc, OnFree);
    return installed > 0 ? gAllocations : -1;
}
