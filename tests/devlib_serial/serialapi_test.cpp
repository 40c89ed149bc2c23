// Ports by number: arguments, opening and closing, reading and writing on pseudo-terminals,
// sessions of the external script.
#include <filesystem>

#include "Common/OS/linux/launcher.h"
#include "tests/devlib_serial/serialfixture.h"

int launcherAnswer;

namespace {

std::vector<std::string> commands;  // of the launcher

using SerialPort = Serial;

int Read(int port, int size, int usecs) {
    char bytes[1000];
    return Serial_Read(port, bytes, size, usecs);
}

}  // namespace

// In place of the pipe to the launcher.
int system_pthread(const char* command) {
    commands.emplace_back(command);
    return launcherAnswer;
}

TEST_F(SerialPort, BadArgumentsAreRefusedBeforeAnyLineIsTouched) {
    static char byte;
    struct {
        int (*call)(int port);
        int closed;  // result on a port that is not open
    } const calls[] = {
        {[](int port) -> int { return Serial_Enable(port, SERIAL_DIRECTION_BOTH); }, -25},
        {[](int port) { return Serial_Write(port, &byte, 1, 0); }, -25},
        {[](int port) -> int { return Serial_GetCfg(port, &kPlain); }, -25},
        {[](int port) -> int { return Serial_Close(port); }, -25},
        {[](int port) { return Serial_Read(port, &byte, -1, 0); }, -3},
        {[](int port) -> int { return Serial_Close_PSH(port); }, 0},
        {[](int port) -> int { return Open(port); }, 0},
    };
    for (const auto& c : calls) {
        for (const int port : {8, 1000000, -1, -2147483647}) {
            EXPECT_EQ(c.call(port), kBadParameter);
        }
        EXPECT_EQ(c.call(1), c.closed);
    }
}

TEST_F(SerialPort, AConfigurationIsStoredAndLeavesTheLineAlone) {
    const RS232Cfg stored = Cfg(5);
    ASSERT_EQ(Open(4), kNoError);
    EXPECT_EQ(Serial_GetCfg(4, &stored), kNoError);
    EXPECT_EQ(port_cfgs[4].bitRate, SERIAL_BAUDRATE_9600);
    EXPECT_EQ(lines_.Speed(4), static_cast<speed_t>(B115200));
}

TEST_F(SerialPort, ANodeThatIsMissingIsTriedTenTimesAndThePortStaysFree) {
    const std::string node = lines_.Node(0);
    std::filesystem::rename(node, node + "-away");
    EXPECT_GE(MillisecondsOf([] { EXPECT_EQ(Open(0), kItemNotFound); }), 180);
    std::filesystem::rename(node + "-away", node);
    EXPECT_EQ(Open(0), kNoError);
}

TEST_F(SerialPort, AReadEndsAtItsTimeoutWithWhatCame) {
    ASSERT_EQ(Open(0), kNoError);
    out_.Fresh();
    lines_.Send(0, "abc");
    EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(Read(0, 10, 50000), 3); }), 49.0);
    // Also beyond a second, in microseconds alone.
    EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(Read(0, 10, 1100000), 0); }), 1099.0);
    EXPECT_EQ(Read(0, 5, -1), 0);  // no time at all, not for ever
    EXPECT_EQ(out_.Fresh(), "");
}

TEST_F(SerialPort, BytesThatKeepComingDoNotProlongARead) {
    ASSERT_EQ(Open(0), kNoError);
    std::atomic<bool> done{false};
    std::thread sender([&] {
        for (int i = 0; i < 1000 && !done; i++) {
            lines_.Send(0, "x");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    EXPECT_EQ(Read(0, 5, 60000000), 5);  // goes on until it has all it wants
    EXPECT_LT(Read(0, 900, 200000), 900);
    done = true;
    sender.join();
}

TEST_F(SerialPort, AnOpenOrCloseThatIsCancelledLosesNeitherPortNorDescriptor) {
    const int before = FreeDescriptor();
    for (int round = 0; round < 300; round++) {
        const int port = round % 2 == 0 ? 4 : 1;
        const bool missing = round % 50 == 0;
        const std::string node = lines_.Node(port);
        std::filesystem::rename(node, node + (missing ? "-away" : ""));
        std::thread client([port] {
            for (;;) {
                Open(port);
                Serial_Close(port);
                pthread_testcancel();
            }
        });
        std::this_thread::sleep_for(std::chrono::microseconds(round));
        pthread_cancel(client.native_handle());
        client.join();
        std::filesystem::rename(node + (missing ? "-away" : ""), node);
        Serial_Close(port);  // where it was cancelled between the two
        ASSERT_EQ(Open(port), kNoError) << round;
        ASSERT_EQ(Serial_Close(port), kNoError);
    }
    EXPECT_EQ(FreeDescriptor(), before);
}

TEST_F(SerialPort, SessionsRunTheScriptWithTheLinesSettings) {
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
