// A workstation in place of the unit: device nodes may be looked up in a folder of one's own, where
// pseudo-terminals stand for the serial lines; clocks come from the system; designed pauses can be
// shortened. Nothing else on the machine is touched.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "Common/OS/linux/board.h"
#include "Common/OS/linux/serialspeed.h"

namespace {

constexpr char kDeviceFolder[] = "/dev/";
constexpr UInt64 kCyclesPerSecond = 66666664;
constexpr UInt64 kNanosPerSecond = 1000000000;
constexpr int kFullDelayPercent = 100;
// What a pseudo-terminal keeps whatever is asked.
constexpr tcflag_t kNotOnPseudoTerminals = PARENB | CREAD | CSIZE;

rtclk8349 clockBlock;
std::atomic<UInt32> clockStart;  // milliseconds

UInt64 MonotonicNanos() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<UInt64>(now.tv_sec) * kNanosPerSecond + static_cast<UInt64>(now.tv_nsec);
}

UInt32 MonotonicMilliseconds() {
    return static_cast<UInt32>(MonotonicNanos() / 1000000);
}

const char* Environment(const char* variable) {
    const char* value = getenv(variable);
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

void MakeRaw(termios* line) {
    line->c_iflag = 0;
    line->c_oflag &= ~static_cast<tcflag_t>(OPOST);
    line->c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    line->c_cc[VMIN] = 1;
    line->c_cc[VTIME] = 0;
}

bool SameButForTheWire(const termios& a, const termios& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_lflag == b.c_lflag &&
           ((a.c_cflag ^ b.c_cflag) & ~kNotOnPseudoTerminals) == 0 &&
           memcmp(a.c_cc, b.c_cc, sizeof(a.c_cc)) == 0 && cfgetispeed(&a) == cfgetispeed(&b) &&
           cfgetospeed(&a) == cfgetospeed(&b);
}

// Whether the driver's request failed because the descriptor is a terminal that does not know it.
bool IsPlainTerminal(int fd) {
    const int err = errno;
    const bool unknown = err == ENOTTY || err == EINVAL;
    const bool plain = unknown && isatty(fd) == 1;
    errno = err;
    return plain;
}

void ApplyParity(termios* line, fpgaserial_parity_t parity) {
    line->c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD);
    if (parity == FPGASERIAL_EVEN_PARITY) {
        line->c_cflag |= PARENB;
    } else if (parity == FPGASERIAL_ODD_PARITY) {
        line->c_cflag |= PARENB | PARODD;
    }
}

void ApplyFormat(termios* line, const fpgaserial_config_t* config) {
    constexpr tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
    line->c_cflag &= ~static_cast<tcflag_t>(CSTOPB | CRTSCTS | CSIZE);
    line->c_cflag |= config->databits_size < FPGASERIAL_INVALID_DATABITSSIZE
                         ? kSizes[config->databits_size]
                         : CS8;
    if (config->stopbits == FPGASERIAL_STOPBITS_2) {
        line->c_cflag |= CSTOPB;
    }
    if (config->hwflowctrl != FPGASERIAL_HWFLOWCTRL_NONE) {
        line->c_cflag |= CRTSCTS;
    }
}

int ConfigureTerminal(int fd, const fpgaserial_config_t* config) {
    termios line = {};
    if (tcgetattr(fd, &line) != 0) {
        return -1;
    }
    MakeRaw(&line);
    if ((config->valid_mask & kFpgaSerialValidBaudRate) != 0) {
        const speed_t speed = SerialSpeed(config->baudrate);
        cfsetispeed(&line, speed);
        cfsetospeed(&line, speed);
    }
    if ((config->valid_mask & kFpgaSerialValidParity) != 0) {
        ApplyParity(&line, config->parity);
    }
    if ((config->valid_mask & kFpgaSerialValidAll) == kFpgaSerialValidAll) {
        ApplyFormat(&line, config);
    }
    return BoardSetTerminal(fd, &line);
}

int OpenIn(const char* folder, const char* name, int flags) {
    char path[PATH_MAX];
    const int length = snprintf(path, sizeof(path), "%s/%s", folder, name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return open(path, flags);
}

}  // namespace

int BoardOpenDevice(const char* node) {
    const char* folder = Environment("HARBOR_DEV_DIR");
    if (folder == nullptr || strncmp(node, kDeviceFolder, sizeof(kDeviceFolder) - 1) != 0) {
        return open(node, O_RDWR);
    }
    // A stand-in must never become the terminal that controls this process: its hang-up would end
    // the program with a signal where a real line just falls silent.
    const int fd = OpenIn(folder, node + sizeof(kDeviceFolder) - 1, O_RDWR | O_NOCTTY);
    termios line = {};
    if (fd >= 0 && tcgetattr(fd, &line) == 0) {
        MakeRaw(&line);
        BoardSetTerminal(fd, &line);
    }
    return fd;
}

int BoardOpenLauncher(int flags) {
    const char* folder = Environment("HARBOR_DEV_DIR");
    return folder != nullptr ? OpenIn(folder, "plaunch", flags) : open(kLauncherPipe, flags);
}

int BoardFpgaSerialConfigure(int fd, const fpgaserial_config_t* config) {
    const int result = ioctl(fd, kFpgaSerialSetConfig, config);
    return result != 0 && IsPlainTerminal(fd) ? ConfigureTerminal(fd, config) : result;
}

int BoardFpgaSerialReceiver(int fd, int off) {
    const int result = ioctl(fd, kFpgaSerialReceiverOff, off);
    if (result == 0 || !IsPlainTerminal(fd)) {
        return result;
    }
    termios line = {};
    if (tcgetattr(fd, &line) != 0) {
        return -1;
    }
    line.c_cflag = off != 0 ? line.c_cflag & ~static_cast<tcflag_t>(CREAD) : line.c_cflag | CREAD;
    return BoardSetTerminal(fd, &line);
}

int BoardSetTerminal(int fd, const struct termios* attributes) {
    if (tcsetattr(fd, TCSANOW, attributes) == 0) {
        return 0;
    }
    const int err = errno;
    termios now = {};
    if (err == EINVAL && tcgetattr(fd, &now) == 0 && SameButForTheWire(now, *attributes)) {
        return 0;
    }
    errno = err;
    return -1;
}

void BoardDrain(int fd) {
    // What is no terminal says so, which is all the same here.
    tcdrain(fd);
}

volatile rtclk8349* BoardStartClock() {
    clockStart = MonotonicMilliseconds();
    clockBlock.psr = 266666;
    clockBlock.ldr = 0;
    clockBlock.cnr = 0x80;
    return &clockBlock;
}

UInt32 BoardClockMilliseconds(const volatile rtclk8349* clock) {
    return clock != nullptr ? MonotonicMilliseconds() - clockStart : 0;
}

UInt32 BoardCycles() {
    const UInt64 now = MonotonicNanos();
    return static_cast<UInt32>(now / kNanosPerSecond * kCyclesPerSecond +
                               now % kNanosPerSecond * kCyclesPerSecond / kNanosPerSecond);
}

int BoardDelay(int usecs) {
    const char* text = Environment("HARBOR_DELAY_PERCENT");
    if (text == nullptr) {
        return usecs;
    }
    char* end = nullptr;
    const long percent = strtol(text, &end, 10);
    if (*end != '\0' || percent < 0 || percent > kFullDelayPercent) {
        return usecs;
    }
    return static_cast<int>(static_cast<SInt64>(usecs) * percent / kFullDelayPercent);
}
