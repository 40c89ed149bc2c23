// One queue, many producers in turn, one drainer at a time. logqueuemutex guards the indexes and
// what lies between them, and is held for the length of a copy only; the drain's turn is held while
// lines are taken out and printed, so that they come out in the order of the queue. Neither is held
// while the other is waited for, except that the holder of the turn takes logqueuemutex.
#define SYSLOG_NAMES  // the platform's header then defines prioritynames and facilitynames
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <utility>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexguard.h"
#include "Common/OS/linux/os_init.h"
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

// Under logqueuemutex.
bool gWriterCalled;     // the writer has an event since the last drain began
bool gPrintingInPlace;  // the line at the read index is being printed: the index stays

// Which use of its id the writer is: it may be deleted, and another task have its id.
std::atomic<UInt32> gWriterUse{0};

pthread_mutex_t gTurnMutex = PTHREAD_MUTEX_INITIALIZER;  // guards gDraining alone
pthread_cond_t gTurnOver = PTHREAD_COND_INITIALIZER;
bool gDraining;

thread_local bool tInOwnCalls;

// What the controls keep; see "Names that nothing here reads" in docs/log.md.
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

// The right to drain. A wait for it, which may last as long as another's output hangs, ends when
// the waiting task is deleted.
class DrainTurnT {
  public:
    DrainTurnT() {
        CancellableMutexGuardT guard(&gTurnMutex);
        while (gDraining) {
            pthread_cond_wait(&gTurnOver, &gTurnMutex);
        }
        gDraining = true;
    }
    ~DrainTurnT() {
        MutexGuardT guard(&gTurnMutex);
        gDraining = false;
        pthread_cond_signal(&gTurnOver);
    }
    DrainTurnT(const DrainTurnT&) = delete;
    DrainTurnT& operator=(const DrainTurnT&) = delete;
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

// ---- producers; the semaphore and logqueuemutex are held ----

// Writes a line of `size` bytes, NUL included, at `at`, and ends the queue behind it.
void Store(int at, const char* line, int size) {
    memcpy(buf + at, line, static_cast<size_t>(size) - 1);
    buf[at + size - 1] = '\0';
    log_buffer_tail = at + size;
}

LogPutT Lose(int head, int tail) {
    if (tail + kOverflowSize < head) {
        Store(tail, OVERFLOW_MSG, kOverflowSize);
    }
    return {.queued = false, .lost = true};
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

// Puts a line at the start of the queue, at the cost of unread lines where it must.
LogPutT PutAtStart(int head, int tail, const char* line, int size) {
    const bool lost = head != tail && (head <= size || head > tail);
    if (lost && gPrintingInPlace) {
        return Lose(head, tail);
    }
    if (lost) {
        log_buffer_head = FirstUnreadBehind(size, tail);
    } else if (head == tail) {
        log_buffer_head = 0;
    }
    memset(buf + tail, 0, static_cast<size_t>(kUsedSize - tail));
    Store(0, line, size);
    return {.queued = true, .lost = lost};
}

LogPutT Put(const char* line, int size) {
    const int head = log_buffer_head;
    const int tail = log_buffer_tail;
    if (size > kWrapLimit || (size <= kWrapLimit - tail && head > tail && head <= tail + size)) {
        return Lose(head, tail);
    }
    if (size > kWrapLimit - tail) {
        return PutAtStart(head, tail, line, size);
    }
    Store(tail, line, size);
    return {.queued = true, .lost = false};
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

// A line on its way out.
struct OldestT {
    char copy[2 * kLogLineSize];
    const char* text;  // the copy, or the line in the queue where it is too long for that
    int length;
    int next;            // where the following line starts
    bool empty_follows;  // which is none
};

// Takes the oldest line out, so that slow output keeps no room from producers. Only a line that did
// not come through the assembly can be too long for that. False when there is none.
bool TakeOldest(OldestT* oldest) {
    MutexGuardT guard(&logqueuemutex);
    const int head = log_buffer_head;
    const int tail = log_buffer_tail;
    if (head == tail) {
        return false;
    }
    oldest->text = buf + head;
    oldest->length = static_cast<int>(strlen(oldest->text));
    oldest->next = head + oldest->length + 1;
    oldest->empty_follows = oldest->next < tail && buf[oldest->next] == '\0';
    if (oldest->next > tail && buf[oldest->next] == '\0') {
        oldest->next = 0;  // the rest of the storage is padding
    }
    gPrintingInPlace = oldest->length >= static_cast<int>(sizeof(oldest->copy));
    if (!gPrintingInPlace) {
        oldest->text = strcpy(oldest->copy, oldest->text);
        log_buffer_head = oldest->next;
    }
    return true;
}

// Moves on from a line that is printed where it stands, when that is done or given up.
class MoveOnT {
  public:
    explicit MoveOnT(const OldestT& oldest) : oldest_(oldest) {}
    ~MoveOnT() {
        if (oldest_.text != oldest_.copy) {
            MutexGuardT guard(&logqueuemutex);
            gPrintingInPlace = false;
            log_buffer_head = oldest_.next;
        }
    }
    MoveOnT(const MoveOnT&) = delete;
    MoveOnT& operator=(const MoveOnT&) = delete;

  private:
    const OldestT& oldest_;
};

// Prints one line; the caller has the drain's turn. False when there is none.
bool PrintOldest() {
    OldestT oldest;
    if (!TakeOldest(&oldest)) {
        return false;
    }
    const MoveOnT move_on(oldest);
    if (oldest.empty_follows) {
        printf("syslog: empty string @ 0x%x\n", id_of(buf + oldest.next));
    }
    if (oldest.length > 0) {  // an empty one has been told of
        WriteLine(oldest.text, oldest.length);
    }
    return true;
}

bool WriterLives() {
    const UInt32 task = logTaskID;
    return task != 0 && t_incarnation(task) == gWriterUse;
}

void LogWriter(UInt32, UInt32, UInt32, UInt32) {
    for (;;) {
        syslogDrainQueue();
        OwnCallsT own;
        UInt32 captured = 0;
        ev_receive(kWriterEvents, kEvAny, 0, &captured);
    }
}

// Stores a mask unless it is 0; returns the one before.
int ExchangeMask(std::atomic<int>* mask, int pmask) {
    return pmask != 0 ? mask->exchange(pmask) : mask->load();
}

}  // namespace

int InitSyslogInterface() {
    if (log_Semaphore == 0) {
        buf[0] = '\0';
        log_buffer_head = 0;
        log_buffer_tail = 0;
        UInt32 semaphore = 0;
        if (sm_create("logw", 1, 0, &semaphore) != kSmOk) {
            return -1;
        }
        log_Semaphore = semaphore;
    }
    if (WriterLives()) {
        return 0;
    }
    UInt32 task = 0;
    if (t_create("logw", 0, kWriterStack, 0, 0, &task) != kTaskOk) {
        logerr("log", "can't create log writer task\n");
        return -1;
    }
    gWriterUse = t_incarnation(task);
    logTaskID = task;
    if (t_start(task, 0, LogWriter, nullptr) != kTaskOk) {
        logTaskID = 0;
        t_delete(task);
        logerr("log", "can't start log writer task\n");
        return -1;
    }
    return 0;
}

bool syslogInOwnCalls() {
    return tInOwnCalls;
}

LogPutT syslogPut(const char* msg, int msglen) {
    const size_t length =
        msg != nullptr && msglen > 0 ? strnlen(msg, static_cast<size_t>(msglen)) : 0;
    if (length == 0 || LevelOf(msg[0]) > syslogLevel) {
        return {};
    }
    OwnCallsT own;
    const QueueHoldT hold(log_Semaphore);
    if (!hold.held()) {
        return {};
    }
    CancellableMutexGuardT guard(&logqueuemutex);  // nothing inside is a place to be deleted at
    LogPutT put = Put(msg, length < INT_MAX ? static_cast<int>(length) + 1 : INT_MAX);
    put.call_writer = !std::exchange(gWriterCalled, true);
    return put;
}

int syslogFinish(const LogPutT& put) {
    if (put.call_writer && WriterLives()) {
        OwnCallsT own;
        ev_send(logTaskID, kWriterEvent);
    }
    if (put.lost) {
        const ssize_t written = write(STDERR_FILENO, OVERFLOW_MSG, kOverflowSize - 1);
        (void)written;  // there is nobody left to tell
    }
    return put.queued ? 0 : -1;
}

int syslogAdd(const char* msg, int msglen) {
    return syslogFinish(syslogPut(msg, msglen));
}

int syslogDrainQueue() {
    const DrainTurnT turn;
    {
        // What is queued from here on calls the writer again: it does not go to sleep in between
        // while lines keep coming, and it comes if this task is deleted half-way.
        MutexGuardT guard(&logqueuemutex);
        gWriterCalled = false;
    }
    while (PrintOldest()) {
    }
    fflush(stdout);
    return 0;
}

int syslogSetLogLevel(int level) {
    syslogLevel = level;
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
        LogTag = ident;
    }
    LogStat = logstat;
    if (logfac != 0 && (logfac & ~LOG_FACMASK) == 0) {
        LogFacility = logfac;
    }
}

void closelog() {
    if (connected.exchange(0) != 0) {
        LogFile = -1;
    }
}

int setlogmask(int pmask) noexcept {
    return ExchangeMask(&LogMask, pmask);
}

int setloglocalmask(int pmask) {
    return ExchangeMask(&LogLocalMask, pmask);
}

int getlogmask() {
    return LogMask;
}

int getloglocalmask() {
    return LogLocalMask;
}

int setlogfacility(int facility) {
    LogFacility = facility;
    return 0;
}

int getlogfacility() {
    return LogFacility;
}

int setlogaddr(const char*) {
    return -1;
}

char* getlogaddr() {
    return syslogHostname;
}
