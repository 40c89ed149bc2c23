// A demonstration of the framework: two tasks with a module each, between which calls, callbacks
// and timers run.
#pragma once

namespace harborsh {

// Adds the command "demo", to run in the calling task; false when it is refused.
bool AddDemo();

// Ends the tasks of the demonstration, if they were started.
void StopDemo();

}  // namespace harborsh
