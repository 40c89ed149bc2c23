// The message side of the log: assembling lines, the repeat filter, the show and cull filters, and
// what of them is kept in the configuration. The entry points that components use (logcrit to
// va_logmsg) are in Common/OS/log.h.
//
// Any thread may call anything here. Filter tables and settings may change while other tasks log:
// a line is judged by the tables as they are before the change or after it. Nothing here allocates,
// and nothing but the dumps and the filter reports writes to standard output.
#pragma once

#include <atomic>

#include "Common/OS/errors.h"
#include "Common/OS/log.h"
#include "Common/OS/types.h"

// Bits of the output format.
constexpr int kLogFormatDate = 1;   // "date": the writer prefixes the date
constexpr int kLogFormatTime = 2;   // "time": the writer prefixes the time with milliseconds
constexpr int kLogFormatLevel = 4;  // "level": the writer prints the level field
constexpr int kLogFormatProc = 8;   // "proc": kept only; the processor field is always printed

// Sizes in bytes, the ending NUL included.
constexpr int kLogLineSize = 512;         // an assembled line
constexpr int kLogFilterSize = 370;       // one filter
constexpr int kLogFilterCount = 10;       // slots of a filter table
constexpr int kLogFormatTextSize = 32;    // what logmsg_format_string writes
constexpr int kLogConfigValueSize = 371;  // what the configuration's read may write

// How the log reaches the configuration, which stands on a floor above. Both are called in the
// thread that logs or sets, with no lock of the log held, and may log themselves.
typedef struct LogConfigS {
    // Stores the variable's text through `value` (kLogConfigValueSize bytes), an empty one when
    // there is no such variable. kNoError when it exists.
    eErrorT (*read)(const char* name, int instance, char* value);
    // Stores a value. kNoError when it is kept.
    eErrorT (*write)(const char* name, int instance, const char* value);
} LogConfigT;

// Registers the configuration (null: none). The record stays the caller's and must last. Without
// one, loads find nothing and leave everything as it is, and saves do nothing. Because the first
// line printed loads the settings, `read` may be called from inside any log call: it must not wait
// for what its caller holds.
void logmsg_set_config(const LogConfigT* config);

// 0 until the first line is printed after a configuration was registered, which sets it and loads
// filters and format. A program that sets it to 1 beforehand keeps the log off the configuration.
extern std::atomic<int> gConfigLoaded;

// Filters one finished line of `len` characters and queues it. Returns `len`, or 0 when the line
// was null, empty or dropped by a filter. Waits for the queue's semaphore, never for output, except
// that the first line of all may read the configuration.
int logmsg_print(const char* msg, int len);

// Switches the echo of every line to the platform's syslog(); 0 is off, the initial state. The
// setter returns 0.
int logmsg_set_syslog_echo(int on);
int logmsg_get_syslog_echo();

// The output format, kLogFormat bits; initially kLogFormatProc. The setter returns 0.
int logmsg_set_format(int format);
int logmsg_get_format();

// The repeat filter, which holds back lines equal to the one before and counts them; 0 is off, the
// initial state. The setter also stores the configuration variable "spewfilter" ("True" or
// "False") and returns 0; it blocks as the configuration's write does.
int logmsg_set_spewfilter(int on);
int logmsg_get_spewfilter();

// The show filters: while there is one, only lines that contain one of them are printed. A filter
// is a substring, compared with case, of at most 369 characters; longer ones are cut.
// add: copies the filter into the first free slot and returns 0. A full table is reported on
// standard output and returns -1. A null or empty filter is none: -1, and nothing changes.
// delete: removes the first filter equal to the text, ignoring case (as cut by add), or all for
// "*". An unknown one is reported on standard output. Returns 0.
// dump: prints the table on standard output. Returns 0.
// load: adds what the configuration holds in instances 0 to 9 of "showfilter" and returns how many
// were added. save: stores all ten slots there, empty ones too; returns 0, or -1 when one could not
// be kept. Both block as the configuration does, and do nothing on a processor other than 0.
int logmsg_showfilter_add(const char* filter);
int logmsg_showfilter_delete(const char* filter);
int logmsg_showfilter_dump();
int logmsg_showfilter_load();
int logmsg_showfilter_save();

// The cull filters: lines that contain one of them are dropped, even if a show filter wants them.
// The calls are those of the show filters, with the variable "cullfilter".
int logmsg_cullfilter_add(const char* filter);
int logmsg_cullfilter_delete(const char* filter);
int logmsg_cullfilter_dump();
int logmsg_cullfilter_load();
int logmsg_cullfilter_save();

// Writes the keywords of the set bits into `out` (kLogFormatTextSize bytes), in the order date,
// time, level, proc, each followed by a blank. Returns the number of characters.
int logmsg_format_string(int format, char* out);

// Keep the format in the configuration variable "logformat", as its keywords. save: returns 0, or
// -1 when it could not be kept. load: sets the format from the keywords found (other words are
// ignored; none, or no such variable, is 0) and returns 0. dump: prints the keywords on standard
// output and returns 0.
int logmsg_format_save();
int logmsg_format_load();
int logmsg_format_dump();

// Sets the repeat filter from the variable "spewfilter" when that exists: on for "True" in any
// case, else off. Returns 0.
int logmsg_spewfilter_load();
