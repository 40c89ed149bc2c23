// The framework's lists, deferred calls, callbacks, timers and messages, with their peers
// (peers.cpp) in one run. "allocs" counts the allocations of the threads that take part, after the
// first round.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
#include "Common/framework/list.h"
#include "Common/framework/message.h"
#include "Common/framework/mod.h"
#include "Common/framework/timer.h"
#include "bench/framework/work.h"
#include "bench/support/alloccount.h"

namespace {

struct Element {
    ListT list;
    int value;
};

struct Elements {
    Elements() {
        for (Element& element : all) {
            element.value = 1;
            ListInit(&element.list);
            ListEnqueueUnprot(&head, &element.list);
        }
    }
    Element all[kListLength];
    ListT* head = nullptr;
};

void ListQueue(benchmark::State& state) {
    Elements elements;
    for (auto _ : state) {
        ListT* first = ListDequeueUnprot(&elements.head);
        ListEnqueueUnprot(&elements.head, first);
        benchmark::DoNotOptimize(elements.head);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ListQueue);

void ListQueueLocked(benchmark::State& state) {
    Elements elements;
    for (auto _ : state) {
        ListT* first = ListDequeue(&elements.head);
        ListEnqueue(&elements.head, first);
    }
}
BENCHMARK(ListQueueLocked);

void ListExtractAndPush(benchmark::State& state) {
    Elements elements;
    size_t at = 0;
    for (auto _ : state) {
        ListT* element = &elements.all[at].list;
        at = (at + kListStride) % kListLength;
        ListExtractUnprot(&elements.head, element);
        ListPushUnprot(&elements.head, element);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ListExtractAndPush);

void ListWalk(benchmark::State& state) {
    Elements elements;
    for (auto _ : state) {
        int sum = 0;
        for (ListT* it = ListFirstElement(elements.head); it != nullptr;
             it = ListNextElement(elements.head, it)) {
            sum += reinterpret_cast<Element*>(it)->value;
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(ListWalk);

UInt32 gMain;
long gAnswers;
std::atomic<long> gAllocationsThere;

void Back(void*, void* pArgs) {
    gAnswers += static_cast<Arguments*>(pArgs)->step;
}

void There(void*, void* pArgs) {
    ModDeferFunctionCall(gMain, Back, nullptr, pArgs, sizeof(Arguments));
    gAllocationsThere = AllocationsSoFar();
}

void Host(UInt32, UInt32, UInt32, UInt32) {
    ModTaskLoop();
}

UInt32 StartHost() {
    UInt32 task = 0;
    t_create("host", 20, 0, 0, 0, &task);
    t_start(task, 0, Host, nullptr);
    return task;
}

void ServeUntil(long answers) {
    while (gAnswers < answers) {
        UInt32 events = 0;
        ev_receive(kModEventsAll, kEvAny, 0, &events);
        ModProcessEvents(events);
    }
}

void RoundTrip(UInt32 task) {
    Arguments arguments;
    const long wanted = gAnswers + arguments.step;
    ModDeferFunctionCall(task, There, nullptr, &arguments, sizeof arguments);
    ServeUntil(wanted);
}

void DeferredRoundTrip(benchmark::State& state) {
    const UInt32 task = StartHost();
    RoundTrip(task);
    const long before = AllocationsSoFar() + gAllocationsThere;
    for (auto _ : state) {
        RoundTrip(task);
    }
    state.counters["allocs"] = static_cast<double>(AllocationsSoFar() + gAllocationsThere - before);
    ev_send(task, kModEventExit);
}
BENCHMARK(DeferredRoundTrip)->UseRealTime();

void Nothing(void*, void*) {}

// A call to oneself while calls to a task that does not serve them wait.
void DeferredBehindPending(benchmark::State& state) {
    UInt32 idle = 0;
    t_create("idle", 20, 0, 0, 0, &idle);
    t_start(
        idle, 0,
        [](UInt32, UInt32, UInt32, UInt32) {
            UInt32 events;
            ev_receive(0x8000, kEvAny, 0, &events);
        },
        nullptr);
    for (int64_t i = 0; i < state.range(0); i++) {
        ModDeferFunctionCall(idle, Nothing, &idle, nullptr, 0);
    }
    Arguments arguments;
    for (auto _ : state) {
        ModDeferFunctionCall(gMain, Nothing, nullptr, &arguments, sizeof arguments);
        ModProcessDeferredFunctions();
    }
    ModCancelDeferredFunctions(Nothing, &idle);
    ev_send(idle, 0x8000);
}
BENCHMARK(DeferredBehindPending)->Arg(0)->Arg(100)->Arg(300);

void Heard(ModT*, UInt32, void* userDefined, void* pArgs) {
    *static_cast<long*>(userDefined) += static_cast<Arguments*>(pArgs)->step;
}

void CallbackFire(benchmark::State& state) {
    ModT mod{};
    ModInit(&mod, "Bench", 0, nullptr);
    std::vector<long> heard(static_cast<size_t>(state.range(0)));
    for (long& one : heard) {
        ModAddCallback(&mod, 1, Heard, &one, 0);
    }
    Arguments arguments;
    const long before = AllocationsSoFar();
    for (auto _ : state) {
        ModCallCallbacks(&mod, 1, &arguments, sizeof arguments);
    }
    state.counters["allocs"] = static_cast<double>(AllocationsSoFar() - before);
    benchmark::DoNotOptimize(heard[0]);
    ModExit(&mod);
}
BENCHMARK(CallbackFire)->Arg(1)->Arg(5);

void FindByName(benchmark::State& state) {
    std::vector<ModT> mods(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < mods.size(); i++) {
        memset(static_cast<void*>(&mods[i]), 0, sizeof mods[i]);
        ModInit(&mods[i], ("Bench" + std::to_string(i)).c_str(), 0, nullptr);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(ModFindByName(mods.back().name, 0));
    }
    for (ModT& mod : mods) {
        ModExit(&mod);
    }
}
BENCHMARK(FindByName)->Arg(10)->Arg(100)->Arg(1000)->Arg(3900);

std::atomic<long> gExpiries;

void Expired(void*) {
    gExpiries++;
}

// Timers of the calling task.
struct Timers {
    // Periodic ones are started one after the other over a period: 600 that expire together would
    // all ask the timer task at once to be armed again, and the pool of such requests has 384.
    Timers(int64_t count, int time, int periodic) : all(static_cast<size_t>(count)) {
        for (TimerT& timer : all) {
            memset(static_cast<void*>(&timer), 0, sizeof timer);
            TimerInit(&timer, time, Expired, nullptr, periodic);
            TimerStart(&timer);
            Settle();
            if (periodic != 0) {
                usleep(static_cast<useconds_t>(time * 1000 / count));
            }
        }
    }
    ~Timers() {
        for (TimerT& timer : all) {
            TimerExit(&timer);
            Settle();
        }
    }
    // The timer task has taken up most of what was asked of it.
    static void Settle() {
        while (gFreeDeferredFuncsAvailable < kModNumDeferredFuncs / 2) {
            sched_yield();
        }
    }
    std::vector<TimerT> all;
};

void TimerStartStop(benchmark::State& state) {
    Timers timers(state.range(0), kFarMs, 0);
    size_t at = 0;
    const long before = AllocationsSoFar();
    for (auto _ : state) {
        TimerT* timer = &timers.all[at];
        at = (at + 1) % timers.all.size();
        TimerStop(timer);
        TimerStart(timer);
        Timers::Settle();
    }
    state.counters["allocs"] = static_cast<double>(AllocationsSoFar() - before);
}
BENCHMARK(TimerStartStop)->Arg(10)->Arg(100)->Arg(600)->UseRealTime();

void TimerExpiry(benchmark::State& state) {
    Timers timers(state.range(0), kPeriodMs, 1);
    const long before = AllocationsSoFar();
    for (auto _ : state) {
        const long first = gExpiries;
        const double start = ProcessorSeconds();
        while (gExpiries - first < kExpiryRounds * state.range(0)) {
            UInt32 events = 0;
            ev_receive(kModEventsAll, kEvAny, 0, &events);
            ModProcessEvents(events);
        }
        state.SetIterationTime((ProcessorSeconds() - start) /
                               static_cast<double>(gExpiries - first));
    }
    state.counters["allocs"] = static_cast<double>(AllocationsSoFar() - before);
}
BENCHMARK(TimerExpiry)->Arg(10)->Arg(100)->Arg(600)->UseManualTime()->Iterations(4);

eErrorT Handle(int argc, char**, char*) {
    gAnswers++;
    return argc > 0 ? kNoError : kBadParameter;
}

CmdEntryT gCommands[] = {
    {{}, "benchasync", Handle, 1, "benchasync ...", 0, 0},
    {{}, "benchsync", Handle, 1, "benchsync ...", kMsgCmdSync, 0},
    {{}, nullptr, nullptr, 0, nullptr, 0, 0},
};

void Command(benchmark::State& state, const char* line) {
    const long before = AllocationsSoFar();
    for (auto _ : state) {
        const long wanted = gAnswers + 1;
        MsgSendCmd(line, nullptr, nullptr);
        ServeUntil(wanted);
    }
    state.counters["allocs"] = static_cast<double>(AllocationsSoFar() - before);
    state.SetItemsProcessed(state.iterations());
}

void CommandInTheSendersTask(benchmark::State& state) {
    Command(state, "benchsync one two \"three and four\" 5");
}
BENCHMARK(CommandInTheSendersTask);

void CommandDispatched(benchmark::State& state) {
    Command(state, "benchasync one two \"three and four\" 5");
}
BENCHMARK(CommandDispatched);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    os_init();
    t_attach("main", 0, nullptr);
    t_ident(nullptr, 0, &gMain);
    InitSyslogInterface();
    syslogSetLogLevel(kLogCritical);
    ModT mod{};
    ModInit(&mod, "BenchMain", 0, nullptr);
    MsgInit();
    MsgAddCmdTable(gCommands);
    benchmark::RunSpecifiedBenchmarks();
    fflush(stdout);
    _exit(0);
}
