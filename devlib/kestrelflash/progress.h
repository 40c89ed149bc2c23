// How far the update has come, counted in image bytes. For the updater's thread only.
#pragma once

#include "Common/OS/types.h"

typedef struct {
    Boolean bDoUpdate;        // reporting is on
    SInt32 nPercentDone;      // last percentage computed
    SInt32 nTotBytesToDo;     // sum of the image sizes of the requested targets
    SInt32 nTotBytesDone;     // bytes counted so far
    SInt32 nRangeLowerLimit;  // the range from the command line
    SInt32 nRangeUpperLimit;
    SInt32 nMicroFileSize;  // sizes of the three images, 0 where not requested
    SInt32 nSysFileSize;
    SInt32 nCamFileSize;
    const SInt8* pszCommPipe;  // the pipe's path, owned by the argument vector
} progressCtrlT;

extern progressCtrlT gProgressCtrl;

// Adds the size in bytes of one more image to what is to be done.
void ProgressAddImage(SInt32 size);

// Counts `nBytesDone` more image bytes and reports the percentage, where reporting is on and there
// is anything to do. All arithmetic is in 32 bits and wraps: from 21,474,837 bytes on, the
// percentage is not the true one. Blocks until a named pipe has a reader.
void updateProgress(int nBytesDone);
