// The simulator as a program: how it begins, what it refuses, its pace, how it ends.
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>

#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/folder.h"
#include "tools/kestrelsim/bytes.h"

namespace {

TEST(SimulatorProgram, EndsWithAWordAboutWhatItCannotDo) {
    const struct {
        WordsT words;
        std::string script;
        int status;
        const char* error;
    } cases[] = {
        {{"--exit-when-idle", "0.01", "--fault", "late ms=86400000"}, "", 0, ""},
        {{"--exit-when-idle", "1e300"}, "", 2, "--exit-when-idle"},
        {{"--log", "/dev/full"}, "", 1, "cannot write the log /dev/full: No space left"},
        {{"--fault", "late ms=86400001"}, "", 2, "ms is not a number from 0 to 86400000: "},
        {{"--fault", "corrupt value=-1"}, "", 2, "value is not a number from 0 to 255: "},
        {{"--fault", "noise count=2x"}, "", 2, "count is not a number from 0 to 1000000: "},
        {{}, R"({"faults": [{"fault": "corrupt", "value": 256}]})", 2, "value is not a number"},
        {{}, R"({"faults": [{"fault": "late", "ms": 18446744073709551615}]})", 2, "ms is not"},
        {{}, R"({"seed": 4294967296})", 2, "seed is not a number from 0 to 4294967295"},
        {{}, R"({"faults": {}})", 2, "a script holds \"seed\" and \"faults\", not: faults"},
        {{}, R"({"faults": )" + std::string(100000, '['), 2, "nested too deep"},
    };
    const FolderT folder;
    for (const auto& it : cases) {
        WordsT words = {KESTRELSIM, "--dir", folder.Path("dev")};
        words.insert(words.end(), it.words.begin(), it.words.end());
        if (!it.script.empty()) {
            folder.Put("script", it.script);
            words.insert(words.end(), {"--script", folder.Path("script")});
        }
        Child simulator(UserT::kPipes, words);
        EXPECT_EQ(simulator.End(), it.status) << testing::PrintToString(words);
        EXPECT_NE(simulator.error.find(it.error), std::string::npos) << simulator.error;
        EXPECT_EQ(simulator.error.empty(), it.status == 0) << simulator.error;
        EXPECT_FALSE(std::filesystem::exists(folder.Path("dev")));
    }
}

TEST(SimulatorProgram, AFolderIsOneSimulatorsAtATime) {
    const FolderT folder;
    const std::string node = folder.Path("dev/fpgaserial1");
    const WordsT words = {KESTRELSIM, "--dir", folder.Path("dev")};
    for (const int end : {SIGKILL, SIGTERM}) {
        Child first(UserT::kPipes, words);
        ASSERT_TRUE(first.Sees("ready")) << "after one that was killed: " << first.error;
        const auto device = std::filesystem::read_symlink(node);
        Child second(UserT::kPipes, words);
        EXPECT_EQ(second.End(), 1);
        EXPECT_NE(second.error.find("another simulator"), std::string::npos) << second.error;
        EXPECT_EQ(std::filesystem::read_symlink(node), device);
        first.Signal(end);
        EXPECT_EQ(first.End(), end == SIGKILL ? -SIGKILL : 0);
    }
}

// A simulator of a test's own, and the microcontroller's line as its host has it.
class RunningT {
  public:
    explicit RunningT(const WordsT& options) {
        WordsT words = {KESTRELSIM, "--dir", folder_.Path("dev"), "--log", "/proc/self/fd/1"};
        words.insert(words.end(), options.begin(), options.end());
        simulator_.emplace(UserT::kPipes, words);
        EXPECT_TRUE(simulator_->Sees("ready in")) << simulator_->error;
        Open();
    }
    ~RunningT() { close(line_); }
    void Open() {
        line_ = open(folder_.Path("dev/fpgaserial1").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    // Returns once the simulator has seen it.
    void Close() {
        close(line_);
        EXPECT_TRUE(simulator_->Sees("\"event\":\"closed\""));
    }

    void AskForTheVersion() const {
        EXPECT_EQ(write(line_, "\xFF\x44\x00\x04\x01\xFE\x01\xFE\x01\xFE\x01", 11), 11);
    }
    // `count` bytes, or what came until the line ended or was silent for `wait_ms`.
    std::string Hear(size_t count, int wait_ms = 20000) const {
        kestrelsim::Bytes bytes;
        pollfd polled = {line_, POLLIN, 0};
        for (uint8_t byte = 0;
             bytes.size() < count && poll(&polled, 1, wait_ms) > 0 && read(line_, &byte, 1) == 1;) {
            bytes.push_back(byte);
        }
        return kestrelsim::ToHex(bytes);
    }

  private:
    const FolderT folder_;
    std::optional<Child> simulator_;
    int line_ = -1;
};

constexpr char kVersionReply[] = "ff14000d106b65737472656c73696d";
const WordsT kSlowly = {"--baud", "1200", "--patience", "0", "--fault", "split ms=0"};

TEST(Simulator, ALineIsBusyForTheTimeOfItsBytesEvenBehindAnEarlyAnswer) {
    constexpr double kByte = 11 * 1000.0 / 1200;
    const struct {
        WordsT options;
        size_t heard;
        double least;  // milliseconds before the next request is taken
    } cases[] = {{kSlowly, 15, (11 + 15) * kByte},
                 {{"--baud", "1200", "--patience", "1"}, 1, 11 * kByte},
                 {{"--fault", "split ms=10"}, 15, 14 * 10}};
    for (const auto& it : cases) {
        const RunningT running(it.options);
        const double taken = MillisecondsOf([&] {
            running.AskForTheVersion();
            EXPECT_EQ(running.Hear(it.heard), std::string(kVersionReply, 2 * it.heard));
            running.AskForTheVersion();
        });
        EXPECT_GE(taken, it.least);
    }
}

// An answer may be on its way in three places when the host leaves without it: not due yet, on the
// paced line, in the terminal.
TEST(Simulator, AnAnswerThatWasNotReadIsNotTheNextHosts) {
    const struct {
        WordsT options;
        size_t heard;  // of the answer, when the host leaves
    } cases[] = {{{"--fault", "late ms=400 times=1"}, 0}, {kSlowly, 1}, {{}, 1}};
    for (const auto& it : cases) {
        RunningT running(it.options);
        running.AskForTheVersion();
        running.Hear(it.heard);
        running.Close();
        running.Open();
        running.AskForTheVersion();
        EXPECT_EQ(running.Hear(30, 600), kVersionReply) << testing::PrintToString(it.options);
    }
}

}  // namespace
