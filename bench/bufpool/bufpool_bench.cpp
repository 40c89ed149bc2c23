// Pools beside the C library's heap. The peer takes each buffer from the heap with what a pool's
// buffer comes with: aligned to 128 bytes, zeroed, descriptor and guard set, and the guard tested
// when it is given back. A pool does that when it is opened.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <utility>

#include "Common/framework/bufpool.h"
#include "bench/support/alloccount.h"

namespace {

constexpr unsigned int kDescLen = 128;
constexpr unsigned int kHeader = 128;

BufPoolT gPool;

void OpenPool(const benchmark::State& state) {
    if (state.thread_index() == 0) {
        memset(static_cast<void*>(&gPool), 0, sizeof(gPool));
        BufPoolInit(&gPool, "bench", 0, nullptr, 64, static_cast<unsigned int>(state.range(0)),
                    kDescLen, kHeader, 0);
        BufPoolOpen(&gPool);
    }
}

void ClosePool(const benchmark::State& state) {
    if (state.thread_index() == 0) {
        BufPoolExit(&gPool);
    }
}

void PoolAllocFree(benchmark::State& state) {
    OpenPool(state);
    long before = 0;
    bool first = true;
    for (auto _ : state) {
        if (std::exchange(first, false)) {
            before = AllocationsSoFar();  // the pool is open now, whichever thread opened it
        }
        BufT* pBuf = BufPoolBufAlloc(&gPool);
        pBuf->ptr[0] = 1;
        BufPoolBufFree(&gPool, pBuf);
    }
    state.counters["allocs"] = static_cast<double>(AllocationsSoFar() - before);
    ClosePool(state);
}

void HeapAllocFree(benchmark::State& state) {
    const auto length = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        BufT* pBuf = BufAllocMem(length, kDescLen, kHeader, 0);
        pBuf->ptr[0] = 1;
        BufFreeMem(pBuf, 0);
    }
}

// The bare calls, with zeroing and alignment and nothing else.
void BareHeapAllocFree(benchmark::State& state) {
    const size_t size =
        (static_cast<size_t>(state.range(0)) + kDescLen + kHeader + 272 + 127) & ~size_t{127};
    for (auto _ : state) {
        void* block = aligned_alloc(128, size);
        memset(block, 0, size);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        free(block);
    }
}

#define SIZES ->Arg(256)->Arg(1536)->Arg(4096)->Arg(16384)->Threads(1)->Threads(4)->UseRealTime()
BENCHMARK(PoolAllocFree) SIZES;
BENCHMARK(HeapAllocFree) SIZES;
BENCHMARK(BareHeapAllocFree) SIZES;

void OpenPoolOf1000(benchmark::State& state) {
    static BufPoolT pool;
    memset(static_cast<void*>(&pool), 0, sizeof(pool));
    BufPoolInit(&pool, "open", 0, nullptr, 1000, 1536, kDescLen, kHeader, 0);
    for (auto _ : state) {
        BufPoolOpen(&pool);
        state.PauseTiming();
        BufPoolClose(&pool);
        state.ResumeTiming();
    }
    BufPoolExit(&pool);
}
BENCHMARK(OpenPoolOf1000)->Unit(benchmark::kMicrosecond);

// Bytes that the heap handed out over a million takes and returns: 0.
void HeapGrowthOfAMillionPairs(benchmark::State& state) {
    OpenPool(state);
    const size_t before = mallinfo2().uordblks;
    for (auto _ : state) {
        BufPoolBufFree(&gPool, BufPoolBufAlloc(&gPool));
    }
    state.counters["heap_bytes"] = static_cast<double>(mallinfo2().uordblks - before);
    ClosePool(state);
}
BENCHMARK(HeapGrowthOfAMillionPairs)->Arg(1536)->Iterations(1000000);

}  // namespace

BENCHMARK_MAIN();
