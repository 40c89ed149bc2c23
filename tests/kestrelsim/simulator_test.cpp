// The pace of the simulator as a whole.
#include "tools/kestrelsim/simulator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace kestrelsim {
namespace {

// A simulator in a thread of its own.
class Running {
  public:
    Running(SimulatorOptions options, const char* fault) {
        folder_ = (std::filesystem::temp_directory_path() / "simtest.XXXXXX").string();
        EXPECT_NE(mkdtemp(folder_.data()), nullptr);
        options.folder = folder_ + "/dev";
        faults_.Add(fault);
        StateOptions state;
        state.folder = folder_ + "/state";
        state_.emplace(state);
        log_.emplace(folder_ + "/log");
        simulator_.emplace(options, &*state_, &faults_, &*log_);
        EXPECT_EQ(pipe(stop_), 0);
        thread_ = std::thread([this] { simulator_->Run(stop_[0]); });
    }
    ~Running() {
        EXPECT_EQ(write(stop_[1], "x", 1), 1);
        thread_.join();
        close(stop_[0]);
        close(stop_[1]);
        std::filesystem::remove_all(folder_);
    }
    int Open(int port) const {
        return open((folder_ + "/dev/" + NodeName(port)).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }

    // The host's end of a line, once the simulator has seen it go.
    void Close(int fd) const {
        close(fd);
        std::string line;
        for (std::ifstream log(folder_ + "/log");
             line.find("\"event\":\"closed\"") == std::string::npos;) {
            if (!std::getline(log, line)) {
                log.clear();
                std::this_thread::yield();
            }
        }
    }

  private:
    std::string folder_;
    Faults faults_;
    std::optional<State> state_;
    std::optional<EventLog> log_;
    std::optional<Simulator> simulator_;
    int stop_[2] = {-1, -1};
    std::thread thread_;
};

void Say(int fd, const std::string& hex) {
    const Bytes bytes = FromHex(hex).value();
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// `count` bytes, or what came until the line ended or was silent for `wait_ms`.
std::string Hear(int fd, size_t count, int wait_ms = 20000) {
    Bytes bytes;
    pollfd polled = {fd, POLLIN, 0};
    while (bytes.size() < count && poll(&polled, 1, wait_ms) > 0) {
        uint8_t byte = 0;
        if (read(fd, &byte, 1) != 1) {
            break;
        }
        bytes.push_back(byte);
    }
    return ToHex(bytes);
}

const char kVersionRequest[] = "FF 44 00 04 01 FE01 FE01 FE01";
const char kVersionReply[] = "ff14000d106b65737472656c73696d";

TEST(Simulator, ALineIsBusyForTheTimeOfItsBytesEvenBehindAnEarlyAnswer) {
    constexpr Nanos kByte = 11 * kSecond / 1200;
    const struct {
        int baud;
        int patience_ms;
        const char* fault;
        size_t heard;
        Nanos least;  // before the next request is taken
    } cases[] = {{1200, 0, "split ms=0", 15, (11 + 15) * kByte},
                 {1200, 1, "drop answer=block", 1, 11 * kByte},
                 {0, 0, "split ms=10", 15, 14 * 10 * kMillisecond}};
    for (const auto& it : cases) {
        SimulatorOptions options;
        options.baud = it.baud;
        options.patience_ms = it.patience_ms;
        Running running(options, it.fault);
        const int fd = running.Open(1);
        const Nanos start = MonotonicNow();
        Say(fd, kVersionRequest);
        EXPECT_EQ(Hear(fd, it.heard), std::string(kVersionReply, 2 * it.heard));
        Say(fd, kVersionRequest);
        EXPECT_GE(MonotonicNow() - start, it.least);
        close(fd);
    }
}

// An answer may be on its way in three places when the host leaves without it: not due yet, on the
// paced line, in the terminal.
TEST(Simulator, AnAnswerThatWasNotReadIsNotTheNextHosts) {
    const struct {
        int baud;
        const char* fault;
        bool begun;  // some of the answer has arrived when the host leaves
    } cases[] = {
        {0, "late ms=400 times=1", false}, {1200, "split ms=0", true}, {0, "split ms=0", true}};
    for (const auto& it : cases) {
        SimulatorOptions options;
        options.baud = it.baud;
        options.patience_ms = 0;
        Running running(options, it.fault);
        const int first = running.Open(1);
        Say(first, kVersionRequest);
        pollfd arrived = {first, POLLIN, 0};
        EXPECT_TRUE(!it.begun || poll(&arrived, 1, 20000) == 1);
        running.Close(first);
        const int second = running.Open(1);
        Say(second, kVersionRequest);
        EXPECT_EQ(Hear(second, 30, 600), kVersionReply) << it.fault << " at " << it.baud;
        close(second);
    }
}

}  // namespace
}  // namespace kestrelsim
