// Progress reports: every number written, and everything that can be wrong with pipe and range.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "tests/e2e/runner.h"
#include "tests/support/eventually.h"

namespace e2e {
namespace {

std::string MakePipe(const Place& place) {
    const std::string path = place.work + "/pipe";
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    return path;
}

// Both targets with all numbers into a pipe, whose reader holds it open from the beginning to the
// end. A writer may open it again before the reader has seen the end, so the numbers are compared
// as one text. Returns the milliseconds that it took.
double PlayAllInto(Case it, const Words& range, const std::string& positions) {
    it.Keep({"kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin"});
    it.Run({"all", "-p", "pipe", range[0], range[1]}, 0, "m.update c.update done");
    it.unsteady = "percentdone";
    int pipe = -1;
    char seen[4096] = {};
    it.prepare = [&](const Place& place) {
        pipe = open(MakePipe(place).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
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

TEST(Progress, TroubleWithPipeOrRangeNeverTouchesTheUpdate) {
    const struct {
        const char* name;
        const char* path;
        const char* low;
        const char* high;
        const char* position;  // what the file of that name holds at the end
    } cases[] = {
        {"progress-file", "position", "0", "100", "100"},
        {"progress-full-disk", "/dev/full", "0", "100", ""},
        {"progress-reversed", "position", "100", "0", "15"},
        {"progress-negative", "position", "-50", "50", "50"},
        {"progress-no-numbers", "position", "low", "10high", "10"},
    };
    for (const auto& pipe : cases) {
        Case it(pipe.name, {});
        it.Keep({"kestrelmicro.bin"});
        it.unsteady = "percentdone|could not write /dev/full";
        it.Run({"micro", "-p", pipe.path, pipe.low, pipe.high}, 0, "m.update done");
        std::string position;
        it.inspect = [&](const Place& place) {
            std::ifstream(place.work + "/position") >> position;
        };
        Play(it);
        EXPECT_TRUE(testing::Test::IsSkipped() || position == pipe.position) << position;
    }
}

TEST(Progress, AReaderThatGoesAwayAgainAndAgainDoesNotEndTheUpdate) {
    Scene scene;
    scene.micro = Pattern(6144);
    Case it("progress-reader-gone", scene);
    it.Keep({"kestrelmicro.bin"});
    it.unsteady = "percentdone|could not write";
    it.Run({"micro", "-p", "pipe", "0", "100"}, 0, "m.update done");
    std::atomic<bool> done = false;
    std::thread reader;
    it.prepare = [&](const Place& place) {
        done = false;
        reader = std::thread([&done, path = MakePipe(place)] {
            while (!done) {
                close(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
                usleep(50);
            }
        });
    };
    it.inspect = [&](const Place&) {
        done = true;
        reader.join();
    };
    Play(it);
}

TEST(Progress, AMissingImageSwitchesReportsOffAndNamesTheLastOne) {
    Case it("progress-cannot-stat", {});
    it.files.erase("kestrelmicro.bin");
    it.files.erase("overlookcam.bin");
    it.Run({"all", "-p", "/nowhere/pipe", "0", "100"}, 255,
           "cannot-stat:overlookcam.bin m.open m.ask micro-no-file closed:1 c.open count-blocks "
           "image-size:overlooksys.bin,200 c.request c.reply c.verdict no-file:overlookcam.bin "
           "come-up c.no-file");
    Play(it);
}

}  // namespace
}  // namespace e2e
