// What the lines' settings become, word by word: the FPGA serial driver's requests and the
// attributes of CPU lines, of which a pseudo-terminal would keep only some.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/syscall.h>

#include <string>
#include <vector>

#include "Common/OS/linux/fpgaserial.h"
#include "Common/OS/linux/launcher.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "tests/devlib_serial/port_config.h"
#include "tests/support/pty_lines.h"
#include "tests/support/stdout_file.h"

namespace {

using Words = std::vector<UInt32>;
Words words;         // of the FPGA driver's last request
int driverResult;    // of its requests
termios applied;     // the last attributes of a terminal
int terminalResult;  // of applying them
int failing[2];      // how often the next input and output speeds cannot be set

int SetSpeed(termios* line, speed_t* field, speed_t speed, int* failures) {
    if (*failures > 0) {
        (*failures)--;
        return -1;
    }
    *field = speed;
    line->c_cflag = (line->c_cflag & ~static_cast<tcflag_t>(CBAUD)) | speed;
    return 0;
}

class SerialSettings : public testing::Test {
  protected:
    SerialSettings() { DevMgrSerial_Init(); }

    // Sends a request straight to a line's device and returns its result.
    static UInt32 Request(int port, UInt32 code, DevmgrSerial_IoctlData_t data) {
        UInt32 id = 0;
        EXPECT_EQ(dev_open("Ser", static_cast<UInt32>(port + 1), &id), kDevOk);
        IORB iorb = {};
        iorb.pBuffer = reinterpret_cast<SInt8*>(&data);
        dev_ioctl(id, &iorb, code);
        return iorb.err;
    }

    static UInt32 Configure(int port, UInt32 mask, UInt32 baudRate) {
        DevmgrSerial_IoctlData_t data = {};
        data.serConfig = {mask, baudRate};
        return Request(port, kSerialCtlConfig, data);
    }

    static UInt32 Status(int port, UInt32 bits) {
        DevmgrSerial_IoctlData_t data = {};
        data.PortStatus = static_cast<DevmgrSerial_Status_t>(bits);
        return Request(port, kSerialCtlStatus, data);
    }

    PtyLines lines_;
};

}  // namespace

// In place of the launcher's pipe, and of the C library's.
int system_pthread(const char*) {
    return 0;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* argument = va_arg(ap, void*);
    va_end(ap);
    if (request == kFpgaSerialSetConfig) {
        const UInt32* record = static_cast<UInt32*>(argument);
        words.assign(record, record + 6);
        return driverResult;
    }
    if (request == kFpgaSerialReceiverOff) {
        words = {static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(argument))};
        return driverResult;
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" int tcsetattr(int, int when, const termios* line) noexcept {
    EXPECT_EQ(when, TCSANOW);
    applied = *line;
    return terminalResult;
}

extern "C" int cfsetispeed(termios* line, speed_t speed) noexcept {
    return SetSpeed(line, &line->c_ispeed, speed, &failing[0]);
}

extern "C" int cfsetospeed(termios* line, speed_t speed) noexcept {
    return SetSpeed(line, &line->c_ospeed, speed, &failing[1]);
}

TEST_F(SerialSettings, TheFpgaDriverGetsExactlyTheWordsOfEachInstance) {
    struct {
        int port;
        RS232Cfg cfg;
        Words sent;
    } const cases[] = {
        {0, Cfg(0, 3, 0, 0), {0x03, 115200, 2, 0, 0, 0}},  // rate and parity only
        {1, Cfg(5, 0, 1, 2, 1, 1, 1), {0x03, 9600, 1, 0, 0, 0}},
        {2, Cfg(1, 0, 2, 0), {0x1F, 57600, 0, 0, 0, 0}},
        {3, Cfg(2, 1, 0, 1), {0x1F, 38400, 2, 1, 0, 1}},
        {5, Cfg(4, 2, 1, 2), {0x1F, 14400, 1, 1, 0, 2}},
        {5, Cfg(3, 3, 2, 0, 1, 1, 1), {0x1F, 19200, 0, 0, 0, 3}},  // never flow control
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Open(c.port, c.cfg), kNoError);
        EXPECT_EQ(words, c.sent) << "port " << c.port;
        Serial_Close(c.port);
    }
    words.clear();
    EXPECT_EQ(Configure(1, 0, 9599), SERIAL_INVALID_PARAM);
    EXPECT_EQ(Configure(1, 0, 115201), SERIAL_INVALID_PARAM);
    EXPECT_TRUE(words.empty());
}

TEST_F(SerialSettings, ReceiversAreSwitchedOnlyAsFarAsTheLineAgrees) {
    constexpr UInt32 kNone = 99;  // no request
    struct {
        UInt32 bits;
        int result, tx, rx, cpu_tx, cpu_rx;
        UInt32 err, sent;
    } const cases[] = {
        {PORT_RX_ENABLE, 0, 0, 1, 0, 1, 0, 0},
        {PORT_TX_ENABLE, 0, 1, 1, 1, 1, 0, kNone},
        {PORT_RX_DISABLE | PORT_TX_DISABLE, -1, 1, 1, 0, 0, 9, 1},
        {PORT_RX_DISABLE | PORT_TX_DISABLE, 0, 0, 0, 0, 0, 0, 1},
        {PORT_RX_ENABLE, -1, 0, 0, 0, 1, 9, 0},
        {15, 0, 1, 1, 1, 1, 0, 0},  // enabling wins
        {0, 0, 1, 1, 1, 1, 0, kNone},
    };
    for (const auto& c : cases) {
        words = {kNone};
        driverResult = terminalResult = c.result;
        EXPECT_EQ(Status(1, c.bits), c.err);
        EXPECT_EQ(words, Words{c.sent});
        EXPECT_EQ(CBList[1].tx_enabled, c.tx);
        EXPECT_EQ(CBList[1].rx_enabled, c.rx);
        EXPECT_EQ(Status(4, c.bits), c.err);
        EXPECT_EQ((applied.c_cflag & CREAD) != 0, c.bits == 0 || c.cpu_rx == 1);
        EXPECT_EQ(CBList[4].tx_enabled, c.cpu_tx);
        EXPECT_EQ(CBList[4].rx_enabled, c.cpu_rx);
        EXPECT_EQ(CBList[4].asyncThread_running, c.err == 0 && c.cpu_tx + c.cpu_rx > 0 ? 1u : 0u);
    }
    DevMgrSerial_Stop_AsyncThread(&CBList[4]);
}

TEST_F(SerialSettings, ACpuLineGetsTheAttributesOfItsConfiguration) {
    constexpr tcflag_t kFormat = CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS | CREAD;
    struct {
        UInt32 mask, rate;
        tcflag_t before;  // PARODD as the terminal has it
        speed_t speed;
        tcflag_t format, input;
    } const cases[] = {
        {0x20 | 0x80, 1200, 0, B1200, CS5, 0},
        {0x20 | 0x100, 2400, 0, B2400, CS6, 0},
        {0x20 | 0x200, 4800, 0, B4800, CS7, 0},
        {0x20 | 0x400, 9600, 0, B9600, CS8, 0},
        {0, 14400, 0, B19200, CS8, 0},  // there is no 14400
        {0x08 | 0x40, 19200, 0, B19200, CS8 | PARENB | CSTOPB, 0},
        {0x08, 38400, PARODD, B38400, CS8 | PARENB | PARODD, 0},  // even leaves PARODD
        {0x10, 57600, 0, B57600, CS8 | PARENB | PARODD, 0},
        {0x18, 115200, 0, B115200, CS8 | PARENB, 0},
        {0, 12345, PARODD, B9600, CS8 | PARODD, 0},
        {0x01, 9600, 0, B9600, CS8 | CRTSCTS, 0},
        {0x02, 9600, 0, B9600, CS8 | CRTSCTS, 0},
        {0x04, 9600, 0, B9600, CS8, IXON | IXOFF},
        {0x06, 9600, 0, B9600, CS8 | CRTSCTS, 0},
    };
    for (const auto& c : cases) {
        termios before = lines_.Attributes(4);
        before.c_cflag = (before.c_cflag & ~static_cast<tcflag_t>(PARODD)) | HUPCL | c.before;
        before.c_iflag |= ICRNL | IXANY;
        before.c_cc[VMIN] = 7;
        ASSERT_EQ(ioctl(lines_.near(4), TCSETS, &before), 0);
        ASSERT_EQ(Configure(4, c.mask, c.rate), SERIAL_NOERROR);
        EXPECT_EQ(applied.c_ispeed, c.speed) << c.rate;
        EXPECT_EQ(applied.c_ospeed, c.speed) << c.rate;
        EXPECT_EQ(applied.c_cflag & kFormat, c.format) << std::hex << c.mask;
        EXPECT_EQ(applied.c_cflag & (CLOCAL | HUPCL), before.c_cflag & (CLOCAL | HUPCL));
        EXPECT_EQ(applied.c_iflag, c.input) << std::hex << c.mask;
        EXPECT_EQ(applied.c_oflag, before.c_oflag & ~static_cast<tcflag_t>(OPOST));
        EXPECT_EQ(applied.c_lflag & ~static_cast<tcflag_t>(IEXTEN), 0u);
        EXPECT_EQ(applied.c_cc[VMIN], 7);
    }
}

TEST_F(SerialSettings, FailingSettingsAndUnknownRequestsAreReported) {
    constexpr char kIn[] = "DevMgrCPUSerial_Ioctl(): Setting IN Baudrate failed...Try: ";
    constexpr char kOut[] = "DevMgrCPUSerial_Ioctl(): Setting OUT Baudrate failed...Try: ";
    const StdoutFile out;
    failing[0] = failing[1] = 1;
    EXPECT_EQ(Configure(6, 0, 9600), SERIAL_NOERROR);
    std::string expected = std::string(kIn) + "0\n" + kOut + "1\n";
    failing[1] = 5;
    EXPECT_EQ(Configure(6, 0, 9600), SERIAL_ERROR_UNKNOWN);
    for (const char* attempt : {"0\n", "1\n", "2\n", "3\n", "4\n"}) {
        expected += std::string(kOut) + attempt;
    }
    terminalResult = -1;
    EXPECT_EQ(Configure(6, 0, 9600), SERIAL_ERROR_UNKNOWN);
    expected += "DevMgrCPUSerial_Ioctl(): Setting terminal options failed...\n";
    EXPECT_EQ(out.Text(), expected);
    EXPECT_EQ(Request(6, 4, {}), SERIAL_UNKNOWN_IOCTL);
    EXPECT_EQ(Request(1, 4, {}), SERIAL_UNKNOWN_IOCTL);
    EXPECT_EQ(DevMgrCPUSerial_Close(nullptr), SERIAL_INVALID_PARAM);
}
