// The workstation's stand-ins for the board: device nodes from a folder, the FPGA serial driver's
// settings on terminals, and pauses.
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
        {{0x01, 38400, FPGASERIAL_EVEN_PARITY, {}, {}, {}}, B38400, PARODD | CSTOPB},  // rate only
        {{0x03, 9600, FPGASERIAL_EVEN_PARITY, {}, {}, {}}, B9600, CSTOPB},
        {{0x1F, 14400, {}, {}, {}, FPGASERIAL_INVALID_DATABITSSIZE}, B19200, 0},
    };
    for (const auto& c : cases) {
        for (int again = 0; again < 2; again++) {  // the same settings once more are no failure
            EXPECT_EQ(BoardFpgaSerialConfigure(fd, &c.config) + BoardFpgaSerialReceiver(fd, again),
                      0);
            EXPECT_EQ(lines.Speed(2), c.speed);
            EXPECT_EQ(lines.Attributes(2).c_cflag & (PARODD | CSTOPB), c.kept);
        }
    }
}

TEST(BoardHost, PausesDoNotScaleByAWholePercentage) {
    for (const auto& [percent, pause] : {std::pair{"100", 2000000000},
                                         {"25", 500000000},
                                         {"101", 2000000000},
                                         {"5%", 2000000000}}) {
        setenv("HARBOR_DELAY_PERCENT", percent, 1);
        EXPECT_EQ(BoardDelay(2000000000), pause) << percent;
    }
}
