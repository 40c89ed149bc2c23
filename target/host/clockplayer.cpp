// clockplayer FILE LOG [PERCENT] : plays the board's real-time-clock block in a page of memory that
// it shares with the emulated machine, outside of which it runs. The page holds the block's six
// 32-bit registers, big-endian, at offset 0x300, as the guest sees them.
//
// Until the guest enables the clock, the control, load and prescale registers hold a mark, so that
// a write of any other value is seen. From then on the counter counts up from the load value, once
// in prescale + 1 cycles of the input clock; PERCENT of real speed (100 unless given) tells the
// guest's use of this counter from its use of any other clock. Writing 0 to the control register
// stops it and marks the registers anew. Each change is a line of the log: register, value.
//
// The changes of one poll come in the order of the registers, not of the writes: the order is not
// to be seen from here.
#include <endian.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

constexpr size_t kPageSize = 4096;
constexpr size_t kBlockOffset = 0x300;
constexpr uint32_t kMark = 0xA5A5A5A5;
constexpr uint32_t kEnable = 0x80;
constexpr double kInputClockHz = 266666664.0;
constexpr long kPollNanoseconds = 100000;

enum Register { kControl, kLoad, kPrescale, kCounter, kRegisters };
constexpr const char* kNames[kRegisters] = {"cnr", "ldr", "psr", "ctr"};
constexpr Register kWatched[] = {kPrescale, kLoad, kControl};

double Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

class Player {
  public:
    Player(void* page, FILE* log, double speed)
        : block_(reinterpret_cast<std::atomic<uint32_t>*>(static_cast<char*>(page) + kBlockOffset)),
          log_(log),
          speed_(speed) {
        Mark();
    }

    void Poll() {
        const bool wasRunning = running_;
        for (const Register watched : kWatched) {
            const uint32_t value = Get(watched);
            if (value != last_[watched]) {
                last_[watched] = value;
                fprintf(log_, "%s %u\n", kNames[watched], value);
                fflush(log_);
            }
        }
        running_ = last_[kControl] != kMark && (last_[kControl] & kEnable) != 0;
        if (running_ && !wasRunning) {
            start_ = Now();
        }
        if (running_) {
            const double hertz = kInputClockHz / (static_cast<double>(last_[kPrescale]) + 1);
            const double counts = (Now() - start_) * speed_ * hertz;
            Set(kCounter, last_[kLoad] + static_cast<uint32_t>(static_cast<uint64_t>(counts)));
        } else if (last_[kControl] == 0) {
            Mark();
        }
    }

  private:
    uint32_t Get(Register which) const {
        return be32toh(block_[which].load(std::memory_order_acquire));
    }
    void Set(Register which, uint32_t value) {
        block_[which].store(htobe32(value), std::memory_order_release);
    }
    void Mark() {
        for (const Register watched : kWatched) {
            Set(watched, kMark);
            last_[watched] = kMark;
        }
        Set(kCounter, 0);
    }

    std::atomic<uint32_t>* block_;
    FILE* log_;
    double speed_;
    uint32_t last_[kRegisters] = {};
    bool running_ = false;
    double start_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4) {
        fputs("usage: clockplayer FILE LOG [PERCENT]\n", stderr);
        return 2;
    }
    const int fd = open(argv[1], O_RDWR | O_CLOEXEC);
    FILE* log = fopen(argv[2], "we");
    void* page =
        fd < 0 ? MAP_FAILED : mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (page == MAP_FAILED || log == nullptr) {
        perror(argv[1]);
        return 1;
    }
    Player player(page, log, argc == 4 ? atof(argv[3]) / 100 : 1);
    for (;;) {
        player.Poll();
        const timespec pause{.tv_sec = 0, .tv_nsec = kPollNanoseconds};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
    }
}
