// The log under load: many tasks behind a slow writer, tasks deleted inside log calls.
#include <fcntl.h>

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/os_init.h"
#include "tests/Common_OS_log/logfixture.h"

namespace {

using namespace logqueue;

constexpr int kTasks = 8;
constexpr int kLines = 3000;

std::atomic<int> gFinished{0};

// Logs `count` lines whose numbers tell of the task, each of them `times` times.
void LogLines(UInt32 task, UInt32 count, UInt32 times) {
    for (UInt32 i = 0; i < count * times; i++, pthread_testcancel()) {
        const UInt32 number = task * kLines + i / times;
        logmsg(kLogInfo, nullptr, "%s",
               Numbered(static_cast<int>(number), 30 + number * 7 % 300).c_str() + 7);
    }
    gFinished++;
}

bool QueueEmpty() {
    return log_buffer_head == log_buffer_tail;
}

TEST(LogLoad, LinesAreTornOrLostInSilenceBehindASlowWriter) {
    os_init();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    testing::internal::CaptureStderr();
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    InitSyslogInterface();
    for (UInt32 i = 0; i < kTasks; i++) {
        Spawn("load", [i] { LogLines(i, kLines, 1); });
    }
    // Not a byte is taken until the queue must have overflowed: one task alone fills it.
    EXPECT_TRUE(Eventually([] { return gFinished > 0; }));
    std::string text;
    bool told = false;
    const bool ended = Eventually([&] {
        char block[4096];
        const ssize_t got = read(ends[0], block, sizeof(block));
        text.append(block, got > 0 ? static_cast<size_t>(got) : 0);
        told = told || (gFinished == kTasks && QueueEmpty() && logmsg(5, nullptr, "end\n") > 0);
        return told && text.rfind("pc[0]: end\n") != std::string::npos;
    });
    dup2(saved, STDOUT_FILENO);
    ASSERT_TRUE(ended);

    const std::vector<int> numbers = NumbersIn(text.substr(0, text.find("pc[0]: end\n")));
    std::vector<int> last_of(kTasks, -1);
    for (const int number : numbers) {
        ASSERT_GE(number, 0) << "torn";
        ASSERT_LT(std::exchange(last_of[static_cast<size_t>(number / kLines)], number), number);
    }
    // Every loss has its report, a whole one. A report may stand for several lines that a wrap
    // dropped, or for a line that the operating-system layer logged.
    const std::string errors = testing::internal::GetCapturedStderr();
    const size_t reports = errors.size() / (kOverflowSize - 1);
    for (size_t i = 0; i < reports; i++) {
        ASSERT_EQ(errors.substr(i * (kOverflowSize - 1), kOverflowSize - 1), OVERFLOW_MSG);
    }
    EXPECT_GT(reports, 0U);
    EXPECT_LE(reports, kTasks * (kLines + 4) - numbers.size());
}

TEST(LogLoad, DeletedTasksOrNewSettingsTearLinesOrKeepALock) {
    StdoutFile out;
    testing::internal::CaptureStderr();
    loginfo("a", "too early\n");
    EXPECT_EQ(InitSyslogInterface() + InitSyslogInterface(), 0);  // the second changes nothing
    for (UInt32 round = 0; round < 50; round++) {
        // With repeats, a task waits for the queue with the line lock held too.
        logmsg_set_spewfilter(round % 2 != 0);
        UInt32 tasks[4];
        for (UInt32 i = 0; i < 4; i++) {
            tasks[i] = Spawn("load", [=] { LogLines(i, 100000, 1 + round % 2); });
        }
        logmsg_cullfilter_add(round % 3 == 0 ? "0: 3" : " 31");
        logmsg_showfilter_add("pc");
        usleep(round * 17 % 1000);
        logmsg_showfilter_delete("*");
        logmsg_cullfilter_delete("*");
        for (const UInt32 task : tasks) {
            t_delete(task);
        }
    }
    EXPECT_TRUE(Eventually(QueueEmpty));
    logmsg(kLogInfo, nullptr, "end\n");
    EXPECT_TRUE(out.WaitFor("pc[0]: end\n"));
    const std::string text = out.Text();
    EXPECT_THAT(NumbersIn(text.substr(0, text.find("pc[0]: end\n"))),
                testing::Each(testing::Ge(0)));
}

TEST(LogStart, AStartThatFailedIsTakenForOneOrATaskThatIsGone) {
    StdoutFile out;
    pthread_attr_t attr;
    pthread_getattr_default_np(&attr);
    const auto start_with_stack = [&](size_t size) {
        pthread_attr_setstacksize(&attr, size);
        pthread_setattr_default_np(&attr);
        return InitSyslogInterface();
    };
    EXPECT_EQ(start_with_stack(SIZE_MAX / 4 * 3), -1);  // more than there is
    EXPECT_EQ(start_with_stack(size_t{1} << 20), 0);
    loginfo("a", "up\n");
    EXPECT_TRUE(out.WaitFor("up\n"));
    EXPECT_TRUE(out.Has("pc[0]: log: can't start log writer task\n"));
    t_delete(logTaskID);
    syslogDrainQueue();  // what it left
    UInt32 next = 0;
    t_create("next", 1, 0, 0, 0, &next);
    EXPECT_EQ(next, logTaskID);
    loginfo("a", "again\n");
    EXPECT_EQ(from_id<TCB>(next)->events_captured, 0U);
    EXPECT_EQ(InitSyslogInterface(), 0);
    EXPECT_TRUE(out.WaitFor("again\n"));
}

TEST(LogCancel, ATaskDeletedInsideALogCallKeepsALock) {
    StdoutFile out;
    InitSyslogInterface();
    logmsg_set_spewfilter(1);
    // The second one waits for the queue with the line lock held, to tell of the repeats.
    for (const int lines : {1, 2}) {
        for (int i = 0; i < lines; i++) {
            loginfo("a", "again\n");
        }
        ASSERT_EQ(sm_p(log_Semaphore, 0, 0), kSmOk);
        std::thread doomed([] { loginfo("doomed", "never seen\n"); });
        pthread_cancel(doomed.native_handle());
        doomed.join();
        sm_v(log_Semaphore);
        loginfo("b", "still works %d\n", lines);
        EXPECT_TRUE(out.WaitFor("b: still works " + std::to_string(lines)));
    }
    EXPECT_FALSE(out.Has("doomed"));
}

}  // namespace
