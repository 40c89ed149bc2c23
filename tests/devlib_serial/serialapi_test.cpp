// Ports by number: arguments, opening and closing, reading and writing on pseudo-terminals,
// sessions of the external script.
#include "devlib/serialapi/serialapi.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Common/OS/linux/launcher.h"
#include "Common/OS/linux/system.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "tests/devlib_serial/port_config.h"
#include "tests/support/pty_lines.h"
#include "tests/support/stdout_file.h"

namespace {

std::vector<std::string> commands;  // of the launcher, which gives this answer
int launcherAnswer;

// The next free descriptor: the same after everything was closed.
int FreeDescriptor() {
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

class Serial : public testing::Test {
  protected:
    Serial() { DevMgrSerial_Init(); }
    ~Serial() override {
        if (HasFailure()) {
            fputs(out_.Text().c_str(), stderr);
        }
    }

    // What was printed since the last call.
    std::string Printed() {
        const std::string all = out_.Text();
        std::string fresh = all.substr(seen_);
        seen_ = all.size();
        return fresh;
    }

    int Read(int port, size_t size, int usecs) {
        bytes_.assign(size, '\0');
        const int got = Serial_Read(port, bytes_.data(), static_cast<int>(size), usecs);
        bytes_.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return got;
    }

    int Write(int port, std::string bytes, int usecs = 0) {
        return Serial_Write(port, bytes.data(), static_cast<int>(bytes.size()), usecs);
    }

    PtyLines lines_;
    StdoutFile out_;
    size_t seen_ = 0;
    std::string bytes_;
};

}  // namespace

// In place of the pipe to the launcher.
int system_pthread(const char* command) {
    commands.emplace_back(command);
    return launcherAnswer;
}

TEST_F(Serial, BadArgumentsAreRefusedBeforeAnyLineIsTouched) {
    static char byte;
    struct {
        int (*call)(int port);
        int closed;  // result on a port that is not open
    } const calls[] = {
        {[](int port) -> int { return Serial_Enable(port, SERIAL_DIRECTION_BOTH); }, -25},
        {[](int port) -> int { return Serial_Disable(port, SERIAL_DIRECTION_BOTH); }, -25},
        {[](int port) { return Serial_Write(port, &byte, 1, 0); }, -25},
        {[](int port) { return Serial_Read(port, &byte, 1, 0); }, -25},
        {[](int port) -> int { return Serial_GetCfg(port, &kPlain); }, -25},
        {[](int port) -> int { return Serial_Close(port); }, -25},
        {[](int port) { return Serial_Write(port, nullptr, 1, 0); }, -3},
        {[](int port) { return Serial_Read(port, nullptr, 1, 0); }, -3},
        {[](int port) { return Serial_Read(port, &byte, -1, 0); }, -3},
        {[](int port) -> int { return Serial_GetCfg(port, nullptr); }, -3},
        {[](int port) -> int { return Serial_Open_PSH(port, nullptr); }, -3},
        {[](int port) -> int { return Serial_Open(port, nullptr, nullptr, nullptr, nullptr); }, -3},
        {[](int port) -> int { return Open(port, Cfg(9)); }, -3},
        {[](int port) -> int { return Serial_Close_PSH(port); }, 0},
        {[](int port) -> int { return Serial_Open_PSH(port, &kPlain); }, 0},
    };
    for (const auto& c : calls) {
        for (const int port : {8, 1000000, -1, -2147483647}) {
            EXPECT_EQ(c.call(port), kBadParameter);
        }
        EXPECT_EQ(c.call(1), c.closed);
    }
}

TEST_F(Serial, EveryPortOpensOnceAndAgainAfterClosingAndKeepsNoDescriptor) {
    const int before = FreeDescriptor();
    for (UInt32 round = 1; round <= 2; round++) {
        for (int port = 0; port < kSerialPorts; port++) {
            ASSERT_EQ(Open(port), kNoError) << port;
            EXPECT_EQ(Open(port), kAlreadyInUse);
            EXPECT_EQ(Serial_Open_PSH(port, &kPlain), kAlreadyInUse);
            EXPECT_EQ(Serial_Enable(port, SERIAL_DIRECTION_NONE), kBadParameter);
            EXPECT_EQ(Serial_Enable(port, SERIAL_DIRECTION_BOTH), kNoError);
            EXPECT_EQ(Serial_Disable(port, SERIAL_DIRECTION_BOTH), kNoError);
            const RS232Cfg stored = Cfg(5);
            EXPECT_EQ(Serial_GetCfg(port, &stored), kNoError);  // stores, and leaves the line alone
            EXPECT_EQ(port_cfgs[port].bitRate, SERIAL_BAUDRATE_9600);
            EXPECT_EQ(lines_.Attributes(port).c_ospeed, static_cast<speed_t>(B115200));
        }
        for (int port = 0; port < kSerialPorts; port++) {
            EXPECT_EQ(Serial_Close(port), kNoError);
            EXPECT_EQ(CBList[port].devCB.numOpens, round);
            EXPECT_EQ(CBList[port].devCB.numCloses, round);
        }
        EXPECT_EQ(FreeDescriptor(), before);
    }
}

TEST_F(Serial, AnUnusableConfigurationLeavesThePortFree) {
    const std::string opened = "DevMgrFPGASerial_Open() ...\n";
    const std::string refused = opened +
                                "SERIALAPI: In OPEN, Port: 1 Device Manager config failed, err: 2\n"
                                "Serial API Error - Invalid Parameter\n";
    const int before = FreeDescriptor();
    for (const RS232Cfg& cfg : {Cfg(9), Cfg(0, 4), Cfg(0, 3, 3), Cfg(0, 3, 2, 3), Cfg(6), Cfg(8)}) {
        EXPECT_EQ(Open(1, cfg), kBadParameter);
        const bool slow = cfg.bitRate > 5 && cfg.bitRate < 9;  // known, but not to this line
        EXPECT_EQ(Printed(), slow ? refused : opened);
        EXPECT_EQ(Serial_Close(1), kItemNotFound);
        EXPECT_EQ(FreeDescriptor(), before);
    }
}

TEST_F(Serial, ANodeThatCannotBeOpenedIsTriedTenTimesAndThePortStaysFree) {
    std::string expected;
    for (int i = 0; i < 10; i++) {
        expected +=
            "DevMgrFPGASerial_Open() ...\n"
            "########## FAILED to open serial port ... serialCB->devCB.fd[d-1 -- 0xffffffff] ...\n";
    }
    expected +=
        "SERIALAPI: In OPEN, Port: 0 Device Manager open returned err: 9\n"
        "SERIALAPI: GIVE UP in Serial_Open() ... at Iteration:10 ...\n";
    std::filesystem::remove(lines_.Node(0));
    EXPECT_GE(MillisecondsOf([] { EXPECT_EQ(Open(0), kItemNotFound); }), 9 * 20.0);
    EXPECT_EQ(Printed(), expected);
    std::filesystem::create_directory(lines_.Node(0));
    EXPECT_EQ(Open(0), kItemNotFound);
    EXPECT_EQ(Printed(), expected);
    // A file in place of a line opens, but cannot be configured.
    for (const int port : {0, 4}) {
        std::filesystem::remove(lines_.Node(port));
        std::ofstream(lines_.Node(port)) << "";
        EXPECT_EQ(Open(port), kSystemCallFailed);
    }
    EXPECT_EQ(Printed(),
              "DevMgrFPGASerial_Open() ...\n"
              "DevMgrFPGASerial_Ioctl(): ^^^^^^^^^^^Setting Configuration in FPGA Serial Driver "
              "failed, err: -1...\n"
              "SERIALAPI: In OPEN, Port: 0 Device Manager config failed, err: 9\n"
              "Serial API Error - Unknown Error\n"
              "SERIALAPI: In OPEN, Port: 4 Device Manager config failed, err: 9\n"
              "Serial API Error - Unknown Error\n");
    std::filesystem::remove(lines_.Node(0));
    lines_.Plug(0);
    EXPECT_EQ(Open(0), kNoError);
}

TEST_F(Serial, BytesPassUntouchedBothWaysAndNothingIsEchoed) {
    std::string all;
    for (int i = 0; i < 256; i++) {
        all += static_cast<char>(i);
    }
    for (const int port : {1, 4}) {
        ASSERT_EQ(Open(port), kNoError);
        ASSERT_EQ(Serial_Enable(port, SERIAL_DIRECTION_TX), kNoError);
        EXPECT_EQ(Write(port, all, 10000), 256);
        EXPECT_EQ(lines_.Receive(port, 256), all);
        lines_.Send(port, all);
        EXPECT_EQ(Read(port, 256, 4000000), 256);
        EXPECT_EQ(bytes_, all);
        EXPECT_EQ(lines_.Echoed(port), 0);
        lines_.Send(port, "later");
        EXPECT_GT(Read(port, 100, 0), 0);  // blocks for at least a byte
    }
}

TEST_F(Serial, AReadEndsAtItsTimeoutWithWhatCame) {
    ASSERT_EQ(Open(0), kNoError);
    Printed();
    for (const int usecs : {50000, 1100000}) {  // also beyond a second, in microseconds alone
        EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(Read(0, 10, usecs), 0); }), usecs / 1000.0 - 1);
    }
    lines_.Send(0, "abc");
    EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(Read(0, 10, 50000), 3); }), 49.0);
    std::thread sender([&] {
        for (const char* byte : {"s", "l", "o", "w", "!"}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            lines_.Send(0, byte);
        }
    });
    EXPECT_EQ(Read(0, 5, 60000000), 5);  // goes on until it has all it wants
    EXPECT_EQ(bytes_, "slow!");
    sender.join();
    EXPECT_EQ(Read(0, 0, 50000), 0);
    EXPECT_EQ(Read(0, 5, -1), 0);  // no time at all, not for ever
    EXPECT_EQ(Printed(), "");
}

TEST_F(Serial, AHungUpLineEndsEveryReadAndFailsEveryWrite) {
    ASSERT_EQ(Open(1), kNoError);
    ASSERT_EQ(Open(4), kNoError);
    ASSERT_EQ(Serial_Enable(1, SERIAL_DIRECTION_BOTH), kNoError);
    lines_.HangUp(1);
    lines_.HangUp(4);
    Printed();
    EXPECT_EQ(Read(1, 10, 2000000000), 0);
    EXPECT_EQ(Printed(), "");
    EXPECT_EQ(Write(1, "x", 10000), 0);
    EXPECT_EQ(Read(1, 10, 0), 0);
    EXPECT_THAT(
        Printed(),
        testing::MatchesRegex(
            "SERIALAPI: In WRITE, Port: 1 Device Manager write failed, err: 4\n"
            "DevMgrFPGASerial_Read\\(\\): Err: (0|-1), portfd: [0-9]+ buffer: 0x[0-9a-f]+ "
            "ReqLen: 10\nSERIALAPI: In READ, Port: 1 Device Manager read failed, err: 3\n"));
    EXPECT_EQ(Serial_Enable(4, SERIAL_DIRECTION_BOTH), kSystemCallFailed);
    EXPECT_EQ(Serial_Disable(4, SERIAL_DIRECTION_BOTH), kSystemCallFailed);
    EXPECT_EQ(Printed(),
              "SERIALAPI: In ENABLE, Port: 4 Device Manager ioctl failed, err: 9\n"
              "Serial API Error - Unknown Error\n"
              "SERIALAPI: In DISABLE, Port: 4 Device Manager ioctl failed, err: 9\n"
              "Serial API Error - Unknown Error\n");
    EXPECT_EQ(Serial_Close(1), kNoError);
    EXPECT_EQ(Serial_Close(4), kNoError);
}

TEST_F(Serial, WritingNeedsTheTransmitterAndReportsALineThatTakesNothing) {
    ASSERT_EQ(Open(2), kNoError);
    ASSERT_EQ(Serial_Enable(2, SERIAL_DIRECTION_RX), kNoError);
    Printed();
    EXPECT_EQ(Write(2, "x"), 0);
    EXPECT_EQ(Printed(), "SERIALAPI: In WRITE, Port: 2 Device Manager write failed, err: 6\n");
    ASSERT_EQ(Serial_Enable(2, SERIAL_DIRECTION_TX), kNoError);
    while (Write(2, std::string(100, 'x'), 20000) > 0) {
    }
    EXPECT_EQ(Printed(), "SERIALAPI: In WRITE, Port: 2 Device Manager write failed, err: 8\n");
}

TEST_F(Serial, DisablingIsCrossed) {
    struct {
        SerialDirectionType direction;
        int tx, rx;  // left on
    } const cases[] = {{SERIAL_DIRECTION_RX, 0, 1}, {SERIAL_DIRECTION_TX, 1, 0}};
    for (const int port : {1, 4}) {
        ASSERT_EQ(Open(port), kNoError);
        for (const auto& c : cases) {
            ASSERT_EQ(Serial_Enable(port, SERIAL_DIRECTION_BOTH), kNoError);
            ASSERT_EQ(Serial_Disable(port, c.direction), kNoError);
            EXPECT_EQ(CBList[port].tx_enabled, c.tx);
            EXPECT_EQ(CBList[port].rx_enabled, c.rx);
        }
        Serial_Close(port);
    }
    EXPECT_EQ(CBList[1].tx_enabled, 1);  // an FPGA line remembers how it was left
    EXPECT_EQ(CBList[4].tx_enabled, 0);  // a CPU line does not
}

TEST_F(Serial, DeviceFailuresBecomeResultsAndLines) {
    struct {
        int result;
        const char* text;
    } const cases[] = {{0, ""},
                       {-27, "Serial API Error - Not Supported\n"},
                       {-3, "Serial API Error - Invalid Parameter\n"},
                       {-34, "Serial API Error - Read System call failed\n"},
                       {-34, "Serial API Error - Write System call failed\n"},
                       {-3, "Serial API Error - Invalid Parameter\n"},
                       {-4, "Serial API Error - TX Disabled\n"},
                       {-4, "Serial API Error - RX Disabled\n"},
                       {-35, "Serial API Error - Timeout\n"},
                       {-34, "Serial API Error - Unknown Error\n"},
                       {0, ""}};
    int err = 0;
    for (const auto& c : cases) {
        EXPECT_EQ(Serial_Get_AppErr(static_cast<DevMgrSerial_error_t>(err++)), c.result);
        EXPECT_EQ(Printed(), c.text);
    }
}

TEST_F(Serial, WithoutItsLockNothingOpensOrCloses) {
    portdevids_lock = 0;
    EXPECT_EQ(Open(2), kSemUnavail);
    EXPECT_EQ(Serial_Close(1), kSemUnavail);
    EXPECT_EQ(Serial_Open_PSH(2, &kPlain), kSemUnavail);
    EXPECT_EQ(Serial_Close_PSH(2), kSemUnavail);
    EXPECT_EQ(Printed(),
              "SERIALAPI: In Open, Port: 2 Mutex Lock failed...., err: 9\n"
              "SERIALAPI: In CLOSE, Port: 1 Mutex lock failed, err: 9\n"
              "SERIALAPI: In PSH OPEN, Port: 2 Mutex lock failed, err: 9\n"
              "SERIALAPI: In PSH CLOSE, Port: 2 Mutex lock failed, err: 9\n");
}

TEST_F(Serial, SessionsRunTheScriptWithTheLinesSettings) {
    struct {
        const char* command;
        RS232Cfg cfg;
    } const cases[] = {{"ttyFPGAS0 115200 5 E 1 dtrdsr", Cfg(0, 0, 0, 0, 1, 1, 1)},
                       {"ttyFPGAS1 57600 6 O 1 rtscts", Cfg(1, 1, 1, 1, 0, 1, 1)},
                       {"ttyFPGAS4 14400 7 N 2 xonxoff", Cfg(4, 2, 2, 2, 0, 0, 1)},
                       {"ttyFPGAS5 9600 8 N 1 none", Cfg(5, 3, 3, 3)},
                       {"ttyS1 4800 8 N 1 none", Cfg(6, 4)},
                       {"ttyFPGAS6 1200 8 N 1 none", Cfg(8)},
                       {"ttyUSB0 9600 8 N 1 none", Cfg(9)},
                       {"ttyUSB1 9600 8 N 1 none", Cfg(15)}};
    // Initialisation ends what an earlier run may have left.
    EXPECT_THAT(commands, testing::ElementsAre("./config_port close ttyFPGAS4",
                                               "./config_port close ttyFPGAS5"));
    for (int port = 0; port < kSerialPorts; port++) {
        const std::string command = cases[port].command;
        commands.clear();
        EXPECT_EQ(Serial_Open_PSH(port, &cases[port].cfg), kNoError);
        EXPECT_THAT(commands, testing::ElementsAre(
                                  "./config_port close " + command.substr(0, command.find(' ')),
                                  "./config_port open " + command));
    }
}

TEST_F(Serial, APortInASessionIsNeitherOpenNorFree) {
    ASSERT_EQ(Serial_Open_PSH(6, &kPlain), kNoError);
    EXPECT_EQ(Open(6), kAlreadyInUse);
    EXPECT_EQ(Serial_Open_PSH(6, &kPlain), kAlreadyInUse);
    EXPECT_EQ(Serial_Enable(6, SERIAL_DIRECTION_NONE), kNoError);  // nothing is done
    EXPECT_EQ(Read(6, 1, 0), kItemNotFound);
    EXPECT_EQ(Write(6, "x"), kItemNotFound);
    EXPECT_EQ(Serial_Close(6), kItemNotFound);
    launcherAnswer = 3;
    EXPECT_EQ(Serial_Close_PSH(6), kNoError);  // whatever the script says
    EXPECT_EQ(Serial_Open_PSH(6, &kPlain), kSystemCallFailed);
    EXPECT_EQ(Printed(), "SERIALAPI: In PSH OPEN, Port: 6 System call failed, err: 3\n");
    EXPECT_EQ(Open(6), kNoError);
    EXPECT_EQ(Serial_Enable(6, SERIAL_DIRECTION_NONE), kBadParameter);  // an ordinary port again
}

TEST(SerialOnTheUnit, NoSessionIsEndedAtStart) {
    SetSystemHardwareType(kHarbor);
    DevMgrSerial_Init();
    EXPECT_TRUE(commands.empty());
}
