// Diagnostics of tasks: the list and the CPU use, read from the process file system. Any thread may
// call; the reports go to standard output.
#pragma once

#include "Common/OS/types.h"

// Prints every task (at most 200): index, id, name, priority, process id.
void osTaskDump();

// Prints every task's CPU use since the process began and since the last report.
void osTaskUsage();

// Prints the CPU use of the other processes of the machine since the last report, the busiest
// first.
void cpu_usage_other();
