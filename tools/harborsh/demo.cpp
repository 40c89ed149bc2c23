#include "tools/harborsh/demo.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/message.h"
#include "Common/framework/mod.h"
#include "Common/framework/timer.h"
#include "tools/harborsh/diagnostics.h"
#include "tools/harborsh/services.h"

namespace harborsh {
namespace {

constexpr int kWorkers = 2;
constexpr UInt32 kWorkerPriority = 30;
constexpr UInt32 kEventReady = 0x10000;  // to the task that starts the workers
constexpr UInt32 kNews = 1;              // the event that a worker's module fires

// A service as the framework knows them: its record begins with its module, and everything in it is
// touched only by the task that the module belongs to.
struct WorkerT {
    ModT mod;
    TimerT timer;
    int ticks_left;
    int ticks;
};

struct TextT {
    char text[128];
};

WorkerT gWorkers[kWorkers];
std::atomic<UInt32> gTasks[kWorkers];
std::atomic<bool> gTicking{false};  // from the start of the timer to its own stop

const char* Here() {
    return t_name(0);
}

void OnTick(void* userDefined) {
    auto* worker = static_cast<WorkerT*>(userDefined);
    printf("%s: tick %d\n", Here(), ++worker->ticks);
    if (--worker->ticks_left == 0) {
        TimerStop(&worker->timer);
        printf("%s: timer stopped\n", Here());
        gTicking = false;
    }
}

// The receiver of a worker's news: shows in which task it runs.
void OnNews(ModT* pMod, UInt32, void* userDefined, void* pArgs) {
    printf("%s: %s heard \"%s\" from %s\n", Here(), static_cast<const char*>(userDefined),
           static_cast<const TextT*>(pArgs)->text, ModName(pMod));
}

char gNeighbour[] = "the neighbour";
char gPasserBy[] = "whoever fires";

void WorkerTask(UInt32 index, UInt32 starter, UInt32, UInt32) {
    WorkerT* worker = &gWorkers[index];
    *worker = {};
    ModInit(&worker->mod, "Worker", static_cast<int>(index) + 1, nullptr);
    TimerInit(&worker->timer, 50, OnTick, worker, 1);
    if (index == 1) {
        ModAddCallback(&gWorkers[0].mod, kNews, OnNews, gPasserBy, 0);
        ModAddCallback(&gWorkers[0].mod, kNews, OnNews, gNeighbour, kModCallbackDeferred);
    }
    ev_send(starter, kEventReady);
    ModTaskLoop();
}

// Starts the workers, one after the other, unless they run.
bool StartWorkers() {
    UInt32 self = 0;
    t_ident(nullptr, 0, &self);
    for (UInt32 i = 0; i < kWorkers; i++) {
        if (gTasks[i] != 0) {
            continue;
        }
        UInt32 task;
        UInt32 args[4] = {i, self, 0, 0};
        UInt32 events;
        const char name[] = {'w', 'r', 'k', static_cast<char>('1' + i), '\0'};
        if (t_create(name, kWorkerPriority, 0, 0, 0, &task) != kTaskOk) {
            return false;
        }
        if (t_start(task, 0, WorkerTask, args) != kTaskOk) {
            t_delete(task);
            return false;
        }
        ev_receive(kEventReady, kEvAny, 0, &events);
        gTasks[i] = task;
    }
    return true;
}

// A text that goes from task to task as a deferred call.
struct TravellerT {
    TextT text;
    UInt32 route[3];
    int hop;
};

void OnArrival(void*, void* pArgs) {
    auto* traveller = static_cast<TravellerT*>(pArgs);
    printf("%s: hop %d with \"%s\"\n", Here(), traveller->hop + 1, traveller->text.text);
    if (++traveller->hop < 3) {
        ModDeferFunctionCall(traveller->route[traveller->hop], OnArrival, nullptr, traveller,
                             sizeof(*traveller));
    }
}

TextT TextOf(int argc, char** argv) {
    TextT text = {};
    snprintf(text.text, sizeof(text.text), "%s", JoinFrom(1, argc, argv).c_str());
    return text;
}

eErrorT CallCmd(int argc, char** argv, char*) {
    TravellerT traveller = {TextOf(argc, argv), {gTasks[0], gTasks[1], CommandTask()}, 0};
    return ModDeferFunctionCall(traveller.route[0], OnArrival, nullptr, &traveller,
                                sizeof(traveller));
}

void FireNews(void*, void* pArgs) {
    printf("%s: fires \"%s\"\n", Here(), static_cast<const TextT*>(pArgs)->text);
    gWorkers[0].mod.CallCallbacks(&gWorkers[0].mod, kNews, pArgs, sizeof(TextT));
}

eErrorT CallbackCmd(int argc, char** argv, char*) {
    TextT text = TextOf(argc, argv);
    return ModDeferFunctionCall(gTasks[0], FireNews, nullptr, &text, sizeof(text));
}

struct TicksT {
    int milliseconds;
    int count;
};

// A timer is its owner's: it is started in the owner's task.
void StartTicks(void*, void* pArgs) {
    const auto* ticks = static_cast<const TicksT*>(pArgs);
    gWorkers[0].ticks = 0;
    gWorkers[0].ticks_left = ticks->count;
    TimerStartWithTime(&gWorkers[0].timer, ticks->milliseconds);
}

// Starts the timer and waits until it has stopped itself, unless told to leave it alone.
eErrorT TimerCmd(int argc, char** argv, char*) {
    TicksT ticks = {atoi(argv[1]), atoi(argv[2])};
    if (ticks.milliseconds < kTimerMinTime || ticks.count < 1) {
        return kBadParameter;
    }
    gTicking = true;
    const eErrorT err = ModDeferFunctionCall(gTasks[0], StartTicks, nullptr, &ticks, sizeof(ticks));
    const bool wait = argc < 4 || strcmp(argv[3], "&") != 0;
    while (wait && err == kNoError && gTicking && !Stopping()) {
        tm_wkafter(1);
    }
    return err;
}

eErrorT ExceptionCmd(int argc, char** argv, char*) {
    TextT text = TextOf(argc, argv);
    ModAddExceptionHandler(
        &gWorkers[1].mod,
        [](ModT* pMod, UInt32, void*, void* pArgs) {
            printf("%s: exception of %s: %s\n", Here(), ModName(pMod),
                   static_cast<const TextT*>(pArgs)->text);
        },
        nullptr);
    return gWorkers[1].mod.ThrowException(&gWorkers[1].mod, 0, text.text, &text, sizeof(text));
}

eErrorT StopCmd(int, char**, char*) {
    StopDemo();
    return kNoError;
}

CmdEntryT gSubCommands[] = {
    {{}, "call", CallCmd, 2, "call <text>", 0, 0},
    {{}, "callback", CallbackCmd, 2, "callback <text>", 0, 0},
    {{}, "timer", TimerCmd, 3, "timer <milliseconds> <count> [&]", 0, 0},
    {{}, "exception", ExceptionCmd, 2, "exception <text>", 0, 0},
    {{}, "stop", StopCmd, 1, "stop", 0, 0},
    {{}, nullptr, nullptr, 0, nullptr, 0, 0},
};

eErrorT DemoCmd(int argc, char** argv, char* pResponse) {
    if (argc > 1 && strcasecmp(argv[1], "stop") != 0 && !StartWorkers()) {
        return kCantStartTask;
    }
    return MsgSubCmdParse(gSubCommands, argc, argv, pResponse);
}

CmdEntryT gDemoCmd = {{}, "demo", DemoCmd, 1, "demo call|callback|timer|exception|stop", 0, 0};

}  // namespace

bool AddDemo() {
    KnowSubCommands("demo", gSubCommands);
    return MsgAddCmd(&gDemoCmd) == kNoError;
}

void StopDemo() {
    for (int i = kWorkers - 1; i >= 0; i--) {
        const UInt32 task = gTasks[i].exchange(0);
        if (task != 0) {
            t_delete(task);
            TimerExit(&gWorkers[i].timer);
            ModExit(&gWorkers[i].mod);
        }
    }
}

}  // namespace harborsh
