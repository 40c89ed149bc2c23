// What a log line costs its caller, beside an asynchronous logger of the C++ world with the same
// text and the same sink, at one and at four producers; and the event logger beside a bare clock
// read.
//
// Lines come in bursts that fit both queues, and each burst waits until the one before is out, so
// that neither side loses lines or waits for room. The time shown is that of one line, averaged
// over the producers, as the caller's clock sees it; cpu_ns is the same on the caller's processor
// clock.
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <barrier>
#include <thread>
#include <vector>

#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/logger.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
#include "bench/support/alloccount.h"

namespace {

constexpr int kLinesPerBurst = 1000;

double Seconds(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct CostT {
    double wall = 0;
    double cpu = 0;
    long allocations = 0;
};

template <typename LogT>
CostT OneBurst(LogT log) {
    const double wall = Seconds(CLOCK_MONOTONIC);
    const double cpu = Seconds(CLOCK_THREAD_CPUTIME_ID);
    const long allocations = AllocationsSoFar();
    for (int i = 0; i < kLinesPerBurst; i++) {
        log(i);
    }
    return {Seconds(CLOCK_MONOTONIC) - wall, Seconds(CLOCK_THREAD_CPUTIME_ID) - cpu,
            AllocationsSoFar() - allocations};
}

template <typename LogT, typename DrainT>
void Bursts(benchmark::State& state, LogT log, DrainT wait_until_out) {
    const auto producers = static_cast<size_t>(state.range(0));
    std::barrier sync(static_cast<std::ptrdiff_t>(producers) + 1);
    std::vector<CostT> costs(producers);
    bool more = true;
    std::vector<std::thread> threads;
    for (size_t i = 0; i < producers; i++) {
        threads.emplace_back([&, i] {
            for (sync.arrive_and_wait(); more; sync.arrive_and_wait()) {
                costs[i] = OneBurst(log);
                sync.arrive_and_wait();
            }
        });
    }
    CostT sum;
    const double lines = static_cast<double>(producers) * kLinesPerBurst;
    for (auto _ : state) {
        sync.arrive_and_wait();
        sync.arrive_and_wait();
        double wall = 0;
        for (const CostT& cost : costs) {
            wall += cost.wall;
            sum.cpu += cost.cpu;
            sum.allocations += cost.allocations;
        }
        state.SetIterationTime(wall / lines);
        wait_until_out();
    }
    more = false;
    sync.arrive_and_wait();
    for (std::thread& thread : threads) {
        thread.join();
    }
    const double total = lines * static_cast<double>(state.iterations());
    state.counters["cpu_ns"] = sum.cpu * 1e9 / total;
    state.counters["allocs_per_line"] = static_cast<double>(sum.allocations) / total;
}

void LogLine(benchmark::State& state) {
    Bursts(
        state, [](int i) { loginfo("bench", "request %d took %d us\n", i, i % 100); },
        [] {
            while (logqueue::log_buffer_head != logqueue::log_buffer_tail) {
                usleep(100);
            }
        });
}
BENCHMARK(LogLine)->Arg(1)->Arg(4)->ArgName("producers")->UseManualTime()->Iterations(500);

void SpdlogAsyncLine(benchmark::State& state) {
    spdlog::init_thread_pool(8192, 1);
    auto log = spdlog::basic_logger_mt<spdlog::async_factory_nonblock>("bench", "/dev/null");
    log->set_pattern("%n: %v");
    Bursts(
        state, [&log](int i) { log->info("request {} took {} us", i, i % 100); },
        [] {
            while (spdlog::thread_pool()->queue_size() != 0) {
                usleep(100);
            }
        });
    state.counters["overrun"] = static_cast<double>(spdlog::thread_pool()->overrun_counter());
    log.reset();
    spdlog::drop_all();
    spdlog::shutdown();
}
BENCHMARK(SpdlogAsyncLine)->Arg(1)->Arg(4)->ArgName("producers")->UseManualTime()->Iterations(500);

void EventLogger(benchmark::State& state) {
    for (auto _ : state) {
        logger(1, 2, 3, 4);
    }
}
BENCHMARK(EventLogger);

void CycleCounter(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(CYCLES());
    }
}
BENCHMARK(CycleCounter);

void BareClock(benchmark::State& state) {
    timespec now;
    for (auto _ : state) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
    }
}
BENCHMARK(BareClock);

}  // namespace

// The log prints on `stdout`, which becomes the peer's sink; results go out through std::cout,
// which keeps the original.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    os_init();
    stdout = fopen("/dev/null", "w");
    InitSyslogInterface();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
