// What the command line asks for, and what the version checks find: each 0 or 1, 0 at start. For
// the updater's thread only.
#pragma once

#include "Common/OS/types.h"

extern Boolean gbDoMicro;         // the microcontroller is a target
extern Boolean gbDoOverlook;      // the camera is a target
extern Boolean gbQueryOnly;       // find out whether an update is needed; send no image
extern Boolean gbRebootOverlook;  // have the microcontroller reboot the camera, check no version
extern Boolean gbUpdateRequired;  // set by the version checks
