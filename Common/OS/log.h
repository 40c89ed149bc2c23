// The log's entry points, declared on the ground floor because every floor logs. The log floor
// (logmsg, syslog) defines them. Any thread may call; a call formats into stack and static buffers
// and queues the line: it neither allocates nor waits for output.
#pragma once

#include <cstdarg>

#include "Common/OS/types.h"

// Levels are the syslog priorities.
typedef enum LogLevelS : int {
    kLogEmergency = 0,
    kLogAlert = 1,
    kLogCritical = 2,
    kLogError = 3,
    kLogWarning = 4,
    kLogNotice = 5,
    kLogInfo = 6,
    kLogDebug = 7
} LogLevelT;

// Each takes a short component word (null for none) and a printf format, and returns the number of
// characters formatted, header included, or 0 for a null format. Text without a line feed
// continues the current line.
int logcrit(const char* component, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int logerr(const char* component, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int logwarn(const char* component, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int loginfo(const char* component, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int logdebug(const char* component, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The same at any level; a level outside 0 to 7 prints as the nearest one.
int logmsg(int level, const char* component, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The same without a component.
int cm_syslog(int pri, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The common worker of all of them.
int va_logmsg(std::va_list ap, int level, const char* component, const char* fmt)
    __attribute__((format(printf, 4, 0)));
