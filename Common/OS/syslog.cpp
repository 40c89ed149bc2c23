// One queue, many producers in turn, one reader. The indexes publish what lies between them: the
// reader looks only at lines that the write index has passed, a producer writes only where the read
// index has passed. The one exception is a wrap that drops unread lines; it first takes the read
// side away from the reader, and gives way where the reader has it. Neither side waits for it.
#define SYSLOG_NAMES  // the platform's header then defines prioritynames and facilitynames
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"

namespace logqueue {

char buf[kStorageSize];
std::atomic<int> log_buffer_head{0};
std::atomic<int> log_buffer_tail{0};
std::atomic<int> syslogLevel{LOG_DEBUG};
std::atomic<UInt32> logTaskID{0};
std::atomic<UInt32> log_Semaphore{0};
const char OVERFLOW_MSG[kOverflowSize] = "WARN   pc[0]: SYSLOG QUEUE OVERFLOW\n";

}  // namespace logqueue

namespace {

using namespace logqueue;

constexpr UInt32 kWriterEvent = 1;
constexpr UInt32 kWriterEvents = 0xFFFF;
constexpr UInt32 kWriterStack = 2048;  // bytes
constexpr int kLevelWidth = 6;         // columns of the level field, first in a line
constexpr int kEchoFacility = 64;
constexpr useconds_t kDrainPoll = 1000;

std::atomic<bool> gReadSideTaken{false};
std::atomic<int> gDraining{0};           // threads that take or print a line
std::atomic<bool> gWriterCalled{false};  // an event is on its way for what is in the queue
thread_local bool tInOwnCalls;

std::atomic<int> LogFile{-1};
std::atomic<int> connected{0};
std::atomic<int> LogStat{0};
std::atomic<const char*> LogTag{nullptr};
std::atomic<int> LogFacility{LOG_USER};
std::atomic<int> LogMask{0x1f};
std::atomic<int> LogLocalMask{0xff};
char syslogHostname[256];

// Marks the calling thread as inside the queue's calls of the operating-system layer.
class OwnCallsT {
  public:
    OwnCallsT() { tInOwnCalls = true; }
    ~OwnCallsT() { tInOwnCalls = false; }
    OwnCallsT(const OwnCallsT&) = delete;
    OwnCallsT& operator=(const OwnCallsT&) = delete;
};

// Holds the queue's semaphore for a scope, if it could be had.
class QueueHoldT {
  public:
    explicit QueueHoldT(UInt32 semaphore) : semaphore_(semaphore) {
        held_ = semaphore != 0 && sm_p(semaphore, 0, 0) == kSmOk;
    }
    ~QueueHoldT() noexcept(false) {
        if (held_) {
            sm_v(semaphore_);
        }
    }
    QueueHoldT(const QueueHoldT&) = delete;
    QueueHoldT& operator=(const QueueHoldT&) = delete;
    bool held() const { return held_; }

  private:
    UInt32 semaphore_;
    bool held_;
};

// The right to look at unread lines and to move the read index. Never waited for.
class ReadSideT {
  public:
    ReadSideT() : held_(!gReadSideTaken.exchange(true, std::memory_order_acquire)) {}
    ~ReadSideT() { Release(); }
    ReadSideT(const ReadSideT&) = delete;
    ReadSideT& operator=(const ReadSideT&) = delete;
    bool held() const { return held_; }

    void Release() {
        if (held_) {
            held_ = false;
            gReadSideTaken.store(false, std::memory_order_release);
        }
    }

  private:
    bool held_;
};

int LevelOf(char first) {
    switch (first) {
        case 'C':
            return LOG_CRIT;
        case 'E':
            return LOG_ERR;
        case 'W':
            return LOG_WARNING;
        case 'I':
            return LOG_INFO;
        default:
            return LOG_DEBUG;
    }
}

// ---- producers; the semaphore is held ----

enum class PutT { kQueued, kQueuedOverUnread, kLost };

// Writes a line of `size` bytes, NUL included, at `at`.
void Store(int at, const char* line, int size) {
    memcpy(buf + at, line, static_cast<size_t>(size) - 1);
    buf[at + size - 1] = '\0';
}

PutT Lose(int head, int tail) {
    if (tail + kOverflowSize < head) {
        Store(tail, OVERFLOW_MSG, kOverflowSize);
        log_buffer_tail.store(tail + kOverflowSize, std::memory_order_release);
    }
    return PutT::kLost;
}

// Where the first unread line starts that a line of `size` bytes at the start leaves whole, or 0
// for none. One that would start exactly behind the new line goes too: there the read index would
// meet the write index, and the queue would seem empty.
int FirstUnreadBehind(int size, int tail) {
    if (size >= tail) {
        return 0;
    }
    const void* end = memchr(buf + size, '\0', static_cast<size_t>(tail - size));
    const int next =
        end != nullptr ? static_cast<int>(static_cast<const char*>(end) - buf) + 1 : tail;
    return next < tail ? next : 0;
}

void StoreAtStart(int tail, const char* line, int size) {
    memset(buf + tail, 0, static_cast<size_t>(kUsedSize - tail));
    Store(0, line, size);
    log_buffer_tail.store(size, std::memory_order_release);
}

// Puts a line at the start of the queue, at the cost of unread lines where it must.
PutT PutAtStart(int head, int tail, const char* line, int size) {
    if (size < head && head <= tail) {
        StoreAtStart(tail, line, size);
        return PutT::kQueued;
    }
    ReadSideT side;
    head = log_buffer_head.load(std::memory_order_acquire);
    if (!side.held()) {
        return Lose(head, tail);
    }
    if (size < head && head <= tail) {  // the reader moved on meanwhile
        StoreAtStart(tail, line, size);
        return PutT::kQueued;
    }
    log_buffer_head.store(head == tail ? 0 : FirstUnreadBehind(size, tail),
                          std::memory_order_relaxed);
    StoreAtStart(tail, line, size);
    return head == tail ? PutT::kQueued : PutT::kQueuedOverUnread;
}

PutT Put(const char* line, int size) {
    const int head = log_buffer_head.load(std::memory_order_acquire);
    const int tail = log_buffer_tail.load(std::memory_order_relaxed);
    if (size > kWrapLimit) {
        return Lose(head, tail);
    }
    if (size > kWrapLimit - tail) {
        return PutAtStart(head, tail, line, size);
    }
    if (head > tail && head <= tail + size) {
        return Lose(head, tail);
    }
    Store(tail, line, size);
    log_buffer_tail.store(tail + size, std::memory_order_release);
    return PutT::kQueued;
}

void ReportLoss() {
    const ssize_t written = write(STDERR_FILENO, OVERFLOW_MSG, kOverflowSize - 1);
    (void)written;  // there is nobody left to tell
}

// ---- the writer ----

void WriteLine(const char* line, int length) {
    char stamp[kLogStampSize];
    genTimestamp(stamp);
    const int split = length < kLevelWidth ? length : kLevelWidth;
    const bool with_level = (logmsg_get_format() & kLogFormatLevel) != 0;
    // In one call, so that nothing printed by others comes between.
    printf("%s%.*s%s", stamp, with_level ? split : 0, line, line + split);
    if (logmsg_get_syslog_echo() != 0) {
        syslog(LevelOf(line[0]) | kEchoFacility, "%s", line + split);
    }
}

// The start of the line after `next`, which another line follows.
int FollowWrap(int next, int tail) {
    if (buf[next] != '\0') {
        return next;
    }
    if (tail > next) {
        printf("syslog: empty string @ 0x%x\n", id_of(buf + next));
        return next;
    }
    return 0;
}

// Counts the calling thread among those that drain, for a scope.
class DrainingT {
  public:
    DrainingT() { gDraining.fetch_add(1, std::memory_order_acq_rel); }
    ~DrainingT() { gDraining.fetch_sub(1, std::memory_order_acq_rel); }
    DrainingT(const DrainingT&) = delete;
    DrainingT& operator=(const DrainingT&) = delete;
};

// Prints one line. False after the last one, or when there is none.
bool DrainOne() {
    const DrainingT draining;
    ReadSideT side;
    const int tail = log_buffer_tail.load(std::memory_order_acquire);
    const int head = log_buffer_head.load(std::memory_order_relaxed);
    if (!side.held() || head == tail) {
        return false;
    }
    const char* line = buf + head;
    const int length = static_cast<int>(strlen(line));
    int next = head + length + 1;
    const bool last = next == tail;
    if (!last) {
        next = FollowWrap(next, tail);
    }
    // Taken out before it is printed, so that slow output keeps no room from producers. Only a line
    // that did not come through the assembly can be too long for that.
    char copy[2 * kLogLineSize];
    const bool fits = length < static_cast<int>(sizeof(copy));
    if (fits) {
        memcpy(copy, line, static_cast<size_t>(length) + 1);
        line = copy;
        log_buffer_head.store(next, std::memory_order_release);
        side.Release();
    }
    if (length > 0) {  // nothing stands where producers wrapped with everything read
        WriteLine(line, length);
    }
    if (!fits) {
        log_buffer_head.store(next, std::memory_order_release);
    }
    return !last;
}

void LogWriter(UInt32, UInt32, UInt32, UInt32) {
    for (;;) {
        {
            OwnCallsT own;
            UInt32 captured = 0;
            ev_receive(kWriterEvents, kEvAny, 0, &captured);
        }
        syslogDrainQueue();
    }
}

// Stores a mask unless it is 0; returns the one before.
int ExchangeMask(std::atomic<int>* mask, int pmask) {
    return pmask != 0 ? mask->exchange(pmask) : mask->load();
}

}  // namespace

int InitSyslogInterface() {
    if (log_Semaphore.load(std::memory_order_acquire) != 0) {
        return 0;
    }
    buf[0] = '\0';
    log_buffer_head.store(0, std::memory_order_relaxed);
    log_buffer_tail.store(0, std::memory_order_relaxed);
    UInt32 semaphore = 0;
    if (sm_create("logw", 1, 0, &semaphore) != kSmOk) {
        return -1;
    }
    log_Semaphore.store(semaphore, std::memory_order_release);
    UInt32 task = 0;
    if (t_create("logw", 0, kWriterStack, 0, 0, &task) != kTaskOk) {
        logerr("log", "can't create log writer task\n");
        return -1;
    }
    logTaskID.store(task, std::memory_order_release);
    if (t_start(task, 0, LogWriter, nullptr) != kTaskOk) {
        logerr("log", "can't start log writer task\n");
        return -1;
    }
    return 0;
}

bool syslogInOwnCalls() {
    return tInOwnCalls;
}

int syslogAdd(const char* msg, int msglen) {
    const size_t length =
        msg != nullptr && msglen > 0 ? strnlen(msg, static_cast<size_t>(msglen)) : 0;
    if (length == 0 || LevelOf(msg[0]) > syslogLevel.load(std::memory_order_relaxed)) {
        return -1;
    }
    PutT put;
    {
        OwnCallsT own;
        {
            QueueHoldT hold(log_Semaphore.load(std::memory_order_acquire));
            if (!hold.held()) {
                return -1;
            }
            put = Put(msg, length < INT_MAX ? static_cast<int>(length) + 1 : INT_MAX);
        }
        const UInt32 task = logTaskID.load(std::memory_order_acquire);
        // One event serves all lines queued before the writer looks: it takes the mark down first.
        if (task != 0 && !gWriterCalled.exchange(true, std::memory_order_acq_rel)) {
            ev_send(task, kWriterEvent);
        }
    }
    if (put != PutT::kQueued) {
        ReportLoss();
    }
    return put != PutT::kLost ? 0 : -1;
}

int syslogDrainQueue() {
    gWriterCalled.exchange(false, std::memory_order_acq_rel);
    while (DrainOne()) {
    }
    // What another thread has taken out is not printed yet, and it may leave lines behind.
    while (gDraining.load(std::memory_order_acquire) != 0) {
        usleep(kDrainPoll);
        while (DrainOne()) {
        }
    }
    fflush(stdout);
    return 0;
}

int syslogSetLogLevel(int level) {
    syslogLevel.store(level, std::memory_order_relaxed);
    return 0;
}

int genTimestamp(char* str) {
    str[0] = '\0';
    const int format = logmsg_get_format();
    timeval now;
    tm utc;
    gettimeofday(&now, nullptr);
    gmtime_r(&now.tv_sec, &utc);
    size_t used = 0;
    if ((format & kLogFormatDate) != 0) {
        used += strftime(str, 28, "%F", &utc);
    }
    if ((format & kLogFormatTime) != 0) {
        used += strftime(str + used, 28, " %H:%M:%S", &utc);
        used += static_cast<size_t>(snprintf(str + used, kLogStampSize - used, ".%03u",
                                             static_cast<unsigned>(now.tv_usec / 1000)));
    }
    if (used > 0) {
        str[used++] = ' ';
        str[used] = '\0';
    }
    return static_cast<int>(used);
}

void openlog(const char* ident, int logstat, int logfac) {
    if (ident != nullptr) {
        LogTag.store(ident);
    }
    LogStat.store(logstat);
    if (logfac != 0 && (logfac & ~LOG_FACMASK) == 0) {
        LogFacility.store(logfac);
    }
}

void closelog() {
    if (connected.exchange(0) != 0) {
        LogFile.store(-1);
    }
}

int setlogmask(int pmask) noexcept {
    return ExchangeMask(&LogMask, pmask);
}

int setloglocalmask(int pmask) {
    return ExchangeMask(&LogLocalMask, pmask);
}

int getlogmask() {
    return LogMask.load();
}

int getloglocalmask() {
    return LogLocalMask.load();
}

int setlogfacility(int facility) {
    LogFacility.store(facility);
    return 0;
}

int getlogfacility() {
    return LogFacility.load();
}

int setlogaddr(const char*) {
    return -1;
}

char* getlogaddr() {
    return syslogHostname;
}
