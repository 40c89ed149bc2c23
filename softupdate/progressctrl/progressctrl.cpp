// Writes progress positions. State is one copy of the path and the range.
#include "softupdate/progressctrl/progressctrl.h"

#include <stdio.h>
#include <string.h>

namespace {

SInt8 szCommPipe[kCommPipeSize];
SInt32 nLowerLimit = 0;
SInt32 nWidth = 100;
SInt32 nLastPos = 0;

// Unsigned arithmetic wraps where signed arithmetic would be undefined.
SInt32 PositionOf(SInt32 percent) {
    const UInt32 product = static_cast<UInt32>(percent) * static_cast<UInt32>(nWidth);
    const SInt32 offset = static_cast<SInt32>(product) / 100;
    return static_cast<SInt32>(static_cast<UInt32>(offset) + static_cast<UInt32>(nLowerLimit));
}

// Returns 0, or 1 when the position did not reach the file whole.
int WritePosition(SInt32 position) {
    FILE* pipe = fopen(szCommPipe, "w");
    if (pipe == nullptr) {
        printf("progressCtrlSetPos: could not open %s\n", szCommPipe);
        fflush(stdout);
        return 1;
    }
    const bool printed = fprintf(pipe, "%d", position) > 0;
    // The text leaves the buffer here, so that a full disk or a lost reader shows here.
    const bool closed = fclose(pipe) == 0;
    if (printed && closed) {
        return 0;
    }
    printf("progressCtrlSetPos: could not write %s\n", szCommPipe);
    fflush(stdout);
    return 1;
}

}  // namespace

int progressCtrlInit(const SInt8* pszCommPipe, int nRangeLowerLimit, int nRangeUpperLimit) {
    const std::size_t length = strlen(pszCommPipe);
    if (length >= sizeof szCommPipe) {
        printf("progressCtrlInit: pipe path longer than %d characters, no progress is reported\n",
               kCommPipeSize - 1);
        return 1;
    }
    memcpy(szCommPipe, pszCommPipe, length + 1);
    nWidth = static_cast<SInt32>(static_cast<UInt32>(nRangeUpperLimit) -
                                 static_cast<UInt32>(nRangeLowerLimit));
    nLastPos = 0;
    nLowerLimit = nRangeLowerLimit;
    return 0;
}

int progressCtrlSetPos(int nPos) {
    const SInt32 position = PositionOf(nPos);
    if (position <= nLastPos) {
        return 0;
    }
    nLastPos = position;
    const int result = WritePosition(position);
    printf("percentdone: [%d]\n", position);
    fflush(stdout);
    return result;
}
