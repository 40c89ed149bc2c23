// The launcher's cores: positions out of digits, the updater's lines, the judgement, the bar.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <functional>

#include "tools/kestrelwatch/bar.h"
#include "tools/kestrelwatch/lines.h"
#include "tools/kestrelwatch/model.h"
#include "tools/kestrelwatch/presses.h"

namespace watch {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string Counted(int last) {
    std::string run;
    for (int i = 1; i <= last; i++) {
        run += std::to_string(i);
    }
    return run;
}

// Calls `take` with each line of a text.
void EachLine(const std::string& text, const std::function<void(std::string_view)>& take) {
    for (const std::string& line : LineSplitter().Feed(text)) {
        take(std::string_view(line).substr(0, line.size() - 1));
    }
}

TEST(WatchPositions, NumbersThatArriveTogetherAreToldApart) {
    const struct {
        std::string run;
        int after;
        RangeT range;
        int last;
    } rows[] = {
        {"1213", 11, {0, 100}, 13},
        {"12", 0, {0, 100}, 12},
        {"99100", 98, {0, 100}, 100},
        {Counted(1000), 0, {0, 1000}, 1000},
        {"5051", 0, {50, 60}, 51},
        {"7", 9, {0, 100}, 9},                     // backwards
        {"101", 99, {0, 100}, 99},                 // beyond the end
        {"007", 0, {0, 100}, 0},                   // no number of the updater's
        {std::string(9000, '1'), 0, {0, 100}, 0},  // no run of the updater's
        {std::string(300, '9'), 0, {0, 100}, 0},
        {"515", 0, {50, 60}, 49},      // no 5 and 15
        {"4294967297", 0, {0, 3}, 0},  // would be 1 in 32 bits
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
    stream.Feed("junk", 30000);
    stream.Feed("3", 30000);
    stream.Confirm(3);
    EXPECT_EQ(stream.Position(), 3);
    EXPECT_EQ(stream.SettleDueMs(), -1);
    stream.Confirm(12);
    EXPECT_TRUE(stream.AtEnd());
}

TEST(WatchPositions, AnUpdaterThatPrintsNothingIsFollowedByThePipeAlone) {
    PositionStream stream({50, 60});
    stream.Feed("50", 0);
    stream.Feed("5254\n", 10);
    stream.Settle(1000);
    EXPECT_EQ(stream.Percent(), 40);
    stream.Feed("60", 2000);
    stream.Settle(2250);
    EXPECT_TRUE(stream.AtEnd());
}

const std::string kMicroBlock = "Flashing Kestrel Micro Controller Image block[";
const std::string kCameraBlock = "Flashing Overlook Camera Image block[";
const std::string kSystemBlock = "Flashing Overlook System Image block[";
const std::string kTotals = "Overlook FW update with, camNumBlocks:7 -- sysNUmBlocks:3 ...\n";
const std::string kFirst = "] Iteration[1] ...\n";
const std::string kThird = "] Iteration[3] ...\n";
const std::string kAck = "####### GOT A [ACK] FROM KESTREL MICRO CONTROLLER -- byteRead[2]....\n";
const std::string kNack = "####### GOT A [NACK] FROM KESTREL MICRO CONTROLLER -- byteRead[0]....\n";
const std::string kMicroEnd = "####### SUCCESSFULLY UPDATED KESTREL MICRO CONTROLLER ....\n";
const std::string kEnd = "percentdone: [100]\n";
const std::string kNoise = "#### Got [ff] ...drop this byte ...until we get the ACK byte ...\n";
const std::string kFailed = "ERROR: flash_micro() -- Failed open port: 1, err: -36";

TEST(WatchStory, SaysWhatIsBeingUpdated) {
    const struct {
        std::string lines;
        const char* what;
    } rows[] = {
        {"", "updater: starting"},
        {"flash_micro() ...\n", "microcontroller: asking for its version"},
        {kMicroBlock + "4" + kFirst, "microcontroller: block 5 of 12"},
        {kMicroBlock + "11" + kFirst + kAck + kMicroEnd, "microcontroller: starting again"},
        {"flash_overlook() ...\n" + kNoise, "camera: skipping noise on its line"},
        {kTotals + kCameraBlock + "6" + kThird, "camera firmware: block 7 of 7, attempt 3"},
        {kTotals + kCameraBlock + "6" + kThird + kSystemBlock + "0" + kFirst,
         "camera system: block 1 of 3"},
        {kSystemBlock + "x] Iteration[\nsomething else\n", "camera system: block 1"},
    };
    for (const auto& row : rows) {
        Story story;
        EachLine(row.lines, [&](auto line) { EXPECT_EQ(story.Read(line), std::nullopt); });
        EXPECT_EQ(story.What(), row.what);
    }
}

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
        {kMicroBlock + "3" + kThird + kEnd + kNack + kMicroEnd, 0, 0, 120,
         "did not acknowledge block 4 of 12, attempt 3"},
        {kCameraBlock + "0" + kFirst +
             "UNKNOWN RESPONSE FROM OVERLOOK DURING CAMERA IMAGE FLASHING: AckNack:0x42 ...\n" +
             kEnd,
         0, 0, 120, "unknown reply to a block of the camera firmware"},
        {"########## NO Kestrel Image(s) Update Required ....\n", 0, 0, 0, "no update is required"},
        {"########## Kestrel Image(s) Update Required ....\n", exit1, 1, 1, "update is required"},
        {"Successfully rebooting Overlook camera: err:0 ...\npercentdone: [80]\n", 0, 0, 0, "done"},
        {at40, exit255, 255, 255, "status 255 after 0:05 (position 40 of 0 to 100"},
        {at40, exit255, 255, 255, "the updater said: " + kFailed},
        {kEnd, SIGKILL, 137, 137, "ended by signal 9 (Killed)"},
    };
    for (const auto& row : rows) {
        for (const bool strict : {false, true}) {
            ProgressModel model({0, 100}, 0, 1000);
            EachLine(row.lines, [&](auto line) { model.Line(line, 2000); });
            const EndingT ending = model.End(row.waitStatus, strict, 6000);
            EXPECT_EQ(ending.status, strict ? row.strict : row.status) << row.said;
            EXPECT_THAT(ending.lines, testing::Contains(HasSubstr(row.said)));
        }
    }
}

TEST(WatchModel, OnlyMovementEndsAStandstill) {
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
    model.Pipe("7", 71000);
    model.Tick(71250);
    EXPECT_THAT(model.Notices(71250), ElementsAre(HasSubstr("moving again after 1:01")));
    EXPECT_EQ(model.Sight(72000).stillMs, 0);

    ProgressModel never({0, 100}, 0, 0);
    EXPECT_EQ(never.DueMs(), -1);
    EXPECT_THAT(never.Notices(INT32_MAX), IsEmpty());
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
    EXPECT_EQ(RenderBar(sight, 50), "[====>         ]  42 %  1:02:03  camera firmwa...");
    EXPECT_EQ(RenderBar({100, 7000, 0, "x", ""}, 31), "[========] 100 %  0:07  x");
    EXPECT_EQ(RenderBar({0, 0, 0, "x", "note"}, 31), "[        ]   0 %  0:00  note");
}

TEST(WatchPresses, OneAloneOrAHeldKeyNeverCounts) {
    Presses presses(3000);
    EXPECT_EQ(presses.Press(10000), PressT::kFirst);
    EXPECT_FALSE(presses.Expired(12999));
    EXPECT_TRUE(presses.Expired(13000));
    EXPECT_FALSE(presses.Expired(13001));
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
