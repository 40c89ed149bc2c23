// Opens and closes a target's serial port for a driver, and says on standard output what failed.
// For the updater's thread only.
#pragma once

// Each returns true on success.

// Opens the port as the targets expect it: 115200 baud, 8 data bits, even parity, 1 stop bit, no
// flow control. `driver` is the function that a failure's line names.
bool OpenTargetPort(const char* driver, int port);

// Switches both directions on.
bool EnableTargetPort(const char* driver, int port);

// Switches both directions off; a port that is not open any more is fine.
bool DisableTargetPort(int port);

bool CloseTargetPort(int port);
