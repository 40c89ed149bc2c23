// A fan whose speed follows what it is asked for, step by step: a service as the framework knows
// them. Its record belongs to the task that initialised it; others reach it with FanSetSpeed, with
// the text command "fan", and through its callbacks.
#pragma once

#include "Common/OS/errors.h"
#include "Common/framework/mod.h"
#include "Common/framework/timer.h"

// Fired whenever the speed has changed; the arguments are a FanSpeedT.
constexpr UInt32 kFanSpeedChanged = 0;

typedef struct FanSpeedS {
    int percent;
} FanSpeedT;

typedef struct FanS {
    ModT mod;  // first: a pointer to the record is a pointer to its module
    TimerT step;
    int percent;
    int wanted;
} FanT;

// Initialises a fan in the calling task, which from then on serves it (ModTaskLoop), and adds the
// command "fan". The record is zeroed before and lives until FanExit. kNoError, or the error of the
// command.
eErrorT FanInit(FanT* fan, int instance);

// Ends it, in the same task. Always kNoError.
eErrorT FanExit(FanT* fan);

// Asks for a speed, from any task. Does not block; the speed changes by at most 20 % every 10 ms.
// kNoError, or kBadParameter for less than 0 or more than 100 %, or when the fan's task is gone.
eErrorT FanSetSpeed(FanT* fan, int percent);
