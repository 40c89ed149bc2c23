// Positions as the program at the other end of the pipe sees them.
#include "softupdate/progressctrl/progressctrl.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/eventually.h"

namespace {

// Reports a percentage; returns what was printed, and the result behind it.
std::string Report(int percent) {
    testing::internal::CaptureStdout();
    const int result = progressCtrlSetPos(percent);
    return testing::internal::GetCapturedStdout() + std::to_string(result);
}

TEST(ProgressCtrl, EachPositionIsOneOpeningOfThePipe) {
    char folder[] = "/tmp/harbor_progress_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    const std::string pipe = std::string(folder) + "/pipe";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    std::vector<std::string> seen;
    std::atomic<std::size_t> count{0};
    std::thread reader([&] {
        while (seen.empty() || seen.back() != "90") {
            const int fd = open(pipe.c_str(), O_RDONLY);
            char text[16];
            std::string number;
            for (ssize_t got; (got = read(fd, text, sizeof text)) > 0;) {
                number.append(text, static_cast<std::size_t>(got));
            }
            close(fd);
            seen.push_back(number);
            count = seen.size();
        }
    });
    ASSERT_EQ(0, progressCtrlInit(pipe.c_str(), 10, 90));
    std::size_t written = 0;
    for (const int percent : {0, 0, 1, 2, 50, 49, 51, 100, 100}) {
        written += Report(percent) != "0" ? 1 : 0;
        EXPECT_TRUE(Eventually([&] { return count == written; }));
    }
    reader.join();
    EXPECT_EQ((std::vector<std::string>{"10", "11", "50", "90"}), seen);
    unlink(pipe.c_str());
    rmdir(folder);
}

TEST(ProgressCtrl, PositionThatIsNotWrittenCountsAsReported) {
    progressCtrlInit("/nowhere/pipe", 0, 100);
    EXPECT_EQ("progressCtrlSetPos: could not open /nowhere/pipe\npercentdone: [1]\n1", Report(1));
    EXPECT_EQ("0", Report(1));
    // Text that fits the buffer of the stream meets a full disk only when the stream is closed.
    const std::string longest = std::string(246, '/') + "/dev/full";
    EXPECT_EQ(0, progressCtrlInit(longest.c_str(), 0, 100));
    EXPECT_EQ("progressCtrlSetPos: could not write " + longest + "\npercentdone: [100]\n1",
              Report(100));
}

}  // namespace
