// Framing of one full camera block. The contents: ordinary firmware bytes (compressed or encrypted
// sections look like this: every value is equally likely), machine code (this program's own), and
// erased flash (all 0xFF, the worst case: every byte becomes two).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "devlib/kestrelflash/linkmsg.h"

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
    state.SetBytesProcessed(state.iterations() * kBlock);
}

}  // namespace

int main(int argc, char** argv) {
    const struct {
        const char* name;
        Bytes block;
    } contents[] = {
        {"framing/ordinary", Ordinary()},
        {"framing/machine_code", MachineCode()},
        {"framing/all_ff", Bytes(kBlock, 0xFF)},
    };
    for (const auto& content : contents) {
        benchmark::RegisterBenchmark(content.name, Framing, std::cref(content.block));
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
