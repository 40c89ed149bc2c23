// What one would use without the framework: Boost's intrusive list, Asio and GLib for work that
// crosses threads, Boost's signals for callbacks, libuv for timers.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <time.h>
#include <uv.h>

#include <boost/asio.hpp>
#include <boost/intrusive/list.hpp>
#include <boost/signals2.hpp>
#include <thread>
#include <vector>

#include "bench/framework/work.h"
#include "bench/support/alloccount.h"

namespace {

struct Element : boost::intrusive::list_base_hook<> {
    int value = 0;
};
using IntrusiveList = boost::intrusive::list<Element, boost::intrusive::constant_time_size<false>>;

void IntrusiveQueue(benchmark::State& state) {
    std::vector<Element> elements(kListLength);
    IntrusiveList list;
    for (Element& element : elements) {
        list.push_back(element);
    }
    for (auto _ : state) {
        Element& first = list.front();
        list.pop_front();
        list.push_back(first);
        benchmark::DoNotOptimize(list);
        benchmark::ClobberMemory();
    }
    list.clear();
}
BENCHMARK(IntrusiveQueue);

void IntrusiveExtract(benchmark::State& state) {
    std::vector<Element> elements(kListLength);
    IntrusiveList list;
    for (Element& element : elements) {
        list.push_back(element);
    }
    size_t at = 0;
    for (auto _ : state) {
        Element& element = elements[at];
        at = (at + kListStride) % kListLength;
        list.erase(list.iterator_to(element));
        list.push_front(element);
        benchmark::ClobberMemory();
    }
    list.clear();
}
BENCHMARK(IntrusiveExtract);

void IntrusiveWalk(benchmark::State& state) {
    std::vector<Element> elements(kListLength);
    IntrusiveList list;
    for (Element& element : elements) {
        element.value = 1;
        list.push_back(element);
    }
    for (auto _ : state) {
        int sum = 0;
        for (const Element& element : list) {
            sum += element.value;
        }
        benchmark::DoNotOptimize(sum);
    }
    list.clear();
}
BENCHMARK(IntrusiveWalk);

void AsioPostRoundTrip(benchmark::State& state) {
    boost::asio::io_context here(1);
    boost::asio::io_context there(1);
    auto keep_here = boost::asio::make_work_guard(here);
    auto keep_there = boost::asio::make_work_guard(there);
    std::thread thread([&] { there.run(); });
    Arguments arguments{};
    long answers = 0;
    for (auto _ : state) {
        boost::asio::post(there, [&here, &answers, arguments] {
            boost::asio::post(here, [&answers, arguments] { answers += arguments.step; });
        });
        here.run_one();
    }
    benchmark::DoNotOptimize(answers);
    keep_there.reset();
    thread.join();
}
BENCHMARK(AsioPostRoundTrip)->UseRealTime();

struct GlibTrip {
    GMainContext* back;
    Arguments arguments;
    bool done;
};

gboolean GlibBack(gpointer data) {
    static_cast<GlibTrip*>(data)->done = true;
    return G_SOURCE_REMOVE;
}

gboolean GlibThere(gpointer data) {
    auto* trip = static_cast<GlibTrip*>(data);
    g_main_context_invoke(trip->back, GlibBack, trip);
    return G_SOURCE_REMOVE;
}

void GlibInvokeRoundTrip(benchmark::State& state) {
    GMainContext* here = g_main_context_new();
    GMainContext* there = g_main_context_new();
    g_main_context_acquire(here);
    GMainLoop* loop = g_main_loop_new(there, FALSE);
    std::thread thread([&] {
        g_main_context_push_thread_default(there);
        g_main_loop_run(loop);
        g_main_context_pop_thread_default(there);
    });
    while (g_main_loop_is_running(loop) == FALSE) {
        std::this_thread::yield();
    }
    GlibTrip trip{here, {}, false};
    for (auto _ : state) {
        trip.done = false;
        g_main_context_invoke(there, GlibThere, &trip);
        while (!trip.done) {
            g_main_context_iteration(here, TRUE);
        }
    }
    g_main_loop_quit(loop);
    thread.join();
    g_main_loop_unref(loop);
    g_main_context_release(here);
    g_main_context_unref(here);
    g_main_context_unref(there);
}
BENCHMARK(GlibInvokeRoundTrip)->UseRealTime();

void SignalsFire(benchmark::State& state) {
    boost::signals2::signal<void(const Arguments&)> signal;
    long heard = 0;
    for (int64_t i = 0; i < state.range(0); i++) {
        signal.connect([&heard](const Arguments& it) { heard += it.step; });
    }
    Arguments arguments{};
    for (auto _ : state) {
        signal(arguments);
    }
    benchmark::DoNotOptimize(heard);
}
BENCHMARK(SignalsFire)->Arg(1)->Arg(5);

void Nothing(uv_timer_t*) {}

struct UvTimers {
    explicit UvTimers(size_t count) : timers(count) {
        uv_loop_init(&loop);
        for (uv_timer_t& timer : timers) {
            uv_timer_init(&loop, &timer);
        }
    }
    ~UvTimers() {
        for (uv_timer_t& timer : timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        }
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    uv_loop_t loop;
    std::vector<uv_timer_t> timers;
};

// A timer started and stopped while the others are armed.
void UvTimerStartStop(benchmark::State& state) {
    UvTimers all(static_cast<size_t>(state.range(0)));
    for (uv_timer_t& timer : all.timers) {
        uv_timer_start(&timer, Nothing, kFarMs, 0);
    }
    size_t at = 0;
    for (auto _ : state) {
        uv_timer_t* timer = &all.timers[at];
        at = (at + 1) % all.timers.size();
        uv_timer_stop(timer);
        uv_timer_start(timer, Nothing, kFarMs, 0);
    }
}
BENCHMARK(UvTimerStartStop)->Arg(10)->Arg(100)->Arg(600);

int gUvFired = 0;

// Processor time for one expiry of periodic timers, waiting and waking included.
void UvTimerExpiry(benchmark::State& state) {
    UvTimers all(static_cast<size_t>(state.range(0)));
    gUvFired = 0;
    for (uv_timer_t& timer : all.timers) {
        uv_timer_start(
            &timer, [](uv_timer_t*) { gUvFired++; }, kPeriodMs, kPeriodMs);
    }
    for (auto _ : state) {
        const int before = gUvFired;
        const double start = ProcessorSeconds();
        while (gUvFired - before < kExpiryRounds * state.range(0)) {
            uv_run(&all.loop, UV_RUN_ONCE);
        }
        state.SetIterationTime((ProcessorSeconds() - start) / (gUvFired - before));
    }
}
BENCHMARK(UvTimerExpiry)->Arg(10)->Arg(100)->Arg(600)->UseManualTime()->Iterations(4);

}  // namespace
