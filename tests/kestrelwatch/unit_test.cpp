// Whole runs of the launcher with the real updater and the simulated unit: what its events promise,
// how well it foretells the end, and that being killed does no lasting harm.
#include "tests/kestrelwatch/unit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tests/support/eventually.h"

namespace {

using nlohmann::json;

std::vector<json> Events(const std::string& text) {
    std::vector<json> events;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        events.push_back(json::parse(line));
    }
    return events;
}

// How long in all a process that wants to run was kept waiting, in seconds.
class StolenTime {
  public:
    StolenTime() : thread_([this] { Run(); }) {}
    ~StolenTime() { Seconds(); }
    double Seconds() {
        if (thread_.joinable()) {
            stop_ = true;
            thread_.join();
        }
        return stolen_;
    }

  private:
    void Run() {
        while (!stop_) {
            const double ms =
                MillisecondsOf([] { std::this_thread::sleep_for(std::chrono::milliseconds(2)); });
            stolen_ += ms > 7 ? (ms - 2) / 1000 : 0;
        }
    }

    std::atomic<bool> stop_{false};
    double stolen_ = 0;
    std::thread thread_;
};

// On a line at its real speed. What the machine takes away from the unit is no fault of the
// estimate; a run in which an answer was missed for that is made again.
TEST(WatchUnit, TheTimeLeftIsRightWithinFivePercentFromTheFirstBlockOn) {
    for (int attempt = 0;; attempt++) {
        Unit unit({"--baud", "115200"});
        StolenTime stolen;
        Child launcher(UserT::kPipes, unit.Launcher({"--json", "../events", "all"}, 10));
        const int status = launcher.End();
        if (status != 0 && attempt < 5) {
            continue;
        }
        ASSERT_EQ(status, 0) << launcher.error;
        const double allowed = stolen.Seconds();
        const std::vector<json> events = Events(FileText(unit.Folder() + "/events"));
        const double end = events.back()["t"];
        std::int64_t acknowledged = 0;
        for (const json& event : events) {
            if (!event.contains("block")) {
                continue;
            }
            const double truth = end - event["t"].get<double>();
            const double left = event["left"];
            printf("%-32s %8.3f s left, in truth %8.3f s, %+.1f %%\n",
                   event["what"].get<std::string>().c_str(), left, truth, (left / truth - 1) * 100);
            EXPECT_NEAR(left, truth, 0.05 * truth + 0.05 + allowed);
            EXPECT_GE(event["acknowledged"].get<std::int64_t>(), acknowledged);
            acknowledged = event["acknowledged"];
            EXPECT_EQ(event["percent"], acknowledged * 100 / event["bytes"].get<std::int64_t>());
        }
        return;
    }
}

TEST(WatchUnit, EventsAndRecordTellTheWholeRunAndALineGivenByPortIsUsed) {
    Unit unit({});
    const std::string dev = unit.Folder() + "/dev/fpgaserial";
    WordsT words =
        unit.Launcher({"--json", "fd:1", "--record", "../record", "--port", "micro=" + dev + "1",
                       "--port", "camera=" + dev + "0", "--retries", "9", "--", "sh", "-c",
                       "exec kestrelflash \"$@\" >&2", "updater", "all"});
    words[4] =
        "PATH=" + std::filesystem::path(KESTRELWATCH).parent_path().string() + ":/usr/bin:/bin";
    Child launcher(UserT::kPipes, words);
    // The updater's lines are not seen this way, so nothing can be said of the unit.
    EXPECT_EQ(launcher.End(), 120);
    std::string kinds;
    for (const json& event : Events(launcher.output)) {
        kinds += event["event"].get<std::string>() + " ";
    }
    EXPECT_THAT(kinds, testing::StartsWith("start step plan step "));
    EXPECT_THAT(kinds, testing::EndsWith("verdict "));
    words = unit.Launcher({"--record", "../record", "--port", "micro=" + dev + "1", "--port",
                           "camera=" + dev + "0", "--retries", "9", "all"});
    words[4] = "HARBOR_DEV_DIR=";
    int status = -1;
    for (int attempt = 0; attempt < 8 && status != 0; attempt++) {
        Child second(UserT::kPipes, words);
        status = second.End();
    }
    EXPECT_EQ(status, 0);
    // A reboot is asked for where nothing needs an update, too.
    Child reboot(UserT::kPipes, unit.Launcher({"all", "rebootoverlook"}));
    EXPECT_EQ(reboot.End(), 0) << reboot.error;
    EXPECT_THAT(reboot.output, testing::HasSubstr("Successfully rebooting"));
    EXPECT_THAT(reboot.error, testing::HasSubstr("UP TO DATE, and the camera was asked to reboot"));
    EXPECT_EQ(unit.Holds(), "new new new");
    std::string last;
    for (const auto& file : std::filesystem::directory_iterator(unit.Folder() + "/record")) {
        last = std::max(last, file.path().string());
    }
    const std::vector<json> events = Events(FileText(last));
    EXPECT_EQ(events.at(1)["event"], "host");
    EXPECT_EQ(events.back()["cause"], "none");
    EXPECT_THAT(FileText(last), testing::HasSubstr("\"text\":\"Kestrel Microcontroller fw update"));
}

// Killed, it leaves the updater to go on and the lock in its hands; the next run finds the unit as
// it is and makes it whole. The record ends with a whole line, or with one that is cut.
TEST(WatchUnit, KilledAtAnyMomentAndRunAgainTheUnitIsUpdated) {
    std::mt19937 random(7);
    for (int round = 0; round < 6; round++) {
        Unit unit({});
        Child first(UserT::kPipes, unit.Launcher({"--json", "../events", "all"}, 10));
        usleep(static_cast<useconds_t>(random() % 2000000));
        first.Signal(SIGKILL);
        first.End();
        const std::string text = FileText(unit.Folder() + "/events");
        Events(text.substr(0, text.rfind('\n') + 1));
        int status = 119;
        for (int attempt = 0; attempt < 1000 && status != 0; attempt++) {
            usleep(status == 119 ? 50000 : 0);
            Child second(UserT::kPipes, unit.Launcher({"all"}));
            status = second.End();
            EXPECT_TRUE(status == 0 || status == 119 || attempt < 50) << second.error;
        }
        EXPECT_EQ(status, 0);
        EXPECT_EQ(unit.Holds(), "new new new");
    }
}

}  // namespace
