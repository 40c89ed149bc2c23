// A task that hosts a service, and a main task that uses it: a request as a deferred call, news as
// deferred callbacks, and the same service by text commands.
#include <stdio.h>

#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/message.h"
#include "examples/service/fan.h"

namespace {

constexpr UInt32 kReady = 0x10000;
constexpr UInt32 kAnswered = 0x20000;

FanT gFan;
UInt32 gMain;
int gPercent = -1;

void FanTask(UInt32, UInt32, UInt32, UInt32) {
    FanInit(&gFan, 0);
    ev_send(gMain, kReady);
    ModTaskLoop();  // until somebody sends kModEventExit
}

// In the fan's task, where the service began.
void EndFan(void*, void*) {
    FanExit(&gFan);
    ev_send(gMain, kReady);
}

// Runs in the main task, which registered it.
void OnSpeed(ModT* pMod, UInt32, void*, void* pArgs) {
    gPercent = static_cast<FanSpeedT*>(pArgs)->percent;
    printf("main: %s turns at %d %%\n", ModName(pMod), gPercent);
}

// Runs in the notification task.
void OnAnswer(eErrorT err, const char* text, void*) {
    printf("main: command answered \"%s\", %s\n", text,
           err == kNoError ? "no error" : ErrorString(err));
    ev_send(gMain, kAnswered);
}

void Command(const char* line) {
    UInt32 events;
    MsgSendCmd(line, OnAnswer, nullptr);
    ev_receive(kAnswered, kEvAny, 0, &events);
}

}  // namespace

int main() {
    os_init();
    t_attach("main", 0, nullptr);
    t_ident(nullptr, 0, &gMain);
    UInt32 events;

    MsgInit();  // the built-in commands run here, in the main task
    UInt32 task;
    t_create("fan ", 20, 0, 0, 0, &task);
    t_start(task, 0, FanTask, nullptr);
    ev_receive(kReady, kEvAny, 0, &events);

    ModAddCallback(&gFan.mod, kFanSpeedChanged, OnSpeed, nullptr, kModCallbackDeferred);
    FanSetSpeed(&gFan, 50);
    while (gPercent != 50) {
        ev_receive(kModEventsAll, kEvAny, 0, &events);
        ModProcessEvents(events);
    }
    Command("fan 50");
    Command("fan fast");

    ModDeferFunctionCall(task, EndFan, nullptr, nullptr, 0);
    ev_receive(kReady, kEvAny, 0, &events);
    ev_send(task, kModEventExit);
    MsgExit();
    puts(ModFindByName("Fan", 0) == nullptr ? "main: the fan is gone" : "main: a fan is left");
    return 0;
}
