// The framework as the shell runs it: the services that every program of this kind starts, and the
// task "cmds" that owns the shell's commands. For the main thread.
#pragma once

#include <string>

#include "Common/OS/types.h"

namespace harborsh {

// Starts everything and waits until the commands are there. Log lines above `log_level` (0 to 7)
// are dropped. False, with a line on standard error, when something could not be started.
// `store` is the folder of the configuration store; empty: the unit's own where that exists, else a
// temporary one, which StopServices removes.
bool StartServices(int log_level, const std::string& store);

// Ends everything that StartServices and the commands started.
void StopServices();

// The task that the commands belong to.
UInt32 CommandTask();

// Whether the shell is ending: commands that would wait do not.
bool Stopping();

// Whether no deferred work waits or runs anywhere in the process.
bool Settled();

}  // namespace harborsh
