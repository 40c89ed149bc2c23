// Low memory on 64-bit machines: blocks carved from regions mapped under 4 GiB. Freed blocks go to
// a free list of their size; regions are never unmapped.
#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>

#include <atomic>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"

// Present only in a program built with AddressSanitizer, which then watches freed blocks.
extern "C" {
void __asan_poison_memory_region(const volatile void* start, size_t size) __attribute__((weak));
void __asan_unpoison_memory_region(const volatile void* start, size_t size) __attribute__((weak));
}

namespace {

constexpr size_t kAlign = 16;
constexpr size_t kRegion = 1024 * 1024;
constexpr size_t kClasses = 512;  // free lists for payloads up to 8 KiB, one per 16 bytes

// Stands before every block.
struct alignas(kAlign) HeaderT {
    size_t payload;  // bytes after the header, a multiple of kAlign
    HeaderT* next;   // while free
};

pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;
HeaderT* gFree[kClasses + 1];
HeaderT* gFreeLarge;
char* gRegion;  // unused rest of the newest region
size_t gRegionLeft;
std::atomic<size_t> gInUse{0};

#ifdef MAP_32BIT
constexpr int kLowFlag = MAP_32BIT;
#else
constexpr int kLowFlag = 0;
#endif

void* MapAt(void* hint, size_t size, int flags) {
    void* map =
        mmap(hint, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
    if (map != MAP_FAILED && reinterpret_cast<std::uintptr_t>(map) + size > UINT32_MAX) {
        munmap(map, size);
        map = MAP_FAILED;
    }
    return map;
}

char* MapLow(size_t size) {
    void* map = MapAt(nullptr, size, kLowFlag);
    for (std::uintptr_t hint = 0x10000000; map == MAP_FAILED && hint < 0xF0000000;
         hint += 0x4000000) {
        map = MapAt(reinterpret_cast<void*>(hint), size, 0);
    }
    return map == MAP_FAILED ? nullptr : static_cast<char*>(map);
}

HeaderT** ListFor(size_t payload) {
    const size_t index = payload / kAlign;
    return index <= kClasses ? &gFree[index] : &gFreeLarge;
}

HeaderT* TakeFree(size_t payload) {
    for (HeaderT** link = ListFor(payload); *link != nullptr; link = &(*link)->next) {
        if ((*link)->payload == payload) {
            HeaderT* header = *link;
            *link = header->next;
            return header;
        }
    }
    return nullptr;
}

HeaderT* Carve(size_t payload) {
    const size_t total = sizeof(HeaderT) + payload;
    if (total > gRegionLeft) {
        const size_t size = total > kRegion ? (total + 4095) & ~static_cast<size_t>(4095) : kRegion;
        char* region = MapLow(size);
        if (region == nullptr) {
            return nullptr;
        }
        gRegion = region;
        gRegionLeft = size;
    }
    auto* header = reinterpret_cast<HeaderT*>(gRegion);
    gRegion += total;
    gRegionLeft -= total;
    header->payload = payload;
    return header;
}

}  // namespace

void* LowCalloc(size_t size) {
    if (size > UINT32_MAX / 2) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t payload = size == 0 ? kAlign : (size + kAlign - 1) & ~(kAlign - 1);
    MutexGuardT guard(&gMutex);
    HeaderT* header = TakeFree(payload);
    const bool reused = header != nullptr;
    if (!reused) {
        header = Carve(payload);
    }
    guard.Unlock();
    if (header == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    gInUse += payload;
    if (reused && __asan_unpoison_memory_region != nullptr) {
        __asan_unpoison_memory_region(header + 1, payload);
    }
    return header + 1;
}

void LowFree(void* block) {
    if (block == nullptr) {
        return;
    }
    HeaderT* header = static_cast<HeaderT*>(block) - 1;
    gInUse -= header->payload;
    memset(block, 0, header->payload);  // zeroed for its next use already
    if (__asan_poison_memory_region != nullptr) {
        __asan_poison_memory_region(block, header->payload);
    }
    MutexGuardT guard(&gMutex);
    HeaderT** list = ListFor(header->payload);
    header->next = *list;
    *list = header;
}

size_t LowBytesInUse() {
    return gInUse;
}
