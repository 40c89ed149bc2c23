// The firmware updater: command line, order of the targets, and the driver of each. All of it runs
// on the process's first thread and prints on standard output.
#pragma once

// The whole program. Returns the process result: 0 done (in query-only mode: nothing to update), 1
// in query-only mode when an image is to be updated, -1 for a usage error or any failure. Makes
// standard output line-buffered and ignores SIGPIPE for the process.
int KestrelFlashMain(int argc, char** argv);

void print_usage();

// Drives one target over its port: checks and updates it, or in query-only mode only checks;
// flash_micro with gbRebootOverlook asks for the camera's reboot instead. Each opens the port and
// closes it again on every way out, and blocks for as long as that takes. Returns 0 or -1. The
// arguments are printed by flash_overlook and not used otherwise.
int flash_micro(int argc, char** argv);
int flash_overlook(int argc, char** argv);
