// The log with its writer task: many tasks at once, a slow writer, tasks deleted inside log calls,
// and trouble inside the queue's own calls.
#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslogq.h"
#include "tests/support/alloccount.h"
#include "tests/support/stdout_file.h"

namespace {

using namespace logqueue;

constexpr int kTasks = 8;
constexpr int kLines = 3000;

UInt32 Start(fnptr* entry, UInt32 arg = 0) {
    UInt32 task = 0;
    UInt32 args[4] = {arg, 0, 0, 0};
    EXPECT_EQ(t_create("test", 0, 0, 0, 0, &task), kTaskOk);
    EXPECT_EQ(t_start(task, 0, entry, args), kTaskOk);
    return task;
}

// The line that task `task` logs as its `number`th: dots between the numbers, as many as follow
// from them.
std::string Line(int task, int number) {
    const std::string dots(static_cast<size_t>(20 + (task * 31 + number * 7) % 300), '.');
    return "load: " + std::to_string(task) + " " + std::to_string(number) + dots + "end\n";
}

std::atomic<int> gFinished{0};

void LogManyLines(UInt32 task, UInt32, UInt32, UInt32) {
    for (int i = 0; i < kLines; i++) {
        loginfo("load", "%s", Line(static_cast<int>(task), i).c_str() + 6);
    }
    gFinished++;
}

struct TallyT {
    int whole = 0;
    int torn = 0;
    int unordered = 0;
    std::array<int, kTasks> last{};
};

TallyT Count(const std::string& text) {
    TallyT tally;
    tally.last.fill(-1);
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end == std::string::npos ? end : end + 1 - at);
        at += line.size();
        int task = -1;
        int number = -1;
        if (line == OVERFLOW_MSG + 6 || line.find(": os: ") != std::string::npos) {
            continue;
        }
        if (sscanf(line.c_str(), "pc[0]: load: %d %d.", &task, &number) != 2 || task < 0 ||
            task >= kTasks || line != "pc[0]: " + Line(task, number)) {
            ADD_FAILURE() << "torn: " << line;
            tally.torn++;
            continue;
        }
        tally.unordered += number > tally.last[static_cast<size_t>(task)] ? 0 : 1;
        tally.last[static_cast<size_t>(task)] = number;
        tally.whole++;
    }
    return tally;
}

// Standard output turned into a narrow pipe, and standard error kept, for the life of the object.
class NarrowOutputT {
  public:
    NarrowOutputT() {
        testing::internal::CaptureStderr();
        fflush(stdout);
        setvbuf(stdout, nullptr, _IOLBF, 4096);
        EXPECT_EQ(pipe(ends_), 0);
        fcntl(ends_[1], F_SETPIPE_SZ, 4096);
        saved_ = dup(STDOUT_FILENO);
        dup2(ends_[1], STDOUT_FILENO);
    }
    // Takes what is in the pipe, at most `size` bytes; waits for something to be there.
    std::string Take(size_t size) {
        std::string block(size, '\0');
        const ssize_t got = read(ends_[0], block.data(), size);
        return block.substr(0, got > 0 ? static_cast<size_t>(got) : 0);
    }
    // Ends the redirection. Returns what was written to standard error.
    std::string End() {
        dup2(saved_, STDOUT_FILENO);
        return testing::internal::GetCapturedStderr();
    }

  private:
    int ends_[2];
    int saved_;
};

TEST(LogLoad, LinesAreTornOrLostInSilenceBehindASlowWriter) {
    os_init();
    NarrowOutputT output;
    InitSyslogInterface();
    for (int i = 0; i < kTasks; i++) {
        Start(LogManyLines, static_cast<UInt32>(i));
    }
    // Not a byte is taken until the queue must have overflowed: one task alone fills it.
    bool finished = Eventually([] { return gFinished > 0; });
    bool in_queue = true;
    std::string text;
    std::thread last([&] {
        finished = Eventually([] { return gFinished == kTasks; }) && finished &&
                   Eventually([] { return log_buffer_head == log_buffer_tail; });
        loginfo("load", "the end\n");
    });
    while (text.find("load: the end\n", text.size() < 9000 ? 0 : text.size() - 9000) ==
           std::string::npos) {
        text += output.Take(4096);
        for (const int index : {log_buffer_head.load(), log_buffer_tail.load()}) {
            in_queue = in_queue && index >= 0 && index <= kWrapLimit;
        }
        if (gFinished < kTasks) {
            usleep(1000);
        }
    }
    last.join();
    const std::string errors = output.End();

    ASSERT_TRUE(finished);
    EXPECT_TRUE(in_queue);
    const TallyT tally = Count(text.substr(0, text.find("pc[0]: load: the end\n")));
    EXPECT_EQ(tally.torn, 0);
    EXPECT_EQ(tally.unordered, 0);
    // Every loss has its report, a whole one. A report may stand for several lines that a wrap
    // dropped, or for a line that the operating-system layer logged.
    const std::string report = OVERFLOW_MSG;
    size_t reports = 0;
    for (size_t at = 0; errors.compare(at, report.size(), report) == 0; at += report.size()) {
        reports++;
    }
    EXPECT_EQ(errors.size(), reports * report.size());
    const int lost = kTasks * kLines - tally.whole;
    EXPECT_GT(lost, 0);
    EXPECT_GT(reports, 0U);
    EXPECT_LE(reports, static_cast<size_t>(lost) + 4 * kTasks);
}

TEST(LogLoad, SettingsThatChangeUnderwayTearLines) {
    StdoutFile out;
    testing::internal::CaptureStderr();
    InitSyslogInterface();
    for (int i = 0; i < kTasks; i++) {
        Start(LogManyLines, static_cast<UInt32>(i));
    }
    for (int i = 0; gFinished < kTasks; i++) {
        logmsg_cullfilter_add(i % 2 == 0 ? "load: 3" : "load: 5 11");
        logmsg_showfilter_add("load");
        logmsg_set_spewfilter(i % 2);
        logmsg_set_format(i % 3 == 0 ? kLogFormatProc : 0);
        syslogSetLogLevel(7 - i % 2);
        usleep(100);
        logmsg_showfilter_delete("*");
        logmsg_cullfilter_delete("*");
    }
    loginfo("load", "the end\n");
    ASSERT_TRUE(out.WaitFor("the end\n"));
    const std::string text = out.Text();
    const TallyT tally = Count(text.substr(0, text.find("pc[0]: load: the end\n")));
    EXPECT_EQ(tally.torn + tally.unordered, 0);
    EXPECT_GT(tally.whole, kLines);
}

void LogOneLine(UInt32, UInt32, UInt32, UInt32) {
    loginfo("doomed", "never seen\n");
}

TEST(LogCancel, ATaskDeletedInsideALogCallKeepsALock) {
    os_init();
    StdoutFile out;
    InitSyslogInterface();
    logmsg_set_spewfilter(1);
    // The second round waits for the queue with the line lock held, to tell of the repeats.
    for (const bool repeats : {false, true}) {
        loginfo("a", "again\n");
        if (repeats) {
            loginfo("a", "again\n");
        }
        ASSERT_EQ(sm_p(log_Semaphore, 0, 0), kSmOk);
        const UInt32 task = Start(LogOneLine);
        if (repeats) {
            ASSERT_TRUE(Eventually([] {
                const int err = pthread_mutex_trylock(&logmsgmutex);
                if (err == 0) {
                    pthread_mutex_unlock(&logmsgmutex);
                }
                return err == EBUSY;
            }));
        } else {
            tm_wkafter(3);
        }
        std::thread deleter([task] { t_delete(task); });
        // The deleter's own lines wait for the queue too.
        ASSERT_TRUE(Eventually([task] {
            if (!t_exists(task)) {
                return true;
            }
            sm_v(log_Semaphore);
            tm_wkafter(1);
            return sm_p(log_Semaphore, 0, 0) != kSmOk;
        }));
        sm_v(log_Semaphore);
        deleter.join();
        std::thread other([repeats] { loginfo("b", "still works %d\n", repeats ? 2 : 1); });
        other.join();
        EXPECT_TRUE(out.WaitFor(repeats ? "b: still works 2\n" : "b: still works 1\n"));
    }
}

void LogForEver(UInt32 task, UInt32, UInt32, UInt32) {
    for (int i = 0;; i++) {
        loginfo("load", "%s", Line(static_cast<int>(task), i).c_str() + 6);
        pthread_testcancel();
    }
}

TEST(LogCancel, RandomDeletionsTearLinesOrStopTheLog) {
    StdoutFile out;
    testing::internal::CaptureStderr();
    InitSyslogInterface();
    for (int round = 0; round < 25; round++) {
        UInt32 tasks[4];
        for (UInt32 i = 0; i < 4; i++) {
            tasks[i] = Start(LogForEver, i);
        }
        usleep(static_cast<useconds_t>(round * 17 % 1000));
        for (const UInt32 task : tasks) {
            t_delete(task);
        }
    }
    EXPECT_TRUE(Eventually([] { return log_buffer_head == log_buffer_tail; }));
    loginfo("load", "the end\n");
    EXPECT_TRUE(out.WaitFor("the end\n"));
    // A task starts its numbers anew each round, so only wholeness is judged.
    std::string text = out.Text();
    EXPECT_EQ(Count(text.substr(0, text.find("pc[0]: load: the end\n"))).torn, 0);
}

// Without the writer task, so that what goes where does not depend on its pace.
void MakeQueue() {
    UInt32 semaphore = 0;
    ASSERT_EQ(sm_create("logw", 1, 0, &semaphore), kSmOk);
    log_Semaphore = semaphore;
    gConfigLoaded = 1;
}

TEST(LogQueueTrouble, ALineFromInsideTheQueuesOwnCallsRecurses) {
    StdoutFile out;
    MakeQueue();
    // A mutex that is none makes the semaphore calls complain, through the log.
    memset(&from_id<SMCB>(log_Semaphore)->mutex, 0xFF, sizeof(pthread_mutex_t));
    testing::internal::CaptureStderr();
    loginfo("a", "queued all the same\n");
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors.rfind("CRIT  pc[0]: os: sm_p pthread_mutex_lock error ", 0), 0U) << errors;
    syslogDrainQueue();
    EXPECT_TRUE(out.Has("pc[0]: a: queued all the same\n"));
    EXPECT_FALSE(out.Has("pc[0]: os: "));
}

TEST(LogQueueTrouble, ALogCallAllocates) {
    MakeQueue();
    logmsg_showfilter_add("a: ");
    logmsg_set_spewfilter(1);
    loginfo("a", "first\n");
    const long before = AllocationsSoFar();
    for (int i = 0; i < 1000; i++) {
        logwarn("a", "line %d of %s with %08x and %5.2f\n", i / 2, "some text", 0xABCDU, i * 0.5);
    }
    const long after = AllocationsSoFar();
    EXPECT_EQ(after - before, 0);
    std::vector<int> counted(100);  // the counter counts
    EXPECT_EQ(AllocationsSoFar() - after, 1);
}

TEST(LogStart, LinesFromBeforeTheStartAppearOrAreMissedAfter) {
    StdoutFile out;
    loginfo("a", "too early\n");
    EXPECT_EQ(InitSyslogInterface(), 0);
    EXPECT_EQ(InitSyslogInterface(), 0);  // changes nothing
    UInt32 writer = 0;
    ASSERT_EQ(t_ident("logw", 0, &writer), kTaskOk);
    EXPECT_EQ(writer, logTaskID);
    loginfo("a", "in time\n");
    EXPECT_TRUE(out.WaitFor("pc[0]: a: in time\n"));
    EXPECT_FALSE(out.Has("too early"));
}

}  // namespace
