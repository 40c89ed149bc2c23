// Progress reports: every number written, and a run in real time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/runner.h"
#include "tests/support/eventually.h"

namespace e2e {
namespace {

// Both targets with all numbers into a pipe, whose reader holds it open from the beginning to the
// end. A writer may open it again before the reader has seen the end, so the numbers are compared
// as one text. Returns the milliseconds that it took.
double PlayAllInto(Case it, const Words& range, const std::string& positions) {
    it.kept = kAllImages;
    it.Run({"all", "-p", "pipe", range[0], range[1]}, 0, "m.update c.update done");
    int pipe = -1;
    char seen[4096] = {};
    it.prepare = [&](const Place& place) {
        const std::string path = place.work + "/pipe";
        mkfifo(path.c_str(), 0600);
        pipe = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    };
    it.inspect = [&](const Place&) {
        // An attempt on too slow a machine may end before the first number.
        const ssize_t size = read(pipe, seen, sizeof seen - 1);
        seen[size > 0 ? size : 0] = '\0';
        close(pipe);
    };
    const double taken = MillisecondsOf([&] { Play(it); });
    EXPECT_TRUE(testing::Test::IsSkipped() || seen == positions) << seen;
    return taken;
}

TEST(Progress, EveryNumberReachesThePipeOverBothTargets) {
    Scene scene;
    scene.micro = Pattern(6144);
    scene.camera = Pattern(64512 + 700, 1);
    scene.system = Pattern(1300, 2);
    PlayAllInto(Case("progress-pipe", scene), {"10", "90"}, "10111213141516878890");
}

TEST(Progress, ARunInRealTimeTakesItsPausesAndTheTimeOfTheLine) {
    Case it("progress-real-time", {});
    it.unit.insert(it.unit.end(), {"--baud", "115200"});
    it.delay_percent = 100;
    // Four pauses of three seconds, and the images' bytes at 11 bit times each. The last block of
    // the microcontroller is acknowledged up to ten milliseconds early.
    EXPECT_GE(PlayAllInto(it, {"0", "100"}, "465481100"),
              4 * 3000 + (600 + 300 + 200) * 11 / 115.2 - 10);
}

}  // namespace
}  // namespace e2e
