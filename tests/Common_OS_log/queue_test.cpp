// The queue's rules: levels, wrap, overflow, what the writer prints, and the syslog-like controls.
#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <random>

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

class LogQueue : public LogFixtureT {};

// What the queue holds and loses, told line by line.
struct ModelT {
    struct LineT {
        int start;
        int size;
        std::string text;
    };
    std::deque<LineT> unread;
    int tail = 0;
    bool in_place = false;  // the oldest is being printed and still keeps its room
    std::string errors;

    int head() const { return unread.empty() ? tail : unread.front().start; }

    void Store(int start, int size, const std::string& text) {
        unread.push_back({start, size, text});
        tail = start + size;
    }

    int Add(int size, const std::string& text) {
        const bool wraps = tail + size > kWrapLimit;
        const bool beyond = head() > tail;
        const bool covers = wraps && !unread.empty() && (beyond || head() <= size);
        if (size > kWrapLimit || (!wraps && beyond && head() <= tail + size) ||
            (covers && in_place)) {
            if (tail + kOverflowSize < head()) {
                Store(tail, kOverflowSize, OVERFLOW_MSG);
            }
            errors += OVERFLOW_MSG;
            return -1;
        }
        for (const int end = tail; covers && !unread.empty() &&
                                   (unread.front().start > end || unread.front().start <= size);) {
            unread.pop_front();
        }
        errors += covers ? OVERFLOW_MSG : "";
        Store(wraps ? 0 : tail, size, text);
        return 0;
    }
};

TEST_F(LogQueue, AnySequenceOfAddsAndDrainsDiffersFromTheModel) {
    std::mt19937 random(11);
    const auto below = [&](int limit) {
        return static_cast<int>(random() % static_cast<unsigned>(limit));
    };
    ModelT model;
    std::string expected;
    int number = 0;
    const auto add = [&] {
        const int room = model.head() - model.tail;
        const int left = kWrapLimit - model.tail;
        const int sizes[] = {40 + below(100),
                             1020 + below(20),
                             below(60000),
                             room - 1 + below(3),
                             room - kOverflowSize - 1 + below(3),
                             left < 99999 ? left - 1 + below(3) : 0,
                             below(20) == 0 ? kWrapLimit - below(3) + 1 : 0};
        const int size = std::max(sizes[below(7)], 40);
        const std::string line = "INFO  " + Numbered(number++, static_cast<size_t>(size) - 7);
        const int end = model.tail;
        ASSERT_EQ(model.Add(size, line), syslogAdd(line.c_str(), size - 1));
        if (model.tail < end) {
            ASSERT_EQ(std::count(buf + end, buf + kUsedSize, '\0'), kUsedSize - end);
        }
        ASSERT_EQ(model.head(), log_buffer_head);
        ASSERT_EQ(model.tail, log_buffer_tail);
    };
    int budget = 0;
    gOnEcho = [&] {  // more lines come while one is printed
        const ModelT::LineT line = model.unread.front();
        expected += line.text.substr(6);
        model.in_place = line.size > 2 * kLogLineSize;
        if (!model.in_place) {
            model.unread.pop_front();
        }
        for (int i = below(3); i > 0 && budget > 0; i--, budget--) {
            add();
        }
        if (std::exchange(model.in_place, false)) {
            model.unread.pop_front();
        }
    };
    logmsg_set_syslog_echo(1);
    testing::internal::CaptureStderr();
    for (int round = 0; round < 200 && !HasFailure(); round++) {
        StdoutFile out;
        for (int i = below(40); i > 0; i--) {
            add();
        }
        budget = below(40);
        expected.clear();
        syslogDrainQueue();
        ASSERT_TRUE(out.Text() == expected) << round;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), model.errors);
    log_Semaphore = 0x1234;  // none
    EXPECT_EQ(syslogAdd("x", 1), -1);
    EXPECT_EQ(std::count(buf + kUsedSize, std::end(buf), '\0'), kStorageSize - kUsedSize);
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
    log_buffer_head = 1000;
    log_buffer_tail = 999;
    std::atomic<int> step{0};
    std::jthread loser([&] {
        step = 1;
        loginfo("a", "another\n");  // tells of the repeat, which is lost
    });
    std::jthread caller([&] {
        EXPECT_TRUE(Eventually([&] { return step.load() == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        loginfo("b", "no end");
        step = 3;
    });
    EXPECT_TRUE(Eventually([&] { return step.load() == 3; }));
    std::string text(1 << 17, '\0');
    EXPECT_GT(read(ends[0], text.data(), text.size()), 0);  // makes room
    loser.join();
    dup2(saved, STDERR_FILENO);
    text.resize(static_cast<size_t>(read(ends[0], text.data(), text.size())));
    EXPECT_EQ(text, std::string(OVERFLOW_MSG) + OVERFLOW_MSG);
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
