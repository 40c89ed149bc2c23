// The unit's own board: an MPC8349 with the FPGA serial driver. Registers are 32 bits wide in the
// processor's byte order.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>

#include "Common/OS/linux/board.h"
#include "Common/OS/log.h"

namespace {

constexpr off64_t kRegisterPage = 0xE0000000;  // physical address of the processor's registers
constexpr size_t kClockOffset = 0x300;         // of the real-time-clock block in that page
constexpr size_t kPageSize = 4096;
constexpr UInt32 kPrescale = 266666;  // input clock cycles per millisecond, less one
constexpr UInt32 kClockEnable = 0x80;

volatile rtclk8349* MapClock() {
    const int fd = open("/dev/mem", O_RDWR);
    if (fd < 0) {
        logcrit("os", "init_rtcp open /dev/mem failed\n");
        return nullptr;
    }
    void* page = mmap64(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, kRegisterPage);
    close(fd);
    if (page == nullptr || page == MAP_FAILED) {
        logcrit("os", "init_rtcp mmap failed\n");
        return nullptr;
    }
    void* block = static_cast<UInt8*>(page) + kClockOffset;
    return static_cast<volatile rtclk8349*>(block);
}

}  // namespace

int BoardOpenDevice(const char* node) {
    return open(node, O_RDWR);
}

int BoardOpenLauncher(int flags) {
    return open(kLauncherPipe, flags);
}

int BoardFpgaSerialConfigure(int fd, const fpgaserial_config_t* config) {
    return ioctl(fd, kFpgaSerialSetConfig, config);
}

int BoardFpgaSerialReceiver(int fd, int off) {
    return ioctl(fd, kFpgaSerialReceiverOff, off);
}

int BoardSetTerminal(int fd, const struct termios* attributes) {
    return tcsetattr(fd, TCSANOW, attributes);
}

void BoardDrain(int) {}

volatile rtclk8349* BoardStartClock() {
    static std::atomic<volatile rtclk8349*> mapped{nullptr};
    volatile rtclk8349* clock = mapped;
    if (clock == nullptr) {
        clock = mapped = MapClock();
    }
    if (clock == nullptr) {
        return nullptr;
    }
    // In this order: the counter is enabled last.
    clock->psr = kPrescale;
    clock->ldr = 0;
    clock->cnr = kClockEnable;
    return clock;
}

UInt32 BoardClockMilliseconds(const volatile rtclk8349* clock) {
    return clock != nullptr ? clock->ctr : 0;
}

UInt32 BoardCycles() {
    return static_cast<UInt32>(__builtin_ppc_mftb());
}

int BoardDelay(int usecs) {
    return usecs;
}
