// Event flags: 32 bits per task, sent by anybody, waited for by the task itself.
#pragma once

#include "Common/OS/types.h"

// Option bits of ev_receive.
constexpr UInt32 kEvNoWait = 0x01;  // do not wait
constexpr UInt32 kEvAny = 0x02;     // any of the events suffices; otherwise all are required

// Records `new_events` for a task (0 = self) and wakes it. Any thread may call; never blocks on the
// receiver's wait. Returns 0, 9 when the id is no task (nothing is recorded), or the system's
// error when the task could not be signalled.
UInt32 ev_send(UInt32 tid, UInt32 new_events);

// Receives events of the calling task. Waits until the events of `mask` are there (all, or any with
// kEvAny), at most `max_wait` ticks of 10 ms (0: for ever), stores the matched ones through
// `captured` and consumes exactly those. With kEvNoWait it does not wait. A `mask` of 0 stores all
// events present without consuming any. Returns 0; 1 when the time-out expired; 6 when the caller
// is no task; 60 when a non-waiting receive found nothing. A cancellation point while it waits.
UInt32 ev_receive(UInt32 mask, UInt32 opt, UInt32 max_wait, UInt32* captured);

// The part of `mask` that `captured` satisfies under `opt`, 0 for none.
UInt32 events_matched(UInt32 captured, UInt32 mask, UInt32 opt);
