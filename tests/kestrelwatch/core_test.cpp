// The launcher's cores: the updater's lines and what they come to, versions, the bar, the presses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>

#include "softupdate/kestrelwatch/check.h"
#include "softupdate/kestrelwatch/follow.h"
#include "softupdate/kestrelwatch/sha256.h"
#include "softupdate/kestrelwatch/verdict.h"

namespace watch {
namespace {

using testing::HasSubstr;

const std::string kAsked =
    "updatedMicroVersion: 0x21 -- currentMicroVersion: 0x20 ...\n"
    "Kestrel Microcontroller fw update is [needed]\n"
    "########## Kestrel Image(s) Update Required ....\n";
const std::string kConfirmed =
    "Kestrel Microcontroller fw update is [not needed]\n"
    "########## NO Kestrel Image(s) Update Required ....\n";
const std::string kEnd = "####### SUCCESSFULLY UPDATED KESTREL MICRO CONTROLLER ....\n";

std::string Block(int block, int attempt = 1) {
    return "Flashing Kestrel Micro Controller Image block[" + std::to_string(block) +
           "] Iteration[" + std::to_string(attempt) + "] ...\n";
}

std::string Reply(const std::string& what, int count) {
    return "####### GOT A [" + what + "] FROM KESTREL MICRO CONTROLLER -- byteRead[" +
           std::to_string(count) + "]....\n";
}

std::string Blocks(int from, int to) {
    std::string lines;
    for (int block = from; block < to; block++) {
        lines += Block(block) + Reply("ACK", 2);
    }
    return lines;
}

RunT Told(const std::string& lines, int waitStatus, bool asks) {
    RunT run;
    run.started = true;
    run.waitStatus = waitStatus;
    run.story.asks = asks;
    for (const std::string& line : LineSplitter().Feed(lines)) {
        TellStory(&run.story, std::string_view(line).substr(0, line.size() - 1));
    }
    return run;
}

TEST(WatchVerdict, OnlyWhatTheUnitConfirmsIsASuccessAndTheFirstCauseIsNamed) {
    const int exit1 = 1 << 8;
    const int exit255 = 255 << 8;
    const std::string whole = Blocks(0, 12) + kEnd;
    const std::string camera =
        "flash_overlook() ...\n######### Failed reading device type response back from Overlook "
        "camera ...\nERROR: flash_overlook() -- overlook camera comm appears to be crashed\n";
    const struct {
        std::string update;
        int waitStatus;
        std::string verify;
        int verifyStatus;
        int status;
        CauseT cause;
        std::string said;
    } rows[] = {
        {whole, 0, kConfirmed, 0, 0, CauseT::kNone,
         "UPDATED in 0:00: microcontroller 0x20 to 0x21"},
        {whole, 0, kAsked, exit1, 120, CauseT::kStillDifferent, "microcontroller still 0x20"},
        {whole, 0, "", 0, 120, CauseT::kUnconfirmed,
         "what it runs: the updater ended with status 0"},
        {Blocks(0, 11) + kEnd, 0, kConfirmed, 0, 120, CauseT::kBlockUnanswered,
         "microcontroller reports the new version, but may hold only part of its image"},
        {Blocks(0, 11) + Block(11) + Reply("NACK", 0) + kEnd, 0, kConfirmed, 0, 120,
         CauseT::kBlockUnanswered, "block 12 of 12: no answer within 50 ms"},
        {Blocks(0, 3) + Block(3) + Reply("NACK", 2) + Block(3, 2) + Reply("ACK", 2) +
             Blocks(4, 12) + kEnd,
         0, kConfirmed, 0, 0, CauseT::kNone, "UPDATED"},
        {Block(0) + Reply("NACK", 2) + Block(0, 2) + Reply("NACK", 2) + Block(0, 3) +
             Reply("NACK", 2) + Reply("NACK", 0) + kEnd,
         0, kAsked, exit1, 120, CauseT::kBlockRefused, "block 1 of 12: refused three times"},
        {Block(0) +
             "UNKNOWN RESPONSE FROM OVERLOOK DURING KESTREL MICRO IMAGE FLASHING: "
             "AckNack:0x55 ...\n" +
             whole,
         0, kConfirmed, 0, 120, CauseT::kUnknownReply, "unknown answer (55)"},
        // What the microcontroller's lines gave away comes before the camera's loud failure.
        {Block(0) + Reply("NACK", 1) + kEnd + camera, exit255, kAsked, exit1, 255,
         CauseT::kBlockCut, "half an answer; then camera: no answer to the question"},
        {Block(0) + Reply("NACK", 0), SIGTERM, "", 0, 128 + SIGTERM, CauseT::kBlockUnanswered,
         "no answer within 50 ms; then the updater was ended by signal 15"},
        {Block(2147483647) + Block(-1) + Blocks(0, 2), SIGKILL, "", 0, 137, CauseT::kSignal,
         "microcontroller: block 2 of 12"},
        {"flash_micro() ...\nERROR: flash_micro() -- Failed open port: 1, err: -25\n", exit255, "",
         0, 255, CauseT::kLineFailed, "Failed open port: 1"},
        {"hello\n", 0, kConfirmed, 0, 120, CauseT::kUpdaterStrange, "did not say what it found"},
    };
    for (const auto& row : rows) {
        RecordT record;
        record.plan.wanted[kMicroTarget] = true;
        record.plan.images[kMicro].version = 0x21;
        record.ask = Told(kAsked, exit1, true);
        record.update = Told(row.update, row.waitStatus, false);
        record.verify = Told(row.verify, row.verifyStatus, true);
        Judge(&record);
        EXPECT_EQ(record.verdict.status, row.status) << row.said;
        EXPECT_STREQ(CauseCode(record.verdict.cause), CauseCode(row.cause)) << row.said;
        EXPECT_THAT(record.verdict.Text(), HasSubstr(row.said));
        const ImageStoryT& sent = record.update.story.images[kMicro];
        EXPECT_FALSE(record.verdict.repeatable && sent.touched && !sent.Complete()) << row.said;
    }
}

TEST(WatchVerdict, WhatAnEarlierTrySentIsRemembered) {
    for (const auto& [ask, waitStatus, said] :
         {std::tuple("", 255 << 8, "The unit: microcontroller was sent 0x21, not verified"),
          {kConfirmed.c_str(), 0, "UPDATED in 0:00: microcontroller 0x20 to 0x21"}}) {
        RecordT record;
        record.plan.wanted[kMicroTarget] = true;
        record.plan.images[kMicro].version = 0x21;
        record.earlier[kMicro] = {true, 0x20};
        record.ask = Told(ask, waitStatus, true);
        Judge(&record);
        EXPECT_THAT(record.verdict.Text(), HasSubstr(said));
    }
}

TEST(WatchVerdict, ACameraVersionThatNeverCountsAsUpToDateIsConfirmedByItsDigits) {
    RecordT record;
    record.plan.wanted[kCameraTarget] = true;
    record.plan.images[kCamera].version = 0x8001;
    record.plan.images[kSystem].version = 0x0304;
    const std::string newer = "] -- Newer Overlook Camera FW Version[8001] ... Upgrading\n";
    const std::string system = "Overlook System Firmware is Already up to date ...\n";
    for (const auto& [current, confirmed] : {std::pair("ffff8001", true), {"8000", false}}) {
        const RunT run =
            Told("Current Overlook Camera FW Version[" + std::string(current) + newer + system,
                 1 << 8, true);
        EXPECT_EQ(AllConfirmed(record.plan, run.story), confirmed) << current;
    }
}

TEST(WatchCheck, AVersionIsHexadecimalTextAndNothingElse) {
    const std::pair<const char*, long> rows[] = {
        {"1A2b\n", 0x1A2B}, {"0\r\n", 0},      {"8001", 0x8001}, {"abcdef  \n", 0xABCDEF},
        {"v1.02\n", -1},    {"<html>", -1},    {"", -1},         {"0x12\n", -1},
        {" 12\n", -1},      {"1234567\n", -1}, {"12\n13\n", -1}, {"1:2\n", -1}};
    for (const auto& [text, version] : rows) {
        EXPECT_EQ(HexVersion(text), version) << text;
    }
    Sha256 hash;
    const std::string text(1000, 'a');
    hash.Add(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    EXPECT_EQ(hash.Hex(), "41edece42d63e8d9bf515a9ba6932e1c20cbc9f5a5d134645adb5db1b9737ea3");
}

TEST(WatchBar, NeverReachesTheLastColumnAndPromisesNoMoreThanWasAcknowledged) {
    SightT sight;
    sight.percent = 42;
    sight.inFlight = 0.2;
    sight.elapsedMs = 3723000;
    sight.leftMs = 65000;
    sight.rate = 10240;
    sight.what = "camera firmware: block 3 of 7";
    for (int width = -1; width <= 300; width++) {
        const std::string bar = RenderBar(sight, width);
        EXPECT_LT(static_cast<int>(bar.size()), std::max(width, 1));
        EXPECT_TRUE(width < 6 || bar.find("42 %") != std::string::npos) << bar;
    }
    EXPECT_EQ(RenderBar(sight, 110),
              "[=========>-----          ]  42 %  1:02:03, 1:05 left  10.2 KB/s  camera "
              "firmware: block 3 of 7");
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
