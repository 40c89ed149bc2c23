// What the program knows of the machine: the board's type, processor numbers and counts.
#pragma once

#include "Common/OS/types.h"

typedef enum : UInt32 {
    kUninitialized = 0,  // before SetSystemHardwareType
    kHarbor = 1          // the host board of the unit
} hwTypeT;

// The board's type as set; kUninitialized until then. Any thread may call.
hwTypeT GetSystemHardwareType();

// Sets the board's type. Call at start-up, before other threads ask.
void SetSystemHardwareType(hwTypeT hwtype);

// Always 0: everything here runs at task level.
UInt32 ExecutionLevel();

// The number of this processor: always 0.
UInt32 GetProcessorNum();

// Processor counts by kind. Nothing here sets them: a program that knows of more sets the
// variables below at start-up.
UInt32 GetNumProcessors();
UInt32 GetNumTIProcessors();
UInt32 GetNumTMProcessors();
UInt32 GetNumDavinciHDProcessors();
extern UInt32 ProcessorCnt, TIProcessorCnt, TMProcessorCnt, DavinciHDProcessorCnt;

// Cycles of the counter behind CYCLES() in one tick of 10 ms: 666666.
UInt32 GetCyclesPerTick();
