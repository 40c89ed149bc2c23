// Shell commands handed to the launcher process through its named pipe, /tmp/plaunch. The command
// never runs in this process.
#pragma once

// Writes `command` and a line feed to the pipe, then reads the answer from it: one line with the
// command's exit status in decimal. Returns that number, or -1 when the pipe cannot be opened or
// nothing was read (text that is no number counts as 0). Calls are serialised. Blocks for as long
// as the launcher takes, and for ever where the pipe exists and nobody serves it. The pipe is
// never created here.
int system_pthread(const char* command);
