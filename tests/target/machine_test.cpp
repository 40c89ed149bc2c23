// What the product needs of the emulated machine, shown without the product: when one of these
// fails, the machine is at fault. Runs only inside the machine.
#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/utsname.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace {

constexpr off_t kClockPage = 0xE0000000;
constexpr size_t kClockOffset = 0x300;
constexpr int kSharedMemoryBar = 2;
constexpr const char* kSharedMemory = "1af4:1110";

uint32_t Milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

int OpenRaw(const char* path) {
    const int fd = open(path, O_RDWR | O_NOCTTY);
    termios settings{};
    if (fd >= 0 && tcgetattr(fd, &settings) == 0) {
        cfmakeraw(&settings);
        settings.c_cflag |= CLOCAL | CREAD;
        cfsetspeed(&settings, B115200);
        tcsetattr(fd, TCSANOW, &settings);
    }
    return fd;
}

// Reads until `size` bytes are there or nothing comes for five seconds.
std::string ReadBytes(int fd, size_t size) {
    std::string bytes;
    pollfd ready{fd, POLLIN, 0};
    while (bytes.size() < size && poll(&ready, 1, 5000) == 1) {
        char block[256];
        const ssize_t n = read(fd, block, std::min(sizeof block, size - bytes.size()));
        if (n <= 0) {
            break;
        }
        bytes.append(block, static_cast<size_t>(n));
    }
    return bytes;
}

std::string AllByteValues() {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    return bytes;
}

void ExpectBothDirections(int one, int other) {
    const std::string bytes = AllByteValues();
    for (const auto& [from, to] : {std::pair{one, other}, std::pair{other, one}}) {
        ASSERT_EQ(write(from, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_EQ(ReadBytes(to, bytes.size()), bytes);
    }
}

// What a cancelled thread waits in, and what its unwinding has to undo.
struct Cancelled {
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    bool inSelect;
    volatile bool unwound;
};

struct NotesUnwinding {
    explicit NotesUnwinding(Cancelled* noted) : cancelled(noted) {}
    ~NotesUnwinding() { cancelled->unwound = true; }
    Cancelled* cancelled;
};

void* WaitForCancellation(void* argument) {
    auto* cancelled = static_cast<Cancelled*>(argument);
    const NotesUnwinding notes(cancelled);
    if (cancelled->inSelect) {
        select(0, nullptr, nullptr, nullptr, nullptr);
    } else {
        struct Locked {
            explicit Locked(pthread_mutex_t* locked) : mutex(locked) { pthread_mutex_lock(mutex); }
            ~Locked() { pthread_mutex_unlock(mutex); }
            pthread_mutex_t* mutex;
        } lock(&cancelled->mutex);
        for (;;) {
            pthread_cond_wait(&cancelled->condition, &cancelled->mutex);
        }
    }
    return nullptr;
}

}  // namespace

TEST(Machine, IsNotABigEndian32BitPowerPc) {
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    EXPECT_STREQ(name.machine, "ppc");
    EXPECT_EQ(sizeof(void*), 4u);
    EXPECT_EQ(htobe32(0x01020304), 0x01020304u);
    // The board's core has no AltiVec; neither may the machine have.
    std::string cpu = "grep -qi altivec /proc/cpuinfo";
    EXPECT_NE(system(cpu.c_str()), 0);
}

TEST(Machine, PseudoTerminalChangesBytes) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const int slave = OpenRaw(ptsname(master));
    ASSERT_GE(slave, 0);
    ExpectBothDirections(master, slave);
}

// The two lines are wired to each other outside the machine.
TEST(Machine, EmulatedUartsLoseBytesOnTheirWayOutAndBackIn) {
    const int one = OpenRaw("/dev/ttyS4");
    const int other = OpenRaw("/dev/ttyS5");
    ASSERT_GE(one, 0);
    ASSERT_GE(other, 0);
    ExpectBothDirections(one, other);
}

TEST(Machine, CancelledThreadIsNotUnwound) {
    for (const bool inSelect : {false, true}) {
        Cancelled cancelled{};
        cancelled.inSelect = inSelect;
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        ASSERT_EQ(pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT), 0);
        ASSERT_EQ(pthread_mutex_init(&cancelled.mutex, &attributes), 0);
        ASSERT_EQ(pthread_cond_init(&cancelled.condition, nullptr), 0);
        for (int round = 0; round < 50; ++round) {
            cancelled.unwound = false;
            pthread_t thread;
            ASSERT_EQ(pthread_create(&thread, nullptr, WaitForCancellation, &cancelled), 0);
            if (round % 2 == 0) {
                usleep(2000);
            }
            ASSERT_EQ(pthread_cancel(thread), 0);
            void* result = nullptr;
            ASSERT_EQ(pthread_join(thread, &result), 0);
            EXPECT_EQ(result, PTHREAD_CANCELED);
            if (round % 2 == 0) {
                EXPECT_TRUE(cancelled.unwound) << (inSelect ? "in select" : "in a wait");
            }
            ASSERT_EQ(pthread_mutex_trylock(&cancelled.mutex), 0) << "left locked";
            pthread_mutex_unlock(&cancelled.mutex);
        }
    }
}

// The registers as the player outside counts them, through /dev/mem as the product reads them.
TEST(Machine, ClockBlockDoesNotCountMilliseconds) {
    const std::string place = std::string(PCIPLACE_PROGRAM) + " " + kSharedMemory + " " +
                              std::to_string(kSharedMemoryBar) + " e0000000";
    ASSERT_EQ(system(place.c_str()), 0);
    const int fd = open("/dev/mem", O_RDWR | O_SYNC);
    ASSERT_GE(fd, 0);
    // Through a signed 32-bit off_t this address is negative, as it is for the product.
    void* page =
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(kClockPage));
    ASSERT_NE(page, MAP_FAILED) << strerror(errno);
    auto* block = reinterpret_cast<volatile uint32_t*>(static_cast<char*>(page) + kClockOffset);
    const int control = 0, load = 1, prescale = 2, counter = 3;
    block[prescale] = 266666;
    block[load] = 1000;
    block[control] = 0x80;
    const uint32_t start = Milliseconds();
    while (block[counter] < 1000) {
        ASSERT_LT(Milliseconds() - start, 10000u) << "nobody plays the clock";
        usleep(1000);
    }
    const uint32_t monotonic = Milliseconds();
    const uint32_t counted = block[counter];
    usleep(500000);
    const uint32_t monotonicPassed = Milliseconds() - monotonic;
    const uint32_t countedPassed = block[counter] - counted;
    EXPECT_GE(countedPassed + 100, monotonicPassed);
    EXPECT_GE(monotonicPassed + 100, countedPassed);
    block[control] = 0;
}
