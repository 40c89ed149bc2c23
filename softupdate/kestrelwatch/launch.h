// The whole of a launch, step by step.
#pragma once

#include "softupdate/kestrelwatch/record.h"

namespace watch {

// Checks, locks, asks, updates, asks again and reports, as the options in the record say. Returns
// the exit status.
int Launch(RecordT* record);

}  // namespace watch
