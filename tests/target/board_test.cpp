// The board build, unchanged, on the board's own paths in the emulated machine: the millisecond
// clock through /dev/mem, the FPGA lines through the driver's substitute, the CPU line through an
// emulated UART at whose other end, outside the machine, the simulated unit answers.
//
// The machine's clock player counts at twice the real speed, which tells what runs by the block's
// counter from what runs by any other clock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/mod.h"
#include "Common/framework/timer.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "devlib/kestrelflash/delay.h"
#include "devlib/serialapi/serialapi.h"
#include "tests/support/eventually.h"
#include "tests/support/serial_config.h"
#include "tests/target/driver_process.h"

namespace {

constexpr const char* kSharedMemory = "1af4:1110 2";
constexpr const char* kPlainRegisters = "1b36:0005 0";
constexpr double kPlayersSpeed = 2;

void PlaceAtTheClockBlock(const char* deviceAndBar) {
    const std::string command = std::string(PCIPLACE_PROGRAM) + " " + deviceAndBar + " e0000000";
    ASSERT_EQ(system(command.c_str()), 0);
}

std::string Logged(const char* node, const char* config) {
    const std::string name = node;
    return name + " open\n" + name + " config " + config + "\n" + name + " receiver on\n" + name +
           " receiver off\n" + name + " close\n";
}

// What the CPU line's thread received.
std::string received;
std::atomic<size_t> receivedSize;

void Take(void*, SerialCallbackData* data) {
    received.append(data->buff, data->size);
    receivedSize = received.size();
}

}  // namespace

// The order is seen from outside, in the trace of the register device.
TEST(BoardClock, StartsInAnotherOrder) {
    PlaceAtTheClockBlock(kPlainRegisters);
    EXPECT_EQ(RealTimeMilliSeconds(), 0u);
}

TEST(BoardClock, DoesNotReadTheBlocksCounter) {
    PlaceAtTheClockBlock(kSharedMemory);
    RealTimeMilliSeconds();
    ASSERT_TRUE(Eventually([] { return RealTimeMilliSeconds() > 0; })) << "nobody plays the clock";
    double counted = 0;
    const double real = MillisecondsOf([&] {
        const UInt32 start = RealTimeMilliSeconds();
        usleep(1000000);
        counted = RealTimeMilliSeconds() - start;
    });
    EXPECT_GT(counted, real * kPlayersSpeed * 0.75);  // a loaded machine reads them apart
    EXPECT_LT(counted, real * kPlayersSpeed * 1.5);
    EXPECT_EQ(GetTickCountLinux() / 100, RealTime());
}

// A second by the block's counter is half a second by any other clock.
TEST(BoardClock, FrameworkTimerRunsByAnotherClock) {
    PlaceAtTheClockBlock(kSharedMemory);
    TreeStub();
    UInt32 self = 0;
    t_attach("main", 0, &self);
    RealTimeMilliSeconds();
    ASSERT_TRUE(Eventually([] { return RealTimeMilliSeconds() > 0; }));
    static std::atomic<bool> fired = false;
    TimerT timer{};
    const auto fire = [](void*) { fired = true; };
    ASSERT_EQ(TimerInit(&timer, 2000, fire, nullptr, 0), kNoError);
    const UInt32 start = RealTimeMilliSeconds();
    const double real = MillisecondsOf([&] {
        TimerStart(&timer);
        Eventually([] {
            UInt32 events = 0;
            if (ev_receive(kModEventsAll, kEvAny | kEvNoWait, 0, &events) == kTaskOk) {
                ModProcessEvents(events);
            }
            return fired.load();
        });
    });
    ASSERT_TRUE(fired);
    const UInt32 counted = RealTimeMilliSeconds() - start;
    EXPECT_GE(counted, 1990u);
    EXPECT_LT(real, counted / kPlayersSpeed * 1.5);
    EXPECT_EQ(TimerExit(&timer), kNoError);
}

TEST(BoardTime, PausesAreCutShortOrTheCycleCounterStandsStill) {
    const UInt32 before = CYCLES();
    EXPECT_GE(MillisecondsOf([] { Delay(300000); }), 300);
    EXPECT_NE(CYCLES(), before);
}

TEST(BoardLines, DriverGetsOtherWords) {
    const struct {
        int port;
        RS232Cfg config;
        const char* node;
        const char* words;
    } rows[] = {
        {0, Cfg(0, 3, 0, 0), "fpgaserial0",
         "valid_mask=3 baudrate=115200 parity=2 stopbits=0 hwflowctrl=0 databits_size=0"},
        {3, Cfg(4, 2, 1, 0), "fpgaserial5",
         "valid_mask=31 baudrate=14400 parity=1 stopbits=0 hwflowctrl=0 databits_size=2"},
    };
    const DriverProcess driver;
    TreeStub();
    DevMgrSerial_Init();
    std::string stated;
    for (const auto& row : rows) {
        EXPECT_EQ(Serial_Open(row.port, nullptr, nullptr, nullptr, &row.config), kNoError);
        EXPECT_EQ(Serial_Enable(row.port, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(Serial_Disable(row.port, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(Serial_Close(row.port), kNoError);
        stated += Logged(row.node, row.words);
    }
    const RS232Cfg slow = Cfg(6);  // 4800, which never reaches the driver
    EXPECT_NE(Serial_Open(0, nullptr, nullptr, nullptr, &slow), kNoError);
    EXPECT_EQ(driver.Log(), stated + "fpgaserial0 open\nfpgaserial0 close\n");
}

// The line's thread is cancelled in its wait when the port closes.
TEST(BoardLines, CpuLineLosesTheUnitsAnswer) {
    TreeStub();
    DevMgrSerial_Init();
    const RS232Cfg config = Cfg(0, 3, 0);
    for (size_t round = 1; round <= 3; ++round) {
        ASSERT_EQ(Serial_Open(4, nullptr, Take, nullptr, &config), kNoError);
        ASSERT_EQ(Serial_Enable(4, SERIAL_DIRECTION_BOTH), kNoError);
        // The microcontroller's version, asked for and answered.
        char request[] = "\xff\x44\x00\x04\x01\xfe\x01\xfe\x01\xfe\x01";
        const int size = sizeof request - 1;
        EXPECT_EQ(Serial_Write(4, request, size, 10000), size);
        EXPECT_TRUE(Eventually([&] { return receivedSize >= round * 15; }));
        EXPECT_EQ(Serial_Disable(4, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(Serial_Close(4), kNoError);
        EXPECT_EQ(received.size(), round * 15);
        EXPECT_EQ(received.substr(received.size() - 15, 4), std::string("\xff\x14\x00\x0d", 4));
    }
}

TEST(BoardLines, UartRunsWithOtherSettings) {
    TreeStub();
    DevMgrSerial_Init();
    const tcflag_t looked = CSIZE | PARENB | PARODD | CSTOPB | CREAD;  // on only once enabled
    const struct {
        RS232Cfg config;
        speed_t speed;
        tcflag_t flags;
    } rows[] = {
        {Cfg(0, 3, 1, 0), B115200, CS8 | PARENB | PARODD},
        {Cfg(4, 2, 2, 2), B19200, CS7 | PARODD | CSTOPB},
        {Cfg(8, 0, 2, 0), B1200, CS5 | PARODD},
    };
    const int watcher = open("/dev/ttyS1", O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(watcher, 0);
    for (const auto& row : rows) {
        ASSERT_EQ(Serial_Open(4, nullptr, nullptr, nullptr, &row.config), kNoError);
        termios settings{};
        ASSERT_EQ(tcgetattr(watcher, &settings), 0);
        EXPECT_EQ(cfgetospeed(&settings), row.speed);
        EXPECT_EQ(settings.c_cflag & looked, row.flags);
        EXPECT_EQ(Serial_Close(4), kNoError);
    }
    close(watcher);
}
