// What the lines' settings become, word by word: the FPGA serial driver's requests and the
// attributes of CPU lines, of which a pseudo-terminal would keep only some.
#include <dlfcn.h>
#include <stdarg.h>
#include <sys/syscall.h>

#include <mutex>

#include "Common/OS/linux/fpgaserial.h"
#include "tests/devlib_serial/serialfixture.h"

Words words;
termios applied;
int refusal;

namespace {

std::mutex appliedLock;          // ports are set by several threads at once
std::atomic<bool> slowTerminal;  // which keeps all of its attributes, as a pseudo-terminal does not

class SerialSettings : public Serial {
  protected:
    static UInt32 Configure(int port, UInt32 mask, UInt32 baudRate) {
        return Request(port, kSerialCtlConfig, {.serConfig = {mask, baudRate}});
    }
};

}  // namespace

// In place of the C library's.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* argument = va_arg(ap, void*);
    va_end(ap);
    errno = EIO;
    if (request == kFpgaSerialSetConfig || request == kFpgaSerialReceiverOff) {
        const auto* record = static_cast<UInt32*>(argument);
        words = request == kFpgaSerialSetConfig
                    ? Words(record, record + 6)
                    : Words{static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(argument))};
        return refusal;
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

extern "C" int tcsetattr(int fd, int when, const termios* line) noexcept {
    static const auto real = reinterpret_cast<decltype(&tcsetattr)>(dlsym(RTLD_NEXT, "tcsetattr"));
    {
        const std::lock_guard guard(appliedLock);
        applied = *line;
    }
    errno = EIO;
    return refusal != 0 ? refusal : real(fd, when, line);
}

extern "C" int tcgetattr(int fd, termios* line) noexcept {
    static const auto real = reinterpret_cast<decltype(&tcgetattr)>(dlsym(RTLD_NEXT, "tcgetattr"));
    if (!slowTerminal) {
        return real(fd, line);
    }
    {
        const std::lock_guard guard(appliedLock);
        *line = applied;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    return 0;
}

TEST_F(SerialSettings, BothDirectionsEnabledAtOnceLeaveTheReceiverOn) {
    ASSERT_EQ(Open(4), kNoError);
    slowTerminal = true;
    for (int round = 0; round < 20; round++) {
        Serial_Disable(4, SERIAL_DIRECTION_BOTH);
        std::thread tx(Serial_Enable, 4, SERIAL_DIRECTION_TX);
        Serial_Enable(4, SERIAL_DIRECTION_RX);
        tx.join();
        EXPECT_NE(applied.c_cflag & CREAD, 0u);
        EXPECT_EQ(Enabled(4), "txrx");
    }
    slowTerminal = false;
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
    // Elsewhere RTS/CTS goes before XON/XOFF before DTR/DSR.
    for (const auto& cfg : {Cfg(0, 3, 2, 0, 1, 1, 1), Cfg(0, 3, 2, 0, 1, 0, 1)}) {
        ASSERT_EQ(Open(4, cfg), kNoError);
        EXPECT_EQ((applied.c_cflag & CRTSCTS) != 0, cfg.hwFlowControlRtsCts != 0);
        EXPECT_EQ((applied.c_iflag & IXON) != 0, cfg.hwFlowControlRtsCts == 0);
        Serial_Close(4);
    }
    words.clear();
    EXPECT_EQ(Configure(1, 0, 9599), SERIAL_INVALID_PARAM);
    EXPECT_EQ(Configure(1, 0, 115201), SERIAL_INVALID_PARAM);
    EXPECT_TRUE(words.empty());
}

TEST_F(SerialSettings, ACpuLineGetsTheAttributesOfItsConfiguration) {
    constexpr tcflag_t kFormat = CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS | CREAD;
    struct {
        UInt32 mask, rate;
        tcflag_t before;  // PARODD as the terminal has it
        speed_t speed;
        tcflag_t format, input;
    } const cases[] = {
        {0x20 | 0x80 | 0x01, 1200, 0, B1200, CS5 | CRTSCTS, 0},
        {0x20 | 0x100 | 0x02, 2400, 0, B2400, CS6 | CRTSCTS, 0},
        {0x20 | 0x200 | 0x04, 4800, 0, B4800, CS7, IXON | IXOFF},
        {0x20 | 0x400 | 0x06, 9600, 0, B9600, CS8 | CRTSCTS, 0},
        {0, 14400, 0, B19200, CS8, 0},  // there is no 14400
        {0x08 | 0x40, 19200, 0, B19200, CS8 | PARENB | CSTOPB, 0},
        {0x08, 38400, PARODD, B38400, CS8 | PARENB | PARODD, 0},  // even leaves PARODD
        {0x10, 57600, 0, B57600, CS8 | PARENB | PARODD, 0},
        {0x18, 115200, 0, B115200, CS8 | PARENB, 0},
        {0, 12345, PARODD, B9600, CS8 | PARODD, 0},
    };
    ASSERT_EQ(Open(4), kNoError);
    for (const auto& c : cases) {
        termios before = lines_.Attributes(4);
        before.c_cflag = (before.c_cflag & ~static_cast<tcflag_t>(PARODD)) | HUPCL | c.before;
        before.c_iflag |= ICRNL | IXANY;
        before.c_oflag |= OPOST;
        before.c_lflag |= ICANON | ISIG | ECHO | ECHOE | ECHOK | ECHONL | ECHOCTL | ECHOKE;
        before.c_cc[VMIN] = 7;
        ASSERT_EQ(tcsetattr(lines_.near(4), TCSANOW, &before), 0);
        ASSERT_EQ(Configure(4, c.mask, c.rate), SERIAL_NOERROR);
        termios expected = before;
        expected.c_cflag = (before.c_cflag & ~kFormat) | c.format;
        cfsetspeed(&expected, c.speed);
        expected.c_iflag = c.input;
        expected.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        expected.c_lflag &= IEXTEN;
        EXPECT_EQ(memcmp(&applied, &expected, sizeof(applied)), 0) << c.rate;
    }
}
