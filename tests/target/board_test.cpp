// The board build, unchanged, on the board's own paths in the emulated machine: the millisecond
// clock through /dev/mem, the FPGA lines through the driver's substitute, the CPU line through an
// emulated UART at whose other end, outside the machine, the simulated unit answers.
//
// The machine's clock player counts at twice the real speed, which tells what runs by the block's
// counter from what runs by any other clock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "Common/OS/linux/psosapi/events.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/tasks.h"
#include "Common/framework/mod.h"
#include "Common/framework/timer.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "devlib/serialapi/serialapi.h"
#include "tests/support/eventually.h"
#include "tests/target/driver_process.h"

namespace {

constexpr const char* kSharedMemory = "1af4:1110 2";
constexpr const char* kPlainRegisters = "1b36:0005 0";
constexpr double kPlayersSpeed = 2;

void PlaceAtTheClockBlock(const char* deviceAndBar) {
    const std::string command = std::string(PCIPLACE_PROGRAM) + " " + deviceAndBar + " e0000000";
    ASSERT_EQ(system(command.c_str()), 0);
}

RS232Cfg Config(SerialBaudRateType rate, SerialDataBitsType data, SerialParityType parity,
                SerialStopBitsType stop) {
    RS232Cfg config{};
    config.bitRate = rate;
    config.dataBits = data;
    config.parityBits = parity;
    config.stopBits = stop;
    return config;
}

std::string Logged(const char* node, const char* config) {
    const std::string name = node;
    return name + " open\n" + name + " config " + config + "\n" + name + " receiver on\n" + name +
           " receiver off\n" + name + " close\n";
}

// What the CPU line's thread received.
struct Received {
    std::mutex mutex;
    std::string bytes;

    static void Take(void* context, SerialCallbackData* data) {
        auto* received = static_cast<Received*>(context);
        const std::lock_guard<std::mutex> lock(received->mutex);
        received->bytes.append(data->buff, data->size);
    }
    size_t Size() {
        const std::lock_guard<std::mutex> lock(mutex);
        return bytes.size();
    }
};

std::string Hex(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
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
    EXPECT_GT(counted, real * kPlayersSpeed * 0.9);
    EXPECT_LT(counted, real * kPlayersSpeed * 1.1);
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
    EXPECT_GE(RealTimeMilliSeconds() - start, 1990u);
    EXPECT_LT(real, 1900);
    EXPECT_EQ(TimerExit(&timer), kNoError);
}

TEST(BoardLines, DriverGetsOtherWords) {
    struct Row {
        int port;
        RS232Cfg config;
        const char* node;
        const char* words;
    };
    const Row rows[] = {
        {0,
         Config(SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_EVEN, SERIAL_STOPBITS_1),
         "fpgaserial0",
         "valid_mask=3 baudrate=115200 parity=2 stopbits=0 hwflowctrl=0 databits_size=0"},
        {1, Config(SERIAL_BAUDRATE_9600, SERIAL_DATABITS_7, SERIAL_PARITY_ODD, SERIAL_STOPBITS_2),
         "fpgaserial1",
         "valid_mask=3 baudrate=9600 parity=1 stopbits=0 hwflowctrl=0 databits_size=0"},
        {2, Config(SERIAL_BAUDRATE_57600, SERIAL_DATABITS_5, SERIAL_PARITY_NO, SERIAL_STOPBITS_2),
         "fpgaserial4",
         "valid_mask=31 baudrate=57600 parity=0 stopbits=1 hwflowctrl=0 databits_size=0"},
        {3, Config(SERIAL_BAUDRATE_14400, SERIAL_DATABITS_7, SERIAL_PARITY_ODD, SERIAL_STOPBITS_1),
         "fpgaserial5",
         "valid_mask=31 baudrate=14400 parity=1 stopbits=0 hwflowctrl=0 databits_size=2"},
        {5,
         Config(SERIAL_BAUDRATE_38400, SERIAL_DATABITS_8, SERIAL_PARITY_EVEN, SERIAL_STOPBITS_1_5),
         "fpgaserial6",
         "valid_mask=31 baudrate=38400 parity=2 stopbits=1 hwflowctrl=0 databits_size=3"},
    };
    const DriverProcess driver({});
    TreeStub();
    DevMgrSerial_Init();
    std::string stated;
    for (const Row& row : rows) {
        EXPECT_EQ(Serial_Open(row.port, nullptr, nullptr, nullptr, &row.config), kNoError);
        EXPECT_EQ(Serial_Enable(row.port, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(Serial_Disable(row.port, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(Serial_Close(row.port), kNoError);
        stated += Logged(row.node, row.words);
    }
    EXPECT_EQ(driver.Log(), stated);
}

TEST(BoardLines, SlowRateReachesTheDriver) {
    const DriverProcess driver({});
    TreeStub();
    DevMgrSerial_Init();
    const RS232Cfg slow =
        Config(SERIAL_BAUDRATE_4800, SERIAL_DATABITS_8, SERIAL_PARITY_NO, SERIAL_STOPBITS_1);
    EXPECT_NE(Serial_Open(0, nullptr, nullptr, nullptr, &slow), kNoError);
    EXPECT_EQ(driver.Log(), "fpgaserial0 open\nfpgaserial0 close\n");
}

// The line's thread is cancelled in its wait when the port closes.
TEST(BoardLines, CpuLineLosesTheUnitsAnswer) {
    TreeStub();
    DevMgrSerial_Init();
    const RS232Cfg config =
        Config(SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_EVEN, SERIAL_STOPBITS_1);
    for (int round = 0; round < 3; ++round) {
        Received received;
        ASSERT_EQ(Serial_Open(4, nullptr, Received::Take, &received, &config), kNoError);
        ASSERT_EQ(Serial_Enable(4, SERIAL_DIRECTION_BOTH), kNoError);
        // The microcontroller's version, asked for and answered.
        char request[] = "\xff\x44\x00\x04\x01\xfe\x01\xfe\x01\xfe\x01";
        const int size = sizeof request - 1;
        EXPECT_EQ(Serial_Write(4, request, size, 10000), size);
        EXPECT_TRUE(Eventually([&] { return received.Size() >= 15; }, std::chrono::seconds(10)));
        EXPECT_EQ(Hex(received.bytes).substr(0, 8), "ff14000d");
        EXPECT_EQ(received.bytes.size(), 15u);
        EXPECT_EQ(Serial_Disable(4, SERIAL_DIRECTION_BOTH), kNoError);
        EXPECT_EQ(Serial_Close(4), kNoError);
    }
}

TEST(BoardLines, UartRunsWithOtherSettings) {
    TreeStub();
    DevMgrSerial_Init();
    struct Row {
        RS232Cfg config;
        speed_t speed;
        tcflag_t flags;
    };
    const tcflag_t looked = CSIZE | PARENB | PARODD | CSTOPB;
    const Row rows[] = {
        {Config(SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_ODD, SERIAL_STOPBITS_1),
         B115200, CS8 | PARENB | PARODD},
        {Config(SERIAL_BAUDRATE_14400, SERIAL_DATABITS_7, SERIAL_PARITY_NO, SERIAL_STOPBITS_2),
         B19200, CS7 | PARODD | CSTOPB},
        {Config(SERIAL_BAUDRATE_1200, SERIAL_DATABITS_5, SERIAL_PARITY_NO, SERIAL_STOPBITS_1),
         B1200, CS5 | PARODD},
    };
    const int watcher = open("/dev/ttyS1", O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(watcher, 0);
    for (const Row& row : rows) {
        ASSERT_EQ(Serial_Open(4, nullptr, nullptr, nullptr, &row.config), kNoError);
        termios settings{};
        ASSERT_EQ(tcgetattr(watcher, &settings), 0);
        EXPECT_EQ(cfgetospeed(&settings), row.speed);
        EXPECT_EQ(settings.c_cflag & looked, row.flags);
        EXPECT_EQ(settings.c_cflag & CREAD, 0u) << "the receiver is on before it is enabled";
        EXPECT_EQ(Serial_Close(4), kNoError);
    }
    close(watcher);
}
