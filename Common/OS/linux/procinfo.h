// Questions to the environment, to shell commands and to the process file system. Any thread may
// call; read_command and is_NFS block for as long as the command runs, and a task deleted meanwhile
// goes when it has ended.
#pragma once

#include "Common/OS/types.h"

// Copies an environment variable into `buff` when it exists and is shorter than `max`. Returns 0,
// or -1 with `buff` untouched.
int read_env(const char* variable, char* buff, int max);

// Runs a shell command and stores the first line of its output, at most `max` - 1 characters,
// trimmed. Returns 0, or -1 with an empty `buff` when it cannot be run or prints nothing.
int read_command(const char* command, char* buff, int max);

// -1 (true) when the root file system is mounted over NFS, else 0. The first answer is kept.
int is_NFS();

// The id of the first process whose command name is exactly `process_name`, or -1.
int find_pid(const char* process_name);

// Stack back-traces are not implemented: each prints a line that says so.
void stackBackTrace(UInt32 taskID);
void sstackBackTrace(UInt32 taskID);
