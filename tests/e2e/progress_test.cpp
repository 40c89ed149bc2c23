// Progress reports: every number written, and everything that can be wrong with pipe and range.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "tests/e2e/runner.h"

namespace e2e {
namespace {

Scene WholeScene() {
    Scene scene;
    scene.micro = Pattern(6144);
    scene.camera = Pattern(64512 + 700, 1);
    scene.system = Pattern(1300, 2);
    return scene;
}

// A pipe whose reader holds it open from the beginning to the end. A writer may open it again
// before the reader has seen the end, so the numbers are compared as one text.
class Pipe {
  public:
    void Make(const Place& place) {
        const std::string path = place.work + "/pipe";
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        fd_ = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    std::string Take() {
        char buffer[4096];
        const ssize_t count = read(fd_, buffer, sizeof buffer);
        close(fd_);
        return {buffer, static_cast<size_t>(count > 0 ? count : 0)};
    }

  private:
    int fd_ = -1;
};

// Both targets with all numbers into a pipe; returns the seconds that it took.
double PlayAllInto(Case* it, int low, int high) {
    const Scene scene = WholeScene();
    const size_t total = scene.micro.size() + scene.camera.size() + scene.system.size();
    Transcript t({"all", "-p", "pipe", std::to_string(low), std::to_string(high)}, scene);
    t.Progress(total, low, high).Tell("m.update c.update done");
    it->kept = it->AllImages();
    it->steps = {{t, 0}};
    Pipe pipe;
    std::chrono::steady_clock::time_point start;
    std::chrono::duration<double> taken{};
    std::string positions;
    it->prepare = [&](const Place& place) {
        pipe.Make(place);
        start = std::chrono::steady_clock::now();
    };
    it->inspect = [&](const Place&) {
        taken = std::chrono::steady_clock::now() - start;
        positions = pipe.Take();
    };
    Play(*it);
    if (testing::Test::IsSkipped()) {
        return 1e9;
    }
    EXPECT_EQ(positions, t.positions());
    return taken.count();
}

TEST(Progress, EveryNumberReachesThePipeOverBothTargets) {
    Case it("progress-pipe", WholeScene());
    PlayAllInto(&it, 10, 90);
}

TEST(Progress, ARunInRealTimeTakesItsPausesAndTheTimeOfTheLine) {
    Case it("progress-real-time", WholeScene());
    it.unit.insert(it.unit.end(), {"--baud", "115200"});
    it.delay_percent = 100;
    // Four pauses of three seconds, and the images' bytes at 11 bit times each. The last block of
    // the microcontroller is acknowledged up to ten milliseconds early.
    EXPECT_GE(PlayAllInto(&it, 0, 100), 4 * 3 + (6144 + 65212 + 1300) * 11 / 115200.0 - 0.01);
}

TEST(Progress, TroubleWithPipeOrRangeNeverTouchesTheUpdate) {
    std::string path;
    for (int i = 0; i < 123; i++) {
        path += "./";
    }
    const struct {
        const char* name;
        std::string path;
        const char* low;
        const char* high;
        int low_value;
        int high_value;
        const char* trouble = "";
        const char* position = "";  // what the file of that name holds at the end
    } cases[] = {
        {"progress-file", "position", "0", "100", 0, 100, "", "100"},
        {"progress-longest-path", path + "/position", "0", "100", 0, 100, "", "100"},
        {"progress-long-path", path + "//position", "0", "100", 0, 0, "pipe-long"},
        {"progress-full-disk", "/dev/full", "0", "100", 0, 100, "pipe-write"},
        {"progress-no-folder", "nowhere/pipe", "0", "100", 0, 100, "pipe-open"},
        {"progress-directory", ".", "0", "100", 0, 100, "pipe-open"},
        {"progress-reversed", "position", "100", "0", 100, 0, "", "92"},
        {"progress-negative", "position", "-50", "50", -50, 50, "", "50"},
        {"progress-below-zero", "position", "-100", "-1", -100, -1},
        {"progress-no-numbers", "position", "low", "high", 0, 0},
        {"progress-half-numbers", "position", "10low", "20", 10, 20, "", "20"},
    };
    for (const auto& pipe : cases) {
        const Scene scene = WholeScene();
        Case it(pipe.name, scene);
        it.kept = {{"kestrelmicro.bin", scene.micro}};
        Transcript t({"micro", "-p", pipe.path, pipe.low, pipe.high}, scene);
        if (pipe.path.size() > 255) {
            t.Say(pipe.trouble);
        }
        t.Progress(scene.micro.size(), pipe.low_value, pipe.high_value, pipe.trouble, pipe.path);
        it.steps = {{t.Tell("m.update done"), 0}};
        it.inspect = [&](const Place& place) {
            std::ifstream file(place.work + "/position");
            std::string text;
            file >> text;
            EXPECT_EQ(text, pipe.position) << pipe.name;
        };
        Play(it);
    }
}

TEST(Progress, AReaderThatGoesAwayAgainAndAgainDoesNotEndTheUpdate) {
    const Scene scene = WholeScene();
    Case it("progress-reader-gone", scene);
    it.kept = {{"kestrelmicro.bin", scene.micro}};
    it.unsteady = {"progressCtrlSetPos: could not write"};
    Transcript t({"micro", "-p", "pipe", "0", "100"}, scene);
    t.Progress(scene.micro.size(), 0, 100).Tell("m.update done");
    it.steps = {{t, 0}};
    std::atomic<bool> done = false;
    std::thread reader;
    it.prepare = [&](const Place& place) {
        const std::string path = place.work + "/pipe";
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        done = false;
        reader = std::thread([&done, path] {
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
    it.Run({"all", "-p", "position", "0", "100"}, 255,
           "say:cannot-stat,overlookcam.bin m.open m.ask say:micro-no-file closed:1 c.open "
           "say:count-blocks say:image-size,overlooksys.bin,200 c.request c.unit:13 c.reply "
           "c.verdict say:no-file,overlookcam.bin say:come-up c.no-file");
    it.inspect = [](const Place& place) {
        EXPECT_NE(access((place.work + "/position").c_str(), F_OK), 0);
    };
    Play(it);
}

}  // namespace
}  // namespace e2e
