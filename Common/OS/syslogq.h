// The queue side of the log: finished lines go into one static queue, from which the writer task
// "logw" prints them on standard output.
//
// Any task may add lines; producers take turns with a semaphore and never wait for the output. One
// thread at a time takes lines out and prints them, normally the writer; a program that is about to
// end, or to print something itself, may drain too. What happens when lines come faster than they
// can be printed is told at syslogAdd.
//
// The header's name keeps it apart from the platform's <syslog.h>.
#pragma once

#include <atomic>

#include "Common/OS/types.h"

// Starts the log's output: empties the queue, makes the semaphore and the writer task "logw". Lines
// logged before are dropped. Call once at start-up, before other tasks log; once it has returned 0,
// later calls do nothing while the writer lives. Returns -1 when the semaphore or the task could
// not be made; a missing task is logged, and a later call makes it, also one that was deleted, and
// prints what was queued meanwhile.
int InitSyslogInterface();

// Queues a finished line of at most `msglen` characters (its own NUL may end it earlier) and wakes
// the writer. Returns 0, or -1 when the line was not queued: it is null, empty or filtered by
// syslogSetLogLevel, the queue does not exist yet, or there was no room.
//
// A line that would overrun unread ones is lost. At the queue's end the next line goes to the start
// all the same: there the oldest unread lines give way to it, whole lines only. While a line too
// long for the assembly is being printed, which happens where it stands, none gives way and the new
// line is lost. Each loss is reported by OVERFLOW_MSG on standard error and, for a line that was
// lost, in the queue too where that has room.
//
// Waits for other producers, and for standard error to take the report of a loss. May be cancelled
// while it waits, with nothing left held.
int syslogAdd(const char* msg, int msglen);

// syslogAdd in two halves, for a caller that holds a lock: the first queues and writes to no file,
// the second, without the lock, wakes the writer and reports losses. It returns syslogAdd's result.
struct LogPutT {
    bool queued = false;
    bool lost = false;         // this line, or unread ones that gave way to it
    bool call_writer = false;  // nobody has done so yet
};
LogPutT syslogPut(const char* msg, int msglen);
int syslogFinish(const LogPutT& put);

// Prints the queued lines until there are none, and flushes standard output: what was queued before
// the call is out when it returns, whoever printed it. Lines come out in the order of the queue.
// Blocks for as long as the output does and lines keep coming; may be cancelled. Returns 0.
int syslogDrainQueue();

// Drops from now on every line whose level, recognised from its first letter, is above `level`;
// initially 7, which drops none. Returns 0.
int syslogSetLogLevel(int level);

// Writes what the output format asks for in front of a line (date, time, both with a blank after,
// in UTC) into `str`, which holds kLogStampSize bytes. Returns the number of characters, 0 for
// none.
constexpr int kLogStampSize = 64;
int genTimestamp(char* str);

// Controls in the manner of the C library's, whose functions openlog, closelog and setlogmask this
// system replaces (prototypes in <syslog.h>). They keep values and open no connection; the echo to
// the platform's syslog() uses the platform's own.
// openlog: keeps a non-null `ident` as the tag (it stays the caller's), `logstat`, and `logfac`
// when it is a facility. closelog: forgets the connection, if there is one. The mask setters return
// the previous mask and leave it for 0. setlogfacility keeps any value and returns 0.
extern "C" void openlog(const char* ident, int logstat, int logfac);
extern "C" void closelog();
extern "C" int setlogmask(int pmask) noexcept;
int setloglocalmask(int pmask);
int getlogmask();
int getloglocalmask();
int setlogfacility(int facility);
int getlogfacility();

// Logging to another host is not supported: -1.
int setlogaddr(const char* hostname);

// The name of the host logged to: always empty. The buffer is static.
char* getlogaddr();

// True while the calling thread is inside the queue's own calls of the operating-system layer. What
// these log cannot go through the queue that they serve: it goes to standard error.
bool syslogInOwnCalls();

// The queue, for the log's own tests and for diagnostics.
namespace logqueue {

constexpr int kStorageSize = 524298;
constexpr int kUsedSize = 524288;   // bytes that lines and padding can occupy
constexpr int kWrapLimit = 524286;  // no line ends beyond this offset
constexpr int kOverflowSize = 37;   // OVERFLOW_MSG with its NUL

// Lines back to back, each ended by a NUL. A NUL where the next line would start, with the write
// index not beyond it, says that the next line is at the start. The indexes change under a lock of
// the queue's own; a look at them from outside may be old when it is used.
extern char buf[kStorageSize];
extern std::atomic<int> log_buffer_head;  // read index: where the next line to print starts
extern std::atomic<int> log_buffer_tail;  // write index: where the next line will go
extern std::atomic<int> syslogLevel;
extern std::atomic<UInt32> logTaskID;      // the writer's id; 0 before there is one
extern std::atomic<UInt32> log_Semaphore;  // serialises producers; 0 before it exists
extern const char OVERFLOW_MSG[kOverflowSize];

}  // namespace logqueue
