// Framing of one full camera block against memcpy of the same block, in one run. The contents:
// ordinary firmware bytes (compressed or encrypted sections look like this: every value is equally
// likely), machine code (this program's own), erased flash (all 0xFF, the worst case: every byte
// becomes two), and zeros.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "devlib/kestrelflash/linkmsg.h"
#include "devlib/kestrelflash/stuffing.h"

namespace {

constexpr int kBlock = 64514;

using Bytes = std::vector<unsigned char>;

extern "C" const unsigned char __executable_start;
extern "C" const unsigned char etext;

Bytes Ordinary() {
    Bytes bytes(kBlock);
    std::mt19937 random(1);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

// The end of the text section, repeated where it is shorter than a block.
Bytes MachineCode() {
    const unsigned char* const end = &etext;
    const auto size =
        std::min<std::size_t>(kBlock, static_cast<std::size_t>(end - &__executable_start) / 2);
    Bytes bytes(kBlock);
    for (std::size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = end[static_cast<std::ptrdiff_t>(i % size) - static_cast<std::ptrdiff_t>(size)];
    }
    return bytes;
}

void SetRate(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * kBlock);
}

void Memcpy(benchmark::State& state, const Bytes& block) {
    Bytes copy(static_cast<std::size_t>(LinkFrameBound(kBlock)));
    while (state.KeepRunning()) {
        std::memcpy(copy.data(), block.data(), block.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    SetRate(state);
}

void Framing(benchmark::State& state, const Bytes& block) {
    Bytes frame(static_cast<std::size_t>(LinkFrameBound(kBlock)));
    int size = 0;
    while (state.KeepRunning()) {
        frame[0] = 0;  // as the senders do
        buildHarborToKestrelMsg(HARBOR_KESTREL_MESSAGE_TYPE_REFLASH_OVERLOOK_CAMERA, kBlock,
                                block.data(), &size, frame.data());
        benchmark::DoNotOptimize(frame.data());
        benchmark::ClobberMemory();
    }
    SetRate(state);
}

// What processors without a version of their own do.
void StuffingByWords(benchmark::State& state, const Bytes& block) {
    Bytes frame(static_cast<std::size_t>(LinkFrameBound(kBlock)));
    while (state.KeepRunning()) {
        UInt32 sum = 0;
        benchmark::DoNotOptimize(StuffBytesByWords(block.data(), block.size(), frame.data(), &sum));
        benchmark::ClobberMemory();
    }
    SetRate(state);
}

}  // namespace

int main(int argc, char** argv) {
    const struct {
        const char* name;
        Bytes block;
    } contents[] = {
        {"ordinary", Ordinary()},
        {"machine_code", MachineCode()},
        {"all_ff", Bytes(kBlock, 0xFF)},
        {"zeros", Bytes(kBlock, 0)},
    };
    const struct {
        const char* name;
        void (*run)(benchmark::State&, const Bytes&);
    } kinds[] = {
        {"memcpy/", Memcpy}, {"framing/", Framing}, {"stuffing_by_words/", StuffingByWords}};
    for (const auto& content : contents) {
        for (const auto& kind : kinds) {
            benchmark::RegisterBenchmark((std::string(kind.name) + content.name).c_str(), kind.run,
                                         std::cref(content.block));
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
