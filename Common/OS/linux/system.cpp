// What the program knows of the machine.
#include "Common/OS/linux/system.h"

UInt32 ProcessorCnt, TIProcessorCnt, TMProcessorCnt, DavinciHDProcessorCnt;

namespace {
hwTypeT sHwType = kUninitialized;
}

hwTypeT GetSystemHardwareType() {
    return sHwType;
}

void SetSystemHardwareType(hwTypeT hwtype) {
    sHwType = hwtype;
}

UInt32 ExecutionLevel() {
    return 0;
}

UInt32 GetProcessorNum() {
    return 0;
}

UInt32 GetNumProcessors() {
    return ProcessorCnt;
}

UInt32 GetNumTIProcessors() {
    return TIProcessorCnt;
}

UInt32 GetNumTMProcessors() {
    return TMProcessorCnt;
}

UInt32 GetNumDavinciHDProcessors() {
    return DavinciHDProcessorCnt;
}

UInt32 GetCyclesPerTick() {
    return 666666;
}
