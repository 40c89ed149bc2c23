// The event logger's ring and its dump.
#include "Common/OS/logger.h"

#include "Common/OS/linux/intsoff.h"
#include "Common/OS/linux/os_init.h"
#include "tests/Common_OS_log/logfixture.h"

namespace {

// What a dump prints, up to the entries.
std::string Head(const std::string& count, const std::string& index) {
    return "Dumping logged information, " + count + " entries in buffer\nINDEX = " + index +
           ":\n___TIME___ _ELAPSED_ _______ ________ ________ ________\n";
}

class EventLogger : public LogFixtureT {};

TEST_F(EventLogger, ADumpGetsTimesOrCharactersWrong) {
    logger_entry ring[3] = {{66666664, 0x64636261, 0, 0x7F7E201F, 0xFFFFFFFF},
                            {33333332, 0xDEADBEEF, 0x0A304139, 0, 0}};
    EXPECT_EQ(init_logger(ring, 3), nullptr);
    // Not full: the newest entry is the first one's predecessor. The last one has the counter start
    // anew before it.
    currix = max_logged = 2;
    const std::string first = " 64636261 00000000 7F7E201F FFFFFFFF : abcd .... . ~. ....\n";
    const std::string second = " DEADBEEF 0A304139 00000000 00000000 : .... 9A0. .... ....\n";
    dump_log();
    EXPECT_EQ(Printed(),
              Head("2", "02") + "  1.000000  0.500000" + first + "  0.500000 63.924019" + second);
    // Full: from the oldest entry, whose elapsed time is 0.
    ring[2] = {33333332, 0x41, 0, 0, 0};
    currix = 1;
    max_logged = 3;
    dump_log();
    EXPECT_EQ(Printed(),
              Head("3", "01") + "  0.500000  0.000000" + second +
                  "  0.500000  0.000000 00000041 00000000 00000000 00000000 : A... .... .... ....\n"
                  "  1.000000  0.500000" +
                  first);
    EXPECT_EQ(log_state, 0);
}

TEST_F(EventLogger, TheRingForgetsTheWrongEntry) {
    dump_log();  // without a ring recording stays paused
    logger(1, 2, 3, 4);
    EXPECT_EQ(orig_log_buffer, nullptr);
    resume_log();
    for (UInt32 i = 0; i < 101; i++) {
        logger(i, 0, 0, i);
    }
    EXPECT_EQ(max_logged * 1000 + currix, 100001);
    for (UInt32 i = 1; i < 101; i++) {
        EXPECT_EQ(orig_log_buffer.load()[i % 100].e4, i);
    }
}

TEST_F(EventLogger, EntriesAreMixedOrADeletedDumpKeepsThePause) {
    os_init();
    static logger_entry rings[2][64];
    init_logger(rings[0], 64);
    UInt32 count = 0;
    UInt32 recorders[3];
    for (UInt32& recorder : recorders) {
        recorder = Spawn("rec", [me = ++count] {
            for (;; pthread_testcancel()) {
                logger(me, me, me, me);
            }
        });
    }
    // Full before the first dump: dumps one upon another leave recorders hardly any time.
    EXPECT_TRUE(Eventually([] {
        InterruptsOffT off;
        return max_logged == 64;
    }));
    const UInt32 dumper = Spawn("dump", [] {
        for (;;) {
            dump_log();
        }
    });
    EXPECT_TRUE(out_.WaitFor("64 entries"));
    for (int i = 0; i < 50; i++) {
        init_logger(rings[i % 2], 64);
        usleep(1000);
    }
    t_delete(dumper);
    EXPECT_EQ(log_state, 0);
    for (const UInt32 recorder : recorders) {
        t_delete(recorder);
    }
    for (const logger_entry& e : rings[0]) {
        EXPECT_TRUE(e.e2 == e.e1 && e.e3 == e.e1 && e.e4 == e.e1);
    }
}

}  // namespace
