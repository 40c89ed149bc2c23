// The process-wide flags of the updater.
#include "devlib/kestrelflash/updateflags.h"

Boolean gbDoMicro = 0;
Boolean gbDoOverlook = 0;
Boolean gbQueryOnly = 0;
Boolean gbRebootOverlook = 0;
Boolean gbUpdateRequired = 0;
