// The updater's helpers: version text and the arithmetic of progress.
#include <gtest/gtest.h>
#include <limits.h>

#include "Common/OS/linux/board.h"
#include "devlib/kestrelflash/hextext.h"
#include "devlib/kestrelflash/progress.h"
#include "softupdate/progressctrl/progressctrl.h"

int BoardDelay(int usecs) {
    return usecs;
}

namespace {

TEST(HexText, DigitsAreLooseAndSixAtMost) {
    const struct {
        const char* text;
        int value;
    } kCases[] = {
        {"1A2b", 0x1A2B}, {"0x12", 0},          {"1234567", 0x123456}, {"", 0},
        {"-1", 0xD1},     {"*+,-./", 0xABCDEF}, {":;<=>?", 0xABCDEF},  {"@1", 0},
        {"fFG1", 0xFF},   {"\xB1\x31", 0},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(c.value, axxtoi(c.text)) << c.text;
    }
}

TEST(Progress, ArithmeticTruncatesAndWraps) {
    const struct {
        int total;
        int low;
        int high;
        int done;
        const char* said;
    } kCases[] = {
        {1000, 10, 90, 500, "percentdone: [50]\n"},
        {1000, 0, 100, 9, ""},
        {1000, 0, 100, 10, "percentdone: [1]\n"},
        {100, 50, 60, 5, "percentdone: [50]\n"},
        {100, 90, 10, 50, "percentdone: [50]\n"},
        {0, 10, 90, 500, ""},
        {50000000, 0, 100, 21474836, "percentdone: [42]\n"},
        {50000000, 0, 100, 21474837, ""},  // a hundredfold of this is negative
        {-100, 0, 100, -50, "percentdone: [50]\n"},
        {-1, 0, 100, 1 << 29, ""},  // the lowest value over -1
        {1, INT_MIN, INT_MAX, 1, "percentdone: [2147483647]\n"},
    };
    for (const auto& c : kCases) {
        progressCtrlInit("/dev/null", c.low, c.high);
        gProgressCtrl = {};
        gProgressCtrl.bDoUpdate = 1;
        ProgressAddImage(c.total);
        testing::internal::CaptureStdout();
        updateProgress(c.done);
        EXPECT_EQ(c.said, testing::internal::GetCapturedStdout()) << c.total << " " << c.done;
    }
}

}  // namespace
