// The progress control: maps a percentage onto a range and writes the position into a pipe (or any
// file) that another program watches. For one thread only.
//
// The other program sees one decimal number per open, without a line end; numbers only grow.
#pragma once

#include "Common/OS/types.h"

// Size of the buffer that keeps the pipe's path, its ending NUL included.
constexpr int kCommPipeSize = 256;

// Takes a copy of the path (not null) and the range, and starts anew from position 0. The range is
// not checked: reversed or negative ones give the positions that the arithmetic gives. Returns 0,
// or 1 with a console line, and nothing changed, for a path that does not fit. Does not touch the
// file system.
int progressCtrlInit(const SInt8* pszCommPipe, int nRangeLowerLimit, int nRangeUpperLimit);

// Reports `nPos` percent: writes nPos * (upper - lower) / 100 + lower, in 32-bit arithmetic that
// wraps and truncates towards zero, unless it is no greater than the last position (0 at first).
// Returns 0, or 1 when the pipe could not be opened or written; the position counts as reported
// all the same. Blocks until a named pipe has a reader. A reader that goes away in the midst of a
// position costs that position: the caller's process ignores SIGPIPE.
int progressCtrlSetPos(int nPos);
