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

const Micro kMicro = {Pattern(6144)};
const Camera kCamera = {Pattern(64512 + 700, 1), Pattern(1300, 2)};

Case ProgressCase(const std::string& name) {
    Case it;
    it.name = "progress-" + name;
    it.files = {{"kestrelmicro.bin", kMicro.image},
                {"overlookcam.bin", kCamera.camera},
                {"overlooksys.bin", kCamera.system},
                {"overlookcamver", kCamera.new_camera},
                {"overlooksysver", kCamera.new_system}};
    it.unit = {"--micro-version", "0x12"};
    it.kept = {{"kestrelmicro.bin", kMicro.image}};
    return it;
}

size_t TotalSize() {
    return kMicro.image.size() + kCamera.camera.size() + kCamera.system.size();
}

// A pipe whose reader holds it open from the beginning to the end. A writer may open it again
// before the reader has seen the end, so the numbers are compared as one text.
struct Pipe {
    int fd = -1;

    void Make(const Place& place) {
        const std::string path = place.work + "/pipe";
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    std::string Take() {
        char buffer[4096];
        const ssize_t count = read(fd, buffer, sizeof buffer);
        close(fd);
        return {buffer, static_cast<size_t>(count > 0 ? count : 0)};
    }
};

TEST(Progress, EveryNumberReachesThePipeOverBothTargets) {
    Case it = ProgressCase("pipe");
    it.kept.insert({{"overlookcam.bin", kCamera.camera}, {"overlooksys.bin", kCamera.system}});
    Transcript t({"all", "-p", "pipe", "10", "90"});
    t.Progress(TotalSize(), 10, 90);
    kMicro.Update(&t);
    kCamera.Update(&t);
    it.steps = {{t.Executed(true), 0}};
    Pipe pipe;
    it.prepare = [&](const Place& place) { pipe.Make(place); };
    it.inspect = [&](const Place&) { EXPECT_EQ(pipe.Take(), t.positions()); };
    Play(it);
}

// The designed pauses in full, on a line as fast as the real one.
TEST(Progress, ARunInRealTimeTakesItsPausesAndTheTimeOfTheLine) {
    Case it = ProgressCase("real-time");
    it.kept.insert({{"overlookcam.bin", kCamera.camera}, {"overlooksys.bin", kCamera.system}});
    it.unit.insert(it.unit.end(), {"--baud", "115200"});
    it.delay_percent = 100;
    Transcript t({"all", "-p", "pipe", "0", "100"});
    t.Progress(TotalSize(), 0, 100);
    kMicro.Update(&t);
    kCamera.Update(&t);
    it.steps = {{t.Executed(true), 0}};
    Pipe pipe;
    std::chrono::steady_clock::time_point start;
    it.prepare = [&](const Place& place) {
        pipe.Make(place);
        start = std::chrono::steady_clock::now();
    };
    it.inspect = [&](const Place&) {
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        // The last block of the microcontroller is acknowledged up to ten milliseconds early.
        EXPECT_GE(taken.count(), 3 + 3 * 3 + static_cast<double>(TotalSize()) * 11 / 115200 - 0.01);
        EXPECT_EQ(pipe.Take(), t.positions());
    };
    Play(it);
}

struct PipeCase {
    const char* name;
    std::string path;
    const char* low;
    const char* high;
    int low_value;
    int high_value;
    const char* trouble = "";
    Words unsteady;
    std::string file_holds;  // of "position", when it is the path
};

const PipeCase kPipeCases[] = {
    {"file", "position", "0", "100", 0, 100, "", {}, "100"},
    {"full-disk", "/dev/full", "0", "100", 0, 100, "pipe-write", {}, ""},
    {"no-folder", "nowhere/pipe", "0", "100", 0, 100, "pipe-open", {}, ""},
    {"folder", ".", "0", "100", 0, 100, "pipe-open", {}, ""},
    {"reversed", "position", "100", "0", 100, 0, "", {}, "92"},
    {"negative", "position", "-50", "50", -50, 50, "", {}, "50"},
    {"below-zero", "position", "-100", "-1", -100, -1, "", {}, ""},
    {"no-numbers", "position", "low", "high", 0, 0, "", {}, ""},
    {"half-numbers", "position", "10low", "20", 10, 20, "", {}, "20"},
};

TEST(Progress, TroubleWithPipeOrRangeNeverTouchesTheUpdate) {
    for (const PipeCase& pipe : kPipeCases) {
        Case it = ProgressCase(pipe.name);
        Transcript t({"micro", "-p", pipe.path, pipe.low, pipe.high});
        t.Progress(kMicro.image.size(), pipe.low_value, pipe.high_value, pipe.trouble, pipe.path);
        kMicro.Update(&t);
        it.steps = {{t.Executed(true), 0}};
        it.inspect = [&](const Place& place) {
            std::ifstream file(place.work + "/position");
            std::string text;
            file >> text;
            EXPECT_EQ(text, pipe.file_holds) << pipe.name;
        };
        Play(it);
    }
}

TEST(Progress, APathThatDoesNotFitIsRefusedAndTheUpdateGoesOn) {
    std::string path;
    for (int i = 0; i < 126; i++) {
        path += "./";
    }
    for (const bool fits : {true, false}) {
        const std::string name = path + (fits ? "pos" : "posi");
        ASSERT_EQ(name.size(), fits ? 255U : 256U);
        Case it = ProgressCase(fits ? "longest" : "too-long");
        Transcript t({"micro", "-p", name, "0", "100"});
        if (fits) {
            t.Progress(kMicro.image.size(), 0, 100);
        } else {
            t.Say("pipe-long");
        }
        kMicro.Update(&t);
        it.steps = {{t.Executed(true), 0}};
        it.inspect = [&](const Place& place) {
            EXPECT_EQ(access((place.work + "/pos").c_str(), F_OK) == 0, fits);
            EXPECT_NE(access((place.work + "/posi").c_str(), F_OK), 0);
        };
        Play(it);
    }
}

TEST(Progress, AReaderThatGoesAwayAgainAndAgainDoesNotEndTheUpdate) {
    Case it = ProgressCase("reader-gone");
    it.unsteady = {"progressCtrlSetPos: could not write"};
    Transcript t({"micro", "-p", "pipe", "0", "100"});
    t.Progress(kMicro.image.size(), 0, 100);
    kMicro.Update(&t);
    it.steps = {{t.Executed(true), 0}};
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
    Case it = ProgressCase("cannot-stat");
    it.files.erase("kestrelmicro.bin");
    it.files.erase("overlookcam.bin");
    it.kept.clear();
    Transcript t({"all", "-p", "position", "0", "100"});
    t.Say("cannot-stat", {"overlookcam.bin"});
    kMicro.Open(&t);
    kMicro.Ask(&t);
    t.Say("micro-no-file").Event(1, "closed");
    kCamera.Open(&t);
    t.Say("count-blocks").Say("image-size", {"overlooksys.bin", "1300"});
    t.Host(0, "\x82\x06\x77").Say("await-device-type");
    kCamera.Reply(&t);
    kCamera.Verdict(&t);
    t.Say("no-file", {"overlookcam.bin"}).Say("come-up").Say("camera-failed", {"ffffffdc"});
    it.steps = {{t.Event(0, "closed").Executed(false), 255}};
    it.inspect = [](const Place& place) {
        EXPECT_NE(access((place.work + "/position").c_str(), F_OK), 0);
    };
    Play(it);
}

}  // namespace
}  // namespace e2e
