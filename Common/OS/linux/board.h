// What only the real board has, behind one interface with two implementations chosen by the build:
// board_harbor.cpp for the unit, board_host.cpp for a workstation. Any thread may call.
#pragma once

#include "Common/OS/linux/fpgaserial.h"
#include "Common/OS/types.h"

struct termios;

// The unit's real-time-clock block, six 32-bit registers in the processor's byte order.
struct rtclk8349 {
    UInt32 cnr;  // control; 0x80 enables the clock
    UInt32 ldr;  // load
    UInt32 psr;  // prescale; input clock cycles per count, less one
    UInt32 ctr;  // counter
    UInt32 evr;  // event
    UInt32 alr;  // alarm
};
static_assert(sizeof(rtclk8349) == 24);

// Opens a device node read-write and returns its descriptor, or -1 with errno set. The host board
// looks the node up in the folder that the environment variable HARBOR_DEV_DIR names, where set,
// in place of /dev, and makes a terminal found there raw so that it does not echo. May block as
// open(2) does.
int BoardOpenDevice(const char* node);

// Opens the launcher's pipe, which is never created, with the flags of open(2), and returns its
// descriptor, or -1 with errno set. Where HARBOR_DEV_DIR is set, the host board takes the pipe
// "plaunch" of that folder: a unit that is played there has a launcher of its own. May block as
// open(2) does.
constexpr char kLauncherPipe[] = "/tmp/plaunch";
int BoardOpenLauncher(int flags);

// Issues the FPGA serial driver's configuration request, 0x80260001. Returns 0, or the driver's
// non-zero result with errno set. On the host board a terminal that does not know the request gets
// the same settings through termios.
int BoardFpgaSerialConfigure(int fd, const fpgaserial_config_t* config);

// Issues the FPGA serial driver's receiver request, 0x80260002: 0 switches the receiver on, 1 off.
// Returns 0, or the driver's non-zero result with errno set. On the host board a terminal that does
// not know the request switches CREAD.
int BoardFpgaSerialReceiver(int fd, int off);

// Applies terminal attributes at once. Returns 0, or -1 with errno set. A pseudo-terminal has no
// wire and keeps a character size, parity and receiver of its own; on the host board that is no
// failure.
int BoardSetTerminal(int fd, const struct termios* attributes);

// Waits until what was written to a line has left it, where the driver below only buffers: what is
// waited for after a write counts from then. The unit's own drivers take a write no sooner. May
// block as long as the line does not send.
void BoardDrain(int fd);

// Starts the millisecond clock from 0, again if it runs already, and returns the block whose `ctr`
// counts, or null when it cannot be reached (which is logged).
volatile rtclk8349* BoardStartClock();

// Milliseconds since the last BoardStartClock, from the block that it returned. The host board has
// no counter of its own: it derives the count from the monotonic clock.
UInt32 BoardClockMilliseconds(const volatile rtclk8349* clock);

// The low word of a counter that runs at GetProcessorFrequency (66666664 Hz); wraps.
UInt32 BoardCycles();

// The time to pause for a designed pause of `usecs` microseconds. The board pauses for what is
// asked; the host board scales by the environment variable HARBOR_DELAY_PERCENT (0 to 100, default
// 100), so that tests need not wait for a unit that does not exist.
int BoardDelay(int usecs);
