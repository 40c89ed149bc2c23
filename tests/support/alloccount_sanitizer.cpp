// A sanitizer has the allocator already; it tells of each allocation.
#include <sanitizer/allocator_interface.h>

#include "tests/support/alloccount.h"

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
