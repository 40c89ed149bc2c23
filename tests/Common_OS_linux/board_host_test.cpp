// The workstation's stand-ins for the board: device nodes from a folder, the FPGA serial driver's
// settings on terminals, pauses and clocks.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "Common/OS/linux/board.h"
#include "tests/support/pty_lines.h"

TEST(BoardHost, OnlyNodesOfTheFolderAreMadeRawAndNoneBecomesTheControllingTerminal) {
    EXPECT_GE(BoardOpenDevice("/dev/null"), 0);
    const PtyLines lines;
    const auto open_and_exit = [] {
        setsid();
        const int fd = BoardOpenDevice("/dev/fpgaserial1");
        _exit(fd >= 0 && open("/dev/tty", O_RDWR) < 0 ? 0 : 1);
    };
    EXPECT_EXIT(open_and_exit(), testing::ExitedWithCode(0), "");
    const termios line = lines.Attributes(1);
    EXPECT_EQ(line.c_lflag & (ECHO | ICANON | ISIG | IEXTEN), 0u);
    EXPECT_EQ((line.c_oflag & OPOST) + line.c_iflag, 0u);
    EXPECT_EQ(line.c_cc[VMIN] + 10 * line.c_cc[VTIME], 1);
    EXPECT_EQ(BoardOpenDevice("/dev/null"), -1);  // not in the folder
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(BoardOpenDevice(("/dev/" + std::string(5000, 'x')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    // Without the folder a terminal stays as it is.
    char node[128] = {};
    ASSERT_GT(readlink(lines.Node(2).c_str(), node, sizeof(node) - 1), 0);
    setenv("HARBOR_DEV_DIR", "", 1);
    EXPECT_GE(BoardOpenDevice(node), 0);
    EXPECT_NE(lines.Attributes(2).c_lflag & ECHO, 0u);
}

TEST(BoardHost, DriverSettingsReachATerminalThatDoesNotKnowTheRequests) {
    const PtyLines lines;
    const int fd = BoardOpenDevice("/dev/fpgaserial4");
    struct {
        fpgaserial_config_t config;
        speed_t speed;
        tcflag_t kept;  // of what a pseudo-terminal keeps
    } const cases[] = {
        {{0x1F, 57600, FPGASERIAL_ODD_PARITY, FPGASERIAL_STOPBITS_2, {}, {}},
         B57600,
         PARODD | CSTOPB},
        {{0x03, 9600, FPGASERIAL_EVEN_PARITY, {}, {}, {}}, B9600, CSTOPB},  // rate and parity only
        {{0x1F, 14400, {}, {}, {}, FPGASERIAL_INVALID_DATABITSSIZE}, B19200, 0},
    };
    const int file = open("/dev/null", O_RDWR);  // no terminal: keeps the driver's answer
    for (const auto& c : cases) {
        for (int again = 0; again < 2; again++) {  // the same settings once more are no failure
            EXPECT_EQ(BoardFpgaSerialConfigure(fd, &c.config) + BoardFpgaSerialReceiver(fd, again),
                      0);
            EXPECT_EQ(lines.Speed(2), c.speed);
            EXPECT_EQ(lines.Attributes(2).c_cflag & (PARODD | CSTOPB), c.kept);
        }
        EXPECT_EQ(BoardFpgaSerialConfigure(file, &c.config) + BoardFpgaSerialReceiver(file, 0), -2);
        EXPECT_EQ(errno, ENOTTY);
    }
}

TEST(BoardHost, PausesDoNotScaleByAWholePercentageOrAClockIsOff) {
    for (const auto& [percent, pause] : {std::pair{"100", 2000000000},
                                         {"25", 500000000},
                                         {"0", 0},
                                         {"", 2000000000},
                                         {"101", 2000000000},
                                         {"-1", 2000000000},
                                         {"5%", 2000000000}}) {
        setenv("HARBOR_DELAY_PERCENT", percent, 1);
        EXPECT_EQ(BoardDelay(2000000000), pause) << percent;
    }
    volatile rtclk8349* clock = BoardStartClock();
    EXPECT_EQ(clock->psr + clock->cnr, 266666u + 0x80u);
    const UInt32 cycles = BoardCycles();
    const UInt32 start = BoardClockMilliseconds(clock);
    EXPECT_LT(start, 60000u);
    usleep(30000);
    EXPECT_GE(BoardClockMilliseconds(clock) - start, 29u);
    EXPECT_GE(BoardCycles() - cycles, 66666664u / 1000 * 29);
    EXPECT_EQ(BoardClockMilliseconds(nullptr), 0u);
}
