// The event logger: four words and a cycle-counter time stamp per entry, in a ring, for following
// what happens in places too hot for a log line. Nothing is formatted or printed until dump_log.
//
// Any thread may record; an entry takes the interrupts-off section for a few stores, so a thread
// that is inside that section already may record only in a program that ran os_init. dump_log,
// pause_log and init_logger are for any thread too.
#pragma once

#include <atomic>

#include "Common/OS/types.h"

typedef struct logger_entry {
    UInt32 time;  // cycle counter when it was recorded
    UInt32 e1, e2, e3, e4;
} * Plogger_entry;

// How dump_log prints.
typedef int (*pprintf)(const char* fmt, ...);

// Installs a ring of `max_log_entries` entries and empties it. The memory stays the caller's and
// must last while it is installed. A null buffer or a count below 1 installs none; the next
// recording then allocates one of 100 entries. Returns the ring installed before, null for none;
// one that the logger allocated is the caller's now (free). Does not wait for a dump to end: a dump
// of the old ring ends early.
Plogger_entry init_logger(Plogger_entry buffer, int max_log_entries);

// Records four words with the time, over the oldest entry when the ring is full. Does nothing while
// recording is paused, and when there is no ring and no memory for one.
void logger(UInt32 e1, UInt32 e2, UInt32 e3, UInt32 e4);

// Recording runs while every pause_log has been met by a resume_log; the count is what counts, in
// either direction.
void pause_log();
void resume_log();

// Prints the ring on standard output, oldest entry first, with absolute and elapsed times in
// seconds. Recording is paused meanwhile; when no ring is installed it stays paused. Blocks: a
// millisecond per line, so that a slow console keeps up.
void dump_log();

// State, for diagnostics. The ring and its counts are under the interrupts-off section.
extern std::atomic<Plogger_entry> orig_log_buffer;
extern int max_entries;
extern int currix;      // where the next entry goes
extern int max_logged;  // valid entries
extern std::atomic<int> log_state;
extern std::atomic<int> print_delay;  // microseconds after each printed line
extern std::atomic<pprintf> pLogPrint;
