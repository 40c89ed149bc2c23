// One run: everything set up in the right order, the loop that serves the updater, the end.
#pragma once

#include "tools/kestrelwatch/options.h"

namespace watch {

// Runs the updater as the options say and returns the exit status. Throws SetupError when nothing
// could be started.
int Run(const OptionsT& options);

}  // namespace watch
