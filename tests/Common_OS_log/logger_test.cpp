// The event logger's ring and its dump.
#include "Common/OS/logger.h"

#include <gtest/gtest.h>
#include <string.h>

#include <thread>
#include <vector>

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/os_init.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "tests/support/stdout_file.h"

namespace {

// What a dump prints.
std::string Dump() {
    StdoutFile out;
    dump_log();
    return out.Text();
}

std::string Head(const char* first) {
    return std::string(first) + "___TIME___ _ELAPSED_ _______ ________ ________ ________\n";
}

TEST(EventLogger, ADumpGetsTimesOrCharactersWrong) {
    logger_entry ring[4] = {{66666664, 0x64636261, 0, 0x7F7E201F, 0xFFFFFFFF},
                            {99999996, 1, 2, 3, 4},
                            {33333332, 0xDEADBEEF, 0x0A304139, 0, 0},
                            {0, 0, 0, 0, 0}};
    init_logger(ring, 4);
    // Not full: the newest entry is the first one's predecessor. The last one has the counter start
    // anew before it.
    currix = max_logged = 3;
    EXPECT_EQ(
        Dump(),
        Head("Dumping logged information, 3 entries in buffer\nINDEX = 03:\n") +
            "  1.000000  0.500000 64636261 00000000 7F7E201F FFFFFFFF : abcd .... . ~. ....\n"
            "  1.500000  0.500000 00000001 00000002 00000003 00000004 : .... .... .... ....\n"
            "  0.500000 63.424019 DEADBEEF 0A304139 00000000 00000000 : .... 9A0. .... ....\n");
    // Full: from the oldest entry, whose elapsed time is 0.
    ring[1] = {4294901760, 1, 0, 0, 0};
    ring[3] = {50000000, 0x41, 0, 0, 0};
    ring[0].e3 = ring[0].e4 = 0;
    currix = 1;
    max_logged = 4;
    EXPECT_EQ(
        Dump(),
        Head("Dumping logged information, 4 entries in buffer\nINDEX = 01:\n") +
            " 64.423531  0.000000 00000001 00000000 00000000 00000000 : .... .... .... ....\n"
            "  0.500000  0.500488 DEADBEEF 0A304139 00000000 00000000 : .... 9A0. .... ....\n"
            "  0.750000  0.250000 00000041 00000000 00000000 00000000 : A... .... .... ....\n"
            "  1.000000  0.250000 64636261 00000000 00000000 00000000 : abcd .... .... ....\n");
    EXPECT_EQ(log_state, 0);
    EXPECT_EQ(print_delay, 1000);
    EXPECT_EQ(init_logger(nullptr, 4), ring);
}

TEST(EventLogger, TheRingForgetsTheWrongEntry) {
    pause_log();
    pause_log();
    resume_log();
    logger(1, 2, 3, 4);
    EXPECT_EQ(orig_log_buffer, nullptr);  // paused: not even a ring
    resume_log();
    for (UInt32 i = 0; i < 101; i++) {
        logger(i, 0, 0, i);
    }
    EXPECT_EQ(max_entries, 100);
    EXPECT_EQ(max_logged, 100);
    EXPECT_EQ(currix, 1);
    EXPECT_EQ(orig_log_buffer.load()[0].e1, 100U);
    const std::string text = Dump();
    EXPECT_NE(text.find("100 entries in buffer\nINDEX = 01:\n"), std::string::npos);
    EXPECT_LT(text.find(" 00000001 "), text.find(" 00000002 "));
    EXPECT_LT(text.find(" 00000063 "), text.find(" 00000064 "));
    EXPECT_EQ(text.find(" 00000000 00000000 00000000 00000000 "), std::string::npos);
    logger_entry one[1];
    Plogger_entry own = init_logger(one, 1);
    ASSERT_NE(own, nullptr);
    free(own);
    EXPECT_EQ(max_logged + currix, 0);
    logger(7, 0, 0, 0);
    logger(8, 0, 0, 0);
    EXPECT_EQ(one[0].e1, 8U);
    EXPECT_EQ(max_logged, 1);
    EXPECT_EQ(currix, 0);
    EXPECT_EQ(init_logger(one, 0), one);  // no room: no ring
    EXPECT_EQ(orig_log_buffer, nullptr);
}

TEST(EventLogger, ADumpWithoutARingPrintsOneOrGoesOnRecording) {
    EXPECT_EQ(Dump(), "Dumping logged information, 0 entries in buffer\nINDEX = 00:\n");
    EXPECT_EQ(log_state, 1);
    logger_entry ring[2];
    init_logger(ring, 2);
    logger(1, 1, 1, 1);
    EXPECT_EQ(max_logged, 0);
    EXPECT_EQ(Dump(), Head("Dumping logged information, 0 entries in buffer\nINDEX = 00:\n"));
    EXPECT_EQ(log_state, 1);
}

void DumpForEver(UInt32, UInt32, UInt32, UInt32) {
    for (;;) {
        dump_log();
    }
}

TEST(EventLogger, EntriesAreMixedOrADeletedDumpKeepsThePause) {
    os_init();
    StdoutFile out;
    static logger_entry rings[2][64];
    init_logger(rings[0], 64);
    std::atomic<bool> stop{false};
    std::vector<std::thread> recorders;
    for (UInt32 id = 1; id <= 3; id++) {
        recorders.emplace_back([&stop, id] {
            while (!stop) {
                logger(id, id * 3, id * 5, id * 7);
            }
        });
    }
    // Full before the first dump: dumps one upon another leave recorders hardly any time.
    const auto full = [] {
        InterruptsOffT off;
        return max_logged == 64;
    };
    EXPECT_TRUE(Eventually(full));
    UInt32 dumper = 0;
    t_create("dump", 0, 0, 0, 0, &dumper);
    t_start(dumper, 0, DumpForEver, nullptr);
    EXPECT_TRUE(out.WaitFor("64 entries"));
    for (int i = 0; i < 50; i++) {
        init_logger(rings[i % 2], 64);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    t_delete(dumper);
    EXPECT_EQ(log_state, 0);
    init_logger(rings[0], 64);
    EXPECT_TRUE(Eventually(full));
    stop = true;
    for (std::thread& recorder : recorders) {
        recorder.join();
    }
    for (const auto& ring : rings) {
        for (const logger_entry& e : ring) {
            EXPECT_TRUE(e.e2 == e.e1 * 3 && e.e3 == e.e1 * 5 && e.e4 == e.e1 * 7);
        }
    }
}

}  // namespace
