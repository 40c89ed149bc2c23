// The launcher's cores: positions out of digits, the updater's lines, the judgement, the bar.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tools/kestrelwatch/bar.h"
#include "tools/kestrelwatch/lines.h"
#include "tools/kestrelwatch/model.h"
#include "tools/kestrelwatch/presses.h"

namespace watch {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(WatchPositions, NumbersThatArriveTogetherAreToldApart) {
    std::string all;
    for (int i = 1; i <= 1000; i++) {
        all += std::to_string(i);
    }
    const struct {
        std::string run;
        int after;
        RangeT range;
        int last;
    } rows[] = {
        {"1213", 11, {0, 100}, 13},
        {all, 0, {0, 1000}, 1000},
        {"5051", 0, {50, 60}, 51},
        {"7", 9, {0, 100}, 9},                     // backwards
        {"101", 99, {0, 100}, 99},                 // beyond the end
        {"007", 0, {0, 100}, 0},                   // no number of the updater's
        {std::string(9000, '1'), 0, {0, 100}, 0},  // no run of the updater's
        {"515", 0, {50, 60}, 49},                  // no 5 and 15
        {"4294967297", 0, {0, 3}, 0},              // would be 1 in 32 bits
    };
    for (const auto& row : rows) {
        EXPECT_EQ(LastOfRun(row.run, row.after, row.range), row.last) << row.run.substr(0, 20);
    }
}

TEST(WatchPositions, PrintedLinesDecideWhatDigitsMean) {
    PositionStream stream({0, 12});
    stream.Feed("12", 0);
    stream.Confirm(1);
    stream.Confirm(2);
    stream.Settle(10000);
    EXPECT_EQ(stream.Position(), 2);
    // Digits of a stranger: shown for a while, never taken for the end, forgotten with the next.
    stream.Feed("12", 20000);
    stream.Settle(20250);
    EXPECT_EQ(stream.Position(), 12);
    EXPECT_FALSE(stream.AtEnd());
    stream.Feed("3", 30000);
    stream.Confirm(3);
    EXPECT_EQ(stream.Position(), 3);
    EXPECT_EQ(stream.SettleDueMs(), -1);
    stream.Confirm(12);
    EXPECT_TRUE(stream.AtEnd());
}

const std::string kMicroBlock = "Flashing Kestrel Micro Controller Image block[";
const std::string kCameraBlock = "Flashing Overlook Camera Image block[";
const std::string kFirst = "] Iteration[1] ...\n";
const std::string kThird = "] Iteration[3] ...\n";
const std::string kAck = "####### GOT A [ACK] FROM KESTREL MICRO CONTROLLER -- byteRead[2]....\n";
const std::string kNack = "####### GOT A [NACK] FROM KESTREL MICRO CONTROLLER -- byteRead[0]....\n";
const std::string kMicroEnd = "####### SUCCESSFULLY UPDATED KESTREL MICRO CONTROLLER ....\n";
const std::string kEnd = "percentdone: [100]\n";
const std::string kFailed = "ERROR: flash_micro() -- Failed open port: 1, err: -36";

TEST(WatchModel, OnlyATrustworthySuccessPassesForOne) {
    const std::string last = kMicroBlock + "11" + kFirst + kEnd;
    const std::string at40 = "percentdone: [40]\n" + kFailed + "\n";
    const int exit1 = 1 << 8;
    const int exit255 = 255 << 8;
    const struct {
        std::string lines;
        int waitStatus;
        int status;
        int strict;
        std::string said;
    } rows[] = {
        {last + kAck + kMicroEnd, 0, 0, 0, "done after 0:05."},
        {"Kestrel Microcontroller fw update is [not needed]\n" + kEnd, 0, 0, 0, "done"},
        {"", 0, 0, 120, "no position reported"},
        {"percentdone: [99]\n", 0, 0, 120, "not reached (position 99 of 0 to 100"},
        {"Can't stat overlookcam.bin. Cancelling progress control updates.\n", 0, 0, 120,
         "overlookcam.bin is missing"},
        // All bytes were sent, so the end was reached, but a block was never taken.
        {kMicroBlock + "10" + kFirst + kAck + last + kNack + kMicroEnd, 0, 0, 120,
         "did not acknowledge block 12 of 12"},
        {kCameraBlock + "0" + kFirst +
             "UNKNOWN RESPONSE FROM OVERLOOK DURING CAMERA IMAGE FLASHING: AckNack:0x42 ...\n" +
             kEnd,
         0, 0, 120, "unknown reply to a block of the camera firmware"},
        {"########## Kestrel Image(s) Update Required ....\n", exit1, 1, 1, "update is required"},
        {at40, exit255, 255, 255, "the updater said: " + kFailed},
        {kEnd, SIGKILL, 137, 137, "ended by signal 9 (Killed)"},
    };
    for (const auto& row : rows) {
        for (const bool strict : {false, true}) {
            ProgressModel model({0, 100}, 0, 1000);
            for (const std::string& line : LineSplitter().Feed(row.lines)) {
                model.Line(std::string_view(line).substr(0, line.size() - 1), 2000);
            }
            const EndingT ending = model.End(row.waitStatus, strict, 6000);
            EXPECT_EQ(ending.status, strict ? row.strict : row.status) << row.said;
            EXPECT_THAT(ending.lines, testing::Contains(HasSubstr(row.said)));
        }
    }
}

TEST(WatchModel, AStandstillIsToldOnceForEachOfItsPeriods) {
    ProgressModel model({0, 100}, 30000, 0);
    model.Line(kCameraBlock + "0" + kFirst, 10000);
    EXPECT_EQ(model.DueMs(), 40000);
    model.Line(kCameraBlock + "0" + kThird, 20000);
    model.Line("####### GOT A [NACK] OVERLOOK -- byteRead[2]....", 30000);
    EXPECT_THAT(model.Notices(39999), IsEmpty());
    EXPECT_THAT(model.Notices(40000), ElementsAre(HasSubstr("nothing has moved for 0:30 (camera")));
    EXPECT_THAT(RenderPlain(model.Sight(41000)), HasSubstr("still for 0:31, camera firmware"));
    EXPECT_THAT(model.Notices(69999), IsEmpty());
    EXPECT_THAT(model.Notices(70000), ElementsAre(HasSubstr("nothing has moved for 1:00")));
}

TEST(WatchBar, NeverReachesTheLastColumn) {
    const SightT sight = {42, 3723000, 0, "camera firmware: block 3 of 7", ""};
    for (int width = -1; width < 200; width++) {
        const std::string bar = RenderBar(sight, width);
        EXPECT_LT(static_cast<int>(bar.size()), std::max(width, 1));
        EXPECT_TRUE(width < 6 || bar.find("42 %") != std::string::npos) << bar;
    }
    EXPECT_EQ(RenderBar(sight, 80),
              "[=========>              ]  42 %  1:02:03  camera firmware: block 3 of 7");
}

TEST(WatchPresses, OneAloneOrAHeldKeyNeverCounts) {
    Presses presses(3000);
    EXPECT_EQ(presses.Press(10000), PressT::kFirst);
    EXPECT_EQ(presses.Press(20000), PressT::kFirst);
    EXPECT_EQ(presses.Press(23000), PressT::kFirst);  // too late for a second one
    for (int ms = 23600; ms < 25000; ms += 33) {
        EXPECT_EQ(presses.Press(ms), PressT::kTooFast);
    }
    EXPECT_EQ(presses.Press(25900), PressT::kCounts);
    EXPECT_EQ(presses.Press(25901), PressT::kCounts);
}

}  // namespace
}  // namespace watch
