// Everything in the record is touched by the fan's own task only; that is why nothing is locked.
#include "examples/service/fan.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "Common/framework/message.h"

namespace {

constexpr int kStepMs = 10;
constexpr int kStepPercent = 20;

FanT* gFan;  // the one that the command reaches

void OnStep(void* userDefined) {
    auto* fan = static_cast<FanT*>(userDefined);
    fan->percent += std::clamp(fan->wanted - fan->percent, -kStepPercent, kStepPercent);
    if (fan->percent == fan->wanted) {
        TimerStop(&fan->step);
    }
    FanSpeedT speed = {fan->percent};
    fan->mod.CallCallbacks(&fan->mod, kFanSpeedChanged, &speed, sizeof speed);
}

// In the fan's task: `pArgs` is the copy that travelled.
void DoSetSpeed(void* userDefined, void* pArgs) {
    auto* fan = static_cast<FanT*>(userDefined);
    fan->wanted = static_cast<FanSpeedT*>(pArgs)->percent;
    if (fan->wanted != fan->percent && TimerRunning(&fan->step) == 0) {
        TimerStart(&fan->step);
    }
}

// "fan <percent>": runs in the fan's task, because that task added it.
eErrorT FanCommand(int, char** argv, char* pResponse) {
    char* end = argv[1];
    const auto percent = static_cast<int>(strtol(argv[1], &end, 10));
    if (end == argv[1] || *end != '\0' || FanSetSpeed(gFan, percent) != kNoError) {
        snprintf(pResponse, kMsgMaxLen, "0 to 100, please");
        return kBadParameter;
    }
    if (percent == gFan->percent) {
        snprintf(pResponse, kMsgMaxLen, "already at %d %%", percent);
    }
    return kNoError;
}

CmdEntryT gCommand = {{}, "fan", FanCommand, 2, "fan <percent>", 0, 0};

}  // namespace

eErrorT FanInit(FanT* fan, int instance) {
    ModInit(&fan->mod, "Fan", instance, nullptr);
    TimerInit(&fan->step, kStepMs, OnStep, fan, 1);
    gFan = fan;
    return MsgAddCmd(&gCommand);
}

eErrorT FanExit(FanT* fan) {
    MsgDeleteCmd(&gCommand);
    TimerExit(&fan->step);
    return ModExit(&fan->mod);
}

eErrorT FanSetSpeed(FanT* fan, int percent) {
    if (percent < 0 || percent > 100) {
        return kBadParameter;
    }
    FanSpeedT speed = {percent};
    return ModDeferFunctionCall(fan->mod.taskID, DoSetSpeed, fan, &speed, sizeof speed);
}
