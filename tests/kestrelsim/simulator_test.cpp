// The simulator as a whole, on its own pseudo-terminals and on an attached socket.
#include "tools/kestrelsim/simulator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/eventually.h"

namespace kestrelsim {
namespace {

// A simulator in a thread of its own; ended and taken down by Stop.
class Running {
  public:
    explicit Running(SimulatorOptions options, const std::vector<const char*>& texts = {}) {
        folder_ = (std::filesystem::temp_directory_path() / "simtest.XXXXXX").string();
        EXPECT_NE(mkdtemp(folder_.data()), nullptr);
        options.folder = folder_ + "/dev";
        for (const char* text : texts) {
            faults_.Add(text);
        }
        StateOptions state;
        state.folder = folder_ + "/state";
        state_.emplace(state);
        log_.emplace(folder_ + "/log");
        simulator_.emplace(options, &*state_, &faults_, &*log_);
        EXPECT_EQ(pipe(stop_), 0);
        thread_ = std::thread([this] { simulator_->Run(stop_[0]); });
    }
    ~Running() {
        Stop();
        std::filesystem::remove_all(folder_);
    }
    void Stop() {
        if (thread_.joinable()) {
            EXPECT_EQ(write(stop_[1], "x", 1), 1);
            thread_.join();
            close(stop_[0]);
            close(stop_[1]);
        }
    }
    int Open(int port) const {
        return open((folder_ + "/dev/" + NodeName(port)).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    // What the log says of a port: "rx", "tx" or the event, in order.
    std::string Story(int port) const {
        std::string story;
        std::ifstream file(folder_ + "/log");
        for (std::string line; std::getline(file, line);) {
            const auto event = nlohmann::json::parse(line);
            if (event.value("port", -1) == port) {
                story += (story.empty() ? "" : ", ") +
                         event.value("dir", event.value("event", "")) +
                         (event.contains("refused") ? " refused" : "");
            }
        }
        return story;
    }
    const std::string& folder() const { return folder_; }
    Simulator* operator->() { return &*simulator_; }
    void Destroy() { simulator_.reset(); }

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

TEST(Simulator, ServesBothUnitsAndSeesEveryOpeningAndClosing) {
    Running running({});
    const int micro = running.Open(1);
    Say(micro, kVersionRequest);
    EXPECT_EQ(Hear(micro, 15), kVersionReply);
    close(micro);
    const int camera = running.Open(0);
    Say(camera, "820677");
    EXPECT_EQ(Hear(camera, 13), "a04f564c4b3230303031303030");
    Say(camera, "8743");
    close(camera);
    running.Stop();
    EXPECT_EQ(running.Story(1), "opened, rx, tx, closed");
    EXPECT_EQ(running.Story(0), "opened, rx, tx, rx refused, closed");
    EXPECT_EQ(running->refusals(), 1);
    running.Destroy();
    EXPECT_FALSE(std::filesystem::exists(running.folder() + "/dev")) << "nodes left behind";
}

TEST(Simulator, AHostThatLeavesTakesItsUnreadAnswersWithIt) {
    Running running({}, {"duplicate times=1", "late ms=60000 times=1"});
    int fd = running.Open(1);
    Say(fd, kVersionRequest);
    close(fd);
    fd = running.Open(1);
    Say(fd, kVersionRequest);
    EXPECT_EQ(Hear(fd, 15), kVersionReply);
    EXPECT_EQ(Hear(fd, 1, 50), "");
    close(fd);
}

TEST(Simulator, ALineGoesAwayAtItsByteAndTheOtherStays) {
    Running running({}, {"close unit=micro at=12"});
    const int fd = running.Open(1);
    Say(fd, kVersionRequest);
    EXPECT_EQ(Hear(fd, 15), kVersionReply) << "one byte before the end";
    EXPECT_EQ(write(fd, "\xFF", 1), 1);
    EXPECT_EQ(Hear(fd, 1), "");
    EXPECT_TRUE(Eventually([fd] { return write(fd, "x", 1) == -1; })) << "the line is not gone";
    close(fd);
    EXPECT_EQ(running.Open(1), -1) << "and so is its node";
    close(running.Open(0));
}

TEST(Simulator, APacedLineTakesTheTimeOfItsBytesInBothDirections) {
    SimulatorOptions options;
    options.baud = 9600;
    options.patience_ms = 0;
    Running running(options);
    const int fd = running.Open(1);
    const Nanos start = MonotonicNow();
    Say(fd, kVersionRequest);
    EXPECT_EQ(Hear(fd, 15), kVersionReply);
    EXPECT_GE(MonotonicNow() - start, Nanos{11 + 15} * 11 * kSecond / 9600);
    close(fd);
}

TEST(Simulator, PatienceAnswersEarlyButHoldsTheNextWrite) {
    SimulatorOptions options;
    options.baud = 300;
    options.patience_ms = 1;
    Running running(options);
    const int fd = running.Open(1);
    const Nanos line_time = Nanos{11} * 11 * kSecond / 300;
    const Nanos start = MonotonicNow();
    Say(fd, kVersionRequest);
    Hear(fd, 1);
    Say(fd, kVersionRequest);
    EXPECT_GE(MonotonicNow() - start, line_time) << "the line was still busy";
    close(fd);
}

TEST(Simulator, RunsOverALineThatIsAlreadyThere) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    SimulatorOptions options;
    options.attach[1] = "fd:" + std::to_string(pair[1]);
    Running running(options);
    Say(pair[0], kVersionRequest);
    EXPECT_EQ(Hear(pair[0], 15), kVersionReply);
    EXPECT_EQ(running.Open(1), -1) << "an attached line has no node";
    close(pair[0]);
    close(pair[1]);
    running.Stop();
    EXPECT_EQ(running.Story(1), "rx, tx, the attached line ended");
}

}  // namespace
}  // namespace kestrelsim
