// The queue's rules: levels, wrap, overflow, what the writer prints, and the syslog-like controls.
#include <gmock/gmock.h>
#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <thread>
#include <vector>

#include "Common/OS/linux/lowmem.h"
#include "tests/Common_OS_log/logfixture.h"

namespace {
int gEchoPriority;
std::string gEchoText;
}  // namespace

// In place of the platform's, so that the echo can be seen.
extern "C" void syslog(int priority, const char* format, ...) {
    char text[512];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    gEchoPriority = priority;
    gEchoText = text;
}

namespace {

using namespace logqueue;

class LogQueue : public LogFixtureT {
  protected:
    int Add(const std::string& line) {
        return syslogAdd(line.c_str(), static_cast<int>(line.size()));
    }

    void SetIndexes(int head, int tail) {
        log_buffer_head = head;
        log_buffer_tail = tail;
    }

    // Fills the queue from the start with lines of assorted sizes up to `end` or somewhat before.
    // Keeps where each one starts; the last entry is the write index.
    void Fill(int end) {
        SetIndexes(0, 0);
        starts_ = {0};
        for (int i = 0;; i++) {
            const std::string line = Numbered(i, 40 + i * 7 % 60);
            if (log_buffer_tail + static_cast<int>(line.size()) + 1 > end) {
                return;
            }
            ASSERT_EQ(Add(line), 0);
            starts_.push_back(log_buffer_tail);
        }
    }

    static std::string Numbered(int number, int length) {
        std::string line = "INFO  pc[0]: " + std::to_string(number) + " ";
        line.resize(static_cast<size_t>(length), '.');
        return line + "\n";
    }

    // The numbers of the lines that the text holds; -1 for one that is not whole.
    static std::vector<int> NumbersIn(const std::string& text) {
        std::vector<int> numbers;
        for (size_t at = 0; at < text.size();) {
            const size_t end = std::min(text.find('\n', at), text.size());
            const std::string line = text.substr(at, end - at);
            const size_t dots = std::min(line.find_first_not_of("0123456789", 7), line.size() - 1);
            const bool whole = line.rfind("pc[0]: ", 0) == 0 && line[dots] == ' ' &&
                               line.find_first_not_of('.', dots + 1) == std::string::npos;
            numbers.push_back(whole ? atoi(line.c_str() + 7) : -1);
            at = end + 1;
        }
        return numbers;
    }

    // What `action` writes to standard error.
    template <typename ActionT>
    static std::string Errors(ActionT action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }

    std::vector<int> starts_;
};

TEST_F(LogQueue, LevelsAreReadWrongFromTheFirstLetter) {
    const struct {
        const char* line;
        int level;
    } cases[] = {{"CRIT  ", 2}, {"ERROR ", 3}, {"WARN  ", 4},
                 {"INFO  ", 6}, {"DEBUG ", 7}, {"xyz", 7}};
    for (const auto& c : cases) {
        syslogSetLogLevel(c.level);
        EXPECT_EQ(Add(c.line), 0) << c.line;
        syslogSetLogLevel(c.level - 1);
        EXPECT_EQ(Add(c.line), -1) << c.line;
    }
    syslogSetLogLevel(7);
    EXPECT_EQ(Add(""), -1);
    EXPECT_EQ(syslogAdd(nullptr, 4), -1);
    EXPECT_EQ(syslogAdd("x", 0), -1);
    log_Semaphore = 0x1234;  // no semaphore
    EXPECT_EQ(Add("x"), -1);
}

TEST_F(LogQueue, AWrapNearTheEndTearsOrReordersLines) {
    for (int tail = kWrapLimit - 140; tail <= kWrapLimit; tail++) {
        for (const int length : {20, 60, 129}) {
            memset(buf, 'Z', sizeof(buf));
            SetIndexes(tail, tail);
            const bool wraps = tail + length + 2 > kWrapLimit;
            for (int i = 0; i < 3; i++) {
                ASSERT_EQ(Add(Numbered(i, length)), 0);
                ASSERT_LE(log_buffer_tail, kWrapLimit);
                if (i == 0) {
                    ASSERT_EQ(log_buffer_tail, wraps ? length + 2 : tail + length + 2);
                    ASSERT_EQ(std::count(buf + tail, buf + kUsedSize, '\0'),
                              wraps ? kUsedSize - tail : 1);
                }
            }
            ASSERT_EQ(std::count(buf + kUsedSize, buf + kStorageSize, 'Z'),
                      kStorageSize - kUsedSize);
            ASSERT_EQ(NumbersIn(Printed()), (std::vector<int>{0, 1, 2})) << tail << " " << length;
            ASSERT_EQ(log_buffer_head, log_buffer_tail);
        }
    }
}

TEST_F(LogQueue, AWrapOverUnreadLinesLeavesTornOnesOrHidesTheRest) {
    Fill(kWrapLimit);
    std::vector<char> filled(buf, buf + sizeof(buf));
    const int tail = log_buffer_tail;
    for (int first = 0; first < 8; first++) {  // the first unread line
        for (int size = kWrapLimit - tail + 1; size < 500; size += 3) {
            memcpy(buf, filled.data(), filled.size());
            const int head = starts_[static_cast<size_t>(first)];
            SetIndexes(head, tail);
            const std::string errors =
                Errors([&] { EXPECT_EQ(Add(Numbered(999999, size - 2)), 0); });
            // The first line that starts behind the new one, never where the indexes meet.
            const int expected =
                head > size ? head : *std::upper_bound(starts_.begin(), starts_.end(), size);
            ASSERT_EQ(log_buffer_head, expected) << first << " " << size;
            ASSERT_EQ(log_buffer_tail, size);
            ASSERT_EQ(errors, head > size ? "" : OVERFLOW_MSG);
        }
    }
    const std::vector<int> numbers = NumbersIn(Printed());
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers.back(), 999999);
    for (size_t i = 1; i + 1 < numbers.size(); i++) {
        ASSERT_EQ(numbers[i], numbers[i - 1] + 1);
    }
    EXPECT_EQ(numbers.size() + static_cast<size_t>(numbers[0]), starts_.size());
}

TEST_F(LogQueue, AWrapIntoPaddingThatHoldsUnreadLinesSendsTheReaderAstray) {
    // Unread: a line at the end, which the padding covers, and all lines before it.
    Fill(kWrapLimit - 300);
    const int tail = log_buffer_tail;
    const std::string old = Numbered(777777, 100);
    memcpy(buf + tail + 150, old.c_str(), old.size() + 1);
    SetIndexes(tail + 150, tail);
    EXPECT_EQ(Errors([&] { EXPECT_EQ(Add(Numbered(999999, 400)), 0); }), OVERFLOW_MSG);
    std::vector<int> numbers = NumbersIn(Printed());
    EXPECT_EQ(std::count(numbers.begin(), numbers.end(), -1), 0);
    EXPECT_EQ(numbers.front(), 7);  // the first line that starts beyond the new one
    EXPECT_EQ(numbers.back(), 999999);
    EXPECT_EQ(numbers[numbers.size() - 2], static_cast<int>(starts_.size()) - 2);
    // A line so long that it leaves none.
    const std::string giant = Numbered(5, kWrapLimit - 10);
    SetIndexes(300, 200);
    Errors([&] { EXPECT_EQ(Add(giant), 0); });
    EXPECT_EQ(NumbersIn(Printed()), (std::vector<int>{5}));
    EXPECT_EQ(Errors([&] { EXPECT_EQ(Add(giant), 0); }), "");  // the queue was empty
    EXPECT_EQ(NumbersIn(Printed()), (std::vector<int>{5}));
    EXPECT_EQ(Errors([&] { EXPECT_EQ(Add(giant + giant), -1); }), OVERFLOW_MSG);
    EXPECT_EQ(Printed(), "");
}

TEST_F(LogQueue, AFullQueueOverrunsUnreadLinesOrHidesTheLoss) {
    constexpr int kHead = 1000;
    const std::string line = Numbered(1, 98);  // takes 100 bytes
    for (int room = 1; room <= 160; room++) {  // from the write index to the read index
        memset(buf, 'Z', sizeof(buf));
        SetIndexes(kHead, kHead - room);
        int result = 0;
        const std::string errors = Errors([&] { result = Add(line); });
        const bool fits = room > 100;
        const bool reports = !fits && room > kOverflowSize;
        EXPECT_EQ(result, fits ? 0 : -1) << room;
        EXPECT_EQ(errors, fits ? "" : OVERFLOW_MSG) << room;
        EXPECT_EQ(log_buffer_tail, kHead - room + (fits ? 100 : reports ? kOverflowSize : 0));
        EXPECT_LT(log_buffer_tail, kHead);
        EXPECT_EQ(buf[kHead], 'Z');
        if (reports) {
            EXPECT_STREQ(buf + kHead - room, OVERFLOW_MSG);
        }
    }
}

TEST_F(LogQueue, AReaderRacingAWrapPrintsHalfALine) {
    // Lines so long that nearly every wrap comes upon unread ones.
    constexpr int kCount = 300;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done || log_buffer_head != log_buffer_tail) {
            syslogDrainQueue();
        }
    });
    int lost = 0;
    const std::string errors = Errors([&] {
        for (int i = 0; i < kCount; i++) {
            lost += Add(Numbered(i, i % 3 == 0 ? 100000 + i * 331 : 20 + i * 53 % 1100)) != 0;
        }
    });
    done = true;
    reader.join();
    const std::string report = OVERFLOW_MSG;
    std::vector<int> numbers;
    int inline_reports = 0;
    for (const int number : NumbersIn(Printed())) {
        if (number >= 0) {
            EXPECT_TRUE(numbers.empty() || number > numbers.back());
            numbers.push_back(number);
        } else {
            inline_reports++;
        }
    }
    EXPECT_LE(inline_reports, lost);  // anything else would be half a line
    EXPECT_EQ(errors.size() % report.size(), 0U);
    EXPECT_GE(errors.size() / report.size(), static_cast<size_t>(lost));
    EXPECT_LE(numbers.size() + static_cast<size_t>(lost), static_cast<size_t>(kCount));
    EXPECT_EQ(numbers.size() == kCount, errors.empty());
}

TEST_F(LogQueue, TheWriterReadsPastShortOddOrLongEntries) {
    logmsg_set_format(kLogFormatLevel);
    for (const char* line : {"I", "INFO ", "INFO  ", "INFO  pc", "INFO  pc[0]: x\n"}) {
        Add(line);
    }
    EXPECT_EQ(Printed(), "IINFO INFO  INFO  pcINFO  pc[0]: x\n");
    const std::string longline(5000, 'd');
    Add(longline);
    Add("INFO  after\n");
    EXPECT_EQ(Printed(), longline + "INFO  after\n");
    // Its own NUL ends a line before the length given.
    syslogAdd("INFO  cut\n\0INFO  hidden", 23);
    syslogAdd("INFO  part of it", 9);
    EXPECT_EQ(Printed(), "INFO  cut\nINFO  par");
    // An empty entry between two lines is reported and skipped.
    SetIndexes(0, 8);
    memcpy(buf, "Ia\n\0\0b\n", 8);
    char report[64];
    snprintf(report, sizeof(report), "syslog: empty string @ 0x%x\n", id_of(buf + 4));
    EXPECT_EQ(Printed(), report + std::string("Ia\nb\n"));
}

TEST_F(LogQueue, TimestampsAreMalformed) {
    const struct {
        int format;
        const char* pattern;
    } cases[] = {
        {0, ""},
        {8, ""},
        {1, "[0-9]{4}-[0-9]{2}-[0-9]{2} "},
        {2, " [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "},
        {15, "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} WARN  "},
    };
    for (const auto& c : cases) {
        logmsg_set_format(c.format);
        logwarn("a", "x\n");
        EXPECT_THAT(Printed(), testing::MatchesRegex(c.pattern + std::string("pc.0.: a: x\n")));
    }
    char stamp[kLogStampSize];
    logmsg_set_format(3);
    EXPECT_EQ(genTimestamp(stamp), 24);
    char day[16];
    const time_t now = time(nullptr);
    strftime(day, sizeof(day), "%F", gmtime(&now));
    EXPECT_EQ(std::string(stamp, 10), day);
}

TEST_F(LogQueue, TheEchoGetsAForeignPriorityOrTheLevelField) {
    logwarn("a", "not echoed\n");
    Printed();
    EXPECT_EQ(gEchoText, "");
    logmsg_set_syslog_echo(5);
    EXPECT_EQ(logmsg_get_syslog_echo(), 1);
    logwarn("a", "100%% %s\n", "%s");
    Printed();
    EXPECT_EQ(gEchoText, "pc[0]: a: 100% %s\n");
    EXPECT_EQ(gEchoPriority, LOG_WARNING | LOG_UUCP);
}

TEST(LogControls, AControlForgetsOrInventsAValue) {
    EXPECT_EQ(getlogmask(), 0x1f);
    EXPECT_EQ(setlogmask(0x03), 0x1f);
    EXPECT_EQ(setlogmask(0), 0x03);
    EXPECT_EQ(getlogmask(), 0x03);
    EXPECT_EQ(setloglocalmask(0x0f), 0xff);
    EXPECT_EQ(getloglocalmask(), 0x0f);
    EXPECT_EQ(getlogfacility(), LOG_USER);
    for (const auto& [given, kept] : {std::pair{LOG_MAIL, LOG_MAIL},
                                      {0, LOG_MAIL},
                                      {LOG_CRON | 1, LOG_MAIL},
                                      {LOG_LOCAL7, LOG_LOCAL7}}) {
        openlog(nullptr, LOG_PID, given);
        EXPECT_EQ(getlogfacility(), kept);
    }
    closelog();
    setlogfacility(12345);
    EXPECT_EQ(getlogfacility(), 12345);
    EXPECT_EQ(setlogaddr("host"), -1);
    EXPECT_STREQ(getlogaddr(), "");
}

}  // namespace

// The platform's name tables, as its header lays them out.
struct SyslogNameT {
    const char* name;
    int code;
};
extern SyslogNameT prioritynames[];
extern SyslogNameT facilitynames[];

namespace {

TEST(LogControls, AStandardNameHasAForeignCode) {
    const auto code = [](const SyslogNameT* row, const std::string& name) {
        while (row->name != nullptr && row->name != name) {
            row++;
        }
        return row->code;
    };
    const char* const priorities[] = {"emerg",   "alert",  "crit", "err",
                                      "warning", "notice", "info", "debug"};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(code(prioritynames, priorities[i]), i);
    }
    EXPECT_EQ(code(facilitynames, "kern"), 0);
    EXPECT_EQ(code(facilitynames, "local7"), 23 << 3);
    EXPECT_EQ(code(facilitynames, "nonesuch"), -1);
}

}  // namespace
