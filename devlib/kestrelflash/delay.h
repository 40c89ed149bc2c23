// The updater's pause.
#pragma once

// Blocks for `delay_usecs` microseconds; 0 or less returns at once. A signal starts the whole pause
// anew. The host board can shorten the updater's pauses (see BoardDelay).
void Delay(int delay_usecs);
