// The queue's rules: levels, wrap, overflow, what the writer prints, and the syslog-like controls.
#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <functional>

#include "tests/Common_OS_log/logfixture.h"

static char gEcho[512];
static std::function<void()> gOnEcho = [] {};

// In place of the platform's, so that the echo can be seen.
extern "C" void syslog(int priority, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    vsnprintf(gEcho, sizeof(gEcho), (std::to_string(priority) + " " + format).c_str(), ap);
    va_end(ap);
    gOnEcho();
}

namespace {

using namespace logqueue;
using testing::ElementsAre;

// Queues a line that takes `size` bytes.
int Add(int number, int size) {
    const std::string line = "INFO  " + Numbered(number, static_cast<size_t>(size) - 7);
    return syslogAdd(line.c_str(), size - 1);
}

void SetIndexes(int head, int tail) {
    log_buffer_head = head;
    log_buffer_tail = tail;
}

// What `action` writes to standard error.
template <typename ActionT>
std::string Errors(ActionT action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

class LogQueue : public LogFixtureT {};

TEST_F(LogQueue, LevelsAreReadWrongFromTheFirstLetter) {
    const std::pair<const char*, int> cases[] = {{"CRIT  ", 2}, {"ERROR ", 3}, {"WARN  ", 4},
                                                 {"INFO  ", 6}, {"DEBUG ", 7}, {"xyz", 7}};
    for (const auto& [line, level] : cases) {
        syslogSetLogLevel(level);
        EXPECT_EQ(syslogAdd(line, 3), 0) << line;
        syslogSetLogLevel(level - 1);
        EXPECT_EQ(syslogAdd(line, 3), -1) << line;
    }
    syslogSetLogLevel(7);
    log_Semaphore = 0x1234;  // no semaphore
    EXPECT_EQ(syslogAdd("x", 1), -1);
}

TEST_F(LogQueue, AWrapNearTheEndTearsOrReordersLines) {
    for (int tail = kWrapLimit - 140; tail <= kWrapLimit; tail++) {
        for (const int size : {30, 62, 131}) {
            memset(buf, 'Z', sizeof(buf));
            SetIndexes(tail, tail);
            ASSERT_EQ(Add(0, size), 0);
            const bool wraps = tail + size > kWrapLimit;
            ASSERT_EQ(log_buffer_tail, wraps ? size : tail + size);
            ASSERT_EQ(std::count(buf + tail, buf + kUsedSize, '\0'), wraps ? kUsedSize - tail : 1);
            ASSERT_EQ(Add(1, size) + Add(2, size), 0);
            ASSERT_EQ(std::count(buf + kUsedSize, std::end(buf), 'Z'), kStorageSize - kUsedSize);
            ASSERT_THAT(NumbersIn(Printed()), ElementsAre(0, 1, 2)) << tail << " " << size;
        }
    }
}

TEST_F(LogQueue, AWrapOverUnreadLinesLeavesTornOnesOrHidesTheRest) {
    std::vector<int> starts = {0};
    for (int i = 0; log_buffer_tail + 40 + i * 7 % 60 <= kWrapLimit; i++) {
        ASSERT_EQ(Add(i, 40 + i * 7 % 60), 0);
        starts.push_back(log_buffer_tail);
    }
    const std::vector<char> filled(buf, std::end(buf));
    const int tail = log_buffer_tail;
    // The first unread line is one of the first, or in the padding with all before the tail unread.
    for (const int head : {0, starts[1], starts[3], starts[7], tail + 1}) {
        for (int size = kWrapLimit - tail + 1; size < 500; size += 3) {
            std::copy(filled.begin(), filled.end(), buf);
            SetIndexes(head, tail);
            const std::string errors = Errors([&] { EXPECT_EQ(Add(999999, size), 0); });
            const bool keeps = head > size && head <= tail;
            // The first line that starts behind the new one, never where the indexes meet.
            ASSERT_EQ(log_buffer_head,
                      keeps ? head : *std::upper_bound(starts.begin(), starts.end(), size));
            ASSERT_EQ(log_buffer_tail, size);
            ASSERT_EQ(errors, keeps ? "" : OVERFLOW_MSG);
        }
    }
    const std::vector<int> numbers = NumbersIn(Printed());
    EXPECT_EQ(numbers.size() + static_cast<size_t>(numbers[0]), starts.size());
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));  // the new one is the last
    // A line so long that it leaves none, and one that has no room at all.
    SetIndexes(300, 200);
    EXPECT_EQ(Errors([] { EXPECT_EQ(Add(5, kWrapLimit - 10), 0); }), OVERFLOW_MSG);
    EXPECT_THAT(NumbersIn(Printed()), ElementsAre(5));
    EXPECT_EQ(Errors([] { EXPECT_EQ(Add(6, kWrapLimit + 1), -1); }), OVERFLOW_MSG);
}

TEST_F(LogQueue, AFullQueueOverrunsUnreadLinesOrHidesTheLoss) {
    for (int room = 1; room <= 160; room++) {  // from the write index to the read index
        memset(buf, 'Z', sizeof(buf));
        SetIndexes(1000, 1000 - room);
        const bool fits = room > 100;
        const bool reports = !fits && room > kOverflowSize;
        EXPECT_EQ(Errors([&] { EXPECT_EQ(Add(1, 100), fits ? 0 : -1) << room; }),
                  fits ? "" : OVERFLOW_MSG);
        EXPECT_EQ(log_buffer_tail, 1000 - room + (fits ? 100 : reports ? kOverflowSize : 0));
        EXPECT_EQ(std::count(buf + log_buffer_tail, std::end(buf), 'Z'),
                  kStorageSize - log_buffer_tail);
        EXPECT_TRUE(!reports || strcmp(buf + 1000 - room, OVERFLOW_MSG) == 0);
    }
}

TEST_F(LogQueue, AWrapTearsTheLineThatTheWriterIsAt) {
    ASSERT_EQ(Add(0, 200000) + Add(1, 300000), 0);
    std::vector<int> added;
    gOnEcho = [&] {  // the writer is at line 0, which must stay, then at line 1
        if (added.size() < 2) {
            added.push_back(Add(2, 100000));
        }
    };
    logmsg_set_syslog_echo(1);
    EXPECT_EQ(Errors(syslogDrainQueue), OVERFLOW_MSG);
    EXPECT_THAT(added, ElementsAre(-1, 0));
    EXPECT_THAT(NumbersIn(Printed()), ElementsAre(0, 1, 2));
}

TEST_F(LogQueue, TwoThreadsThatDrainMixLinesOrReturnBeforeTheyAreOut) {
    logmsg_set_syslog_echo(1);
    std::atomic<bool> printing{false};
    std::string seen;
    gOnEcho = [&] {
        seen += std::string("(") + gEcho[strlen(gEcho) - 2];
        if (!printing.exchange(true)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        seen += ")";
    };
    loginfo("a", "1\n");
    std::jthread other(syslogDrainQueue);
    EXPECT_TRUE(Eventually([&] { return printing.load(); }));
    loginfo("a", "2\n");
    syslogDrainQueue();
    EXPECT_EQ(seen, "(1)(2)");
    other.join();
    EXPECT_EQ(Printed(), "pc[0]: a: 1\npc[0]: a: 2\n");
}

TEST_F(LogQueue, ACallerWithoutALossWaitsForStandardError) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    while (write(ends[1], OVERFLOW_MSG, 1) == 1) {
    }
    fcntl(ends[1], F_SETFL, 0);
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    logmsg_set_spewfilter(1);
    loginfo("a", "again\n");
    loginfo("a", "again\n");
    SetIndexes(1000, 999);
    std::atomic<int> step{0};
    std::jthread loser([&] {
        step = 1;
        loginfo("a", "another\n");  // tells of the repeat, which is lost
        step = 2;
    });
    std::jthread caller([&] {
        EXPECT_TRUE(Eventually([&] { return step.load() == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        loginfo("b", "no end");
        step = 3;
    });
    EXPECT_TRUE(Eventually([&] { return step.load() == 3; }));
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    char block[4096];
    std::string errors;
    EXPECT_TRUE(Eventually([&] {
        const ssize_t got = read(ends[0], block, sizeof(block));
        errors.append(block, got > 0 ? static_cast<size_t>(got) : 0);
        return step.load() == 2 && got < 0;
    }));
    dup2(saved, STDERR_FILENO);
    const size_t text = errors.find_first_not_of(OVERFLOW_MSG[0]) - 1;
    EXPECT_EQ(errors.substr(text), std::string(OVERFLOW_MSG) + OVERFLOW_MSG);
}

TEST_F(LogQueue, TimestampsAreMalformedOrTheEchoGetsThem) {
    const std::string date = "[0-9]{4}-[0-9]{2}-[0-9]{2} ";
    const std::string time_of_day = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    const std::pair<int, std::string> cases[] = {
        {0, ""}, {8, ""}, {1, date}, {2, " " + time_of_day}, {15, date + time_of_day + "WARN  "}};
    for (const auto& [format, pattern] : cases) {
        logmsg_set_format(format);
        logwarn("a", "x\n");
        EXPECT_THAT(Printed(), testing::MatchesRegex(pattern + "pc.0.: a: x\n"));
    }
    EXPECT_STREQ(gEcho, "");
    gOnEcho = [] { EXPECT_EQ(log_buffer_head, log_buffer_tail); };  // taken out before printed
    logmsg_set_syslog_echo(5);
    logwarn("a", "100%% %s\n", "%s");
    Printed();
    EXPECT_EQ(gEcho, std::to_string(LOG_WARNING | LOG_UUCP) + " pc[0]: a: 100% %s\n");
}

TEST(LogControls, AControlForgetsOrInventsAValue) {
    EXPECT_THAT((std::vector{setlogmask(3), setlogmask(0), setloglocalmask(4), setloglocalmask(0)}),
                ElementsAre(0x1f, 3, 0xff, 4));
    EXPECT_EQ(getlogmask() * 16 + getloglocalmask(), 0x34);
    for (const int given : {LOG_MAIL, 0, LOG_CRON | 1}) {
        openlog(nullptr, LOG_PID, given);
        EXPECT_EQ(getlogfacility(), LOG_MAIL);
    }
}

}  // namespace
