// The updater's lines, one table.
#include "softupdate/kestrelwatch/story.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

namespace watch {

const char kStagePreparing[] = "preparing for the update";
const char kStageRestarting[] = "starting again";

namespace {

constexpr int kMaxBlocks = 65536;

const char* const kMicroPart = "microcontroller";
const char* const kCameraPart = "camera";

// The number after the `nth` (from 0) occurrence of `mark`; -1 when there is none, or it is none
// that the updater would print.
std::int64_t NumberAfter(std::string_view line, std::string_view mark, int nth = 0, int base = 10) {
    size_t at = 0;
    for (int i = 0; i <= nth; i++) {
        at = line.find(mark, at);
        if (at == std::string_view::npos) {
            return -1;
        }
        at += mark.size();
    }
    const std::string digits(line.substr(at, 11));
    char* end = nullptr;
    const long long number = strtoll(digits.c_str(), &end, base);
    return end == digits.c_str() || number < 0 || number > 0xFFFFFFFFLL ? -1 : number;
}

std::string Number(int number) {
    return std::to_string(number);
}

int Within(std::int64_t number, int low, int high) {
    return static_cast<int>(std::clamp(number, std::int64_t{low}, std::int64_t{high}));
}

// "camera firmware, block 2 of 3".
std::string Where(const StoryT& story) {
    if (story.block < 0) {
        return TargetName(story.target);
    }
    std::string text = std::string(ImageName(story.image)) + ", block " + Number(story.block + 1);
    const int blocks = story.images[story.image].blocks;
    return blocks > 0 ? text + " of " + Number(blocks) : text;
}

// Later troubles of a target follow from its first, or say less.
void Trouble(StoryT* story, CauseT cause, const std::string& text) {
    if (story->TroubleOf(story->target) == nullptr) {
        story->troubles.push_back({story->target, cause, Where(*story) + ": " + text});
    }
}

void Enter(StoryT* story, TargetT target, const char* part, const char* stage) {
    story->target = target;
    if (story->part == part && story->stage == stage && story->block < 0) {
        return;
    }
    story->part = part;
    story->stage = stage;
    story->block = -1;
    story->attempt = 1;
    story->moves++;
}

void Block(StoryT* story, ImageT image, std::string_view line) {
    ImageStoryT& its = story->images[image];
    const std::int64_t block = NumberAfter(line, "[");
    if (block < 0 || block >= (its.blocks > 0 ? its.blocks : kMaxBlocks)) {
        return;
    }
    story->target = TargetOf(image);
    if (story->block != block || story->image != image) {
        story->image = image;
        story->block = static_cast<int>(block);
        story->refusals = 0;
        story->moves++;
    }
    story->part = ImageName(image);
    story->attempt = Within(NumberAfter(line, "[", 1), 1, 99);
    its.touched = true;
    story->critical = true;
}

// Behind the camera's last block the updater waits before it says so.
void Acknowledged(StoryT* story, std::string_view) {
    if (story->block < 0) {
        return;
    }
    ImageStoryT& its = story->images[story->image];
    its.acknowledged = std::max(its.acknowledged, story->block + 1);
    story->refusals = 0;
    const auto through = [&](ImageT image) {
        return !story->images[image].needed || story->images[image].Complete();
    };
    if (story->image != kMicro && through(kCamera) && through(kSystem)) {
        story->critical = false;
        Enter(story, kCameraTarget, kCameraPart, kStageRestarting);
    }
}

// Neither ACK: nothing came, or half of it, or something else, which later lines tell.
void NotAcknowledged(StoryT* story, std::string_view line) {
    const std::int64_t count = NumberAfter(line, "byteRead[");
    const char* limit = story->target == kMicroTarget ? "50 ms" : "4 s";
    if (count == 1) {
        Trouble(story, CauseT::kBlockCut, "half an answer");
    } else if (count == 2) {
        story->refusals++;
    } else if (story->refusals > 2) {
        Trouble(story, CauseT::kBlockRefused, "refused three times");
    } else {
        Trouble(story, CauseT::kBlockUnanswered, std::string("no answer within ") + limit);
    }
}

void EmptyRetry(StoryT* story, std::string_view) {
    Trouble(story, CauseT::kBlockRefused, "refused");
}

void UnknownReply(StoryT* story, std::string_view line) {
    story->refusals = 0;
    Trouble(story, CauseT::kUnknownReply,
            "an unknown answer (" + std::string(line.substr(line.rfind("0x") + 2, 2)) +
                "), after which the image went out wrong");
}

void MicroVersions(StoryT* story, std::string_view line) {
    // A reply that breaks off before the version reads as 0, which is none.
    const std::int64_t current = NumberAfter(line, "0x", 1, 16);
    story->images[kMicro].current = current > 0 ? static_cast<long>(current) : -1;
}

void MicroNeeded(StoryT* story, std::string_view) {
    story->images[kMicro].needed = true;
}

void MicroCurrent(StoryT* story, std::string_view) {
    story->images[kMicro].upToDate = true;
}

void MicroStart(StoryT* story, std::string_view) {
    story->critical = true;
}

// The line says success on every way out of the transfer; the blocks tell more.
void MicroEnd(StoryT* story, std::string_view) {
    const ImageStoryT& its = story->images[kMicro];
    if (!its.Complete()) {
        Trouble(story, CauseT::kBlockUnanswered, "not acknowledged");
    }
    story->critical = false;
    Enter(story, kMicroTarget, kMicroPart, kStageRestarting);
}

// A reported version is 16 bits wide; the updater prints it with its sign widened.
void Newer(StoryT* story, ImageT image, std::string_view line) {
    const std::int64_t current = NumberAfter(line, "[", 0, 16);
    story->images[image].needed = true;
    story->images[image].current = current < 0 ? -1 : static_cast<long>(current & 0xFFFF);
    // The request that puts the camera into update mode follows at once.
    story->critical = !story->asks;
}

void CameraNewer(StoryT* story, std::string_view line) {
    Newer(story, kCamera, line);
}

void SystemNewer(StoryT* story, std::string_view line) {
    Newer(story, kSystem, line);
}

void CameraCurrent(StoryT* story, std::string_view) {
    story->images[kCamera].upToDate = true;
}

void SystemCurrent(StoryT* story, std::string_view) {
    story->images[kSystem].upToDate = true;
}

void FlashMode(StoryT* story, std::string_view) {
    for (const ImageT image : {kCamera, kSystem}) {
        story->images[image].touched = story->images[image].needed;
    }
    story->answerBegan = false;
}

void CameraTotals(StoryT* story, std::string_view line) {
    story->images[kCamera].blocks = Within(NumberAfter(line, ":"), 0, kMaxBlocks);
    story->images[kSystem].blocks = Within(NumberAfter(line, ":", 1), 0, kMaxBlocks);
}

void AnswerBegins(StoryT* story, std::string_view) {
    story->answerBegan = true;
}

void CameraSilent(StoryT* story, std::string_view) {
    if (story->stage == kStagePreparing) {
        Trouble(story, CauseT::kNoAnswer, "no answer to the announcement of the update");
    } else if (story->answerBegan) {
        Trouble(story, CauseT::kAnswerCut, "its answer to the question for its versions broke off");
    } else {
        Trouble(story, CauseT::kNoAnswer, "no answer to the question for its versions");
    }
}

void CameraEnd(StoryT* story, std::string_view) {
    story->critical = false;
    Enter(story, kCameraTarget, kCameraPart, kStageRestarting);
}

void MicroSilent(StoryT* story, std::string_view) {
    Trouble(story, CauseT::kNoAnswer, "no answer to the question for its version");
}

void MicroCut(StoryT* story, std::string_view) {
    Trouble(story, CauseT::kAnswerCut, "its answer to the question for its version broke off");
}

void Rebooted(StoryT* story, std::string_view) {
    story->rebooted = true;
}

void UpdateDue(StoryT* story, std::string_view) {
    story->summary = StoryT::kUpdateDue;
}

void NothingDue(StoryT* story, std::string_view) {
    story->summary = StoryT::kNothingDue;
}

void Position(StoryT* story, std::string_view line) {
    story->position = std::max(story->position, Within(NumberAfter(line, "["), -1, INT_MAX));
}

void PipeTrouble(StoryT* story, std::string_view) {
    story->pipeTrouble = true;
}

void MissingFile(StoryT* story, std::string_view line) {
    const size_t start = sizeof("Can't stat ") - 1;
    const std::string file(line.substr(start, line.find(". Cancelling", start) - start));
    story->target = file == "kestrelmicro.bin" ? kMicroTarget : kCameraTarget;
    Trouble(story, CauseT::kImageMissing, "the file " + file + " is missing");
}

void UnreadableFile(StoryT* story, std::string_view line) {
    Trouble(story, CauseT::kImageRead, "the updater said: " + std::string(line));
}

void LineFailed(StoryT* story, std::string_view line) {
    Trouble(story, CauseT::kLineFailed, "the updater said: " + std::string(line));
}

void LineWrite(StoryT* story, std::string_view) {
    Trouble(story, CauseT::kLineWrite, "the serial line did not take the message");
}

void Failed(StoryT* story, std::string_view line) {
    Trouble(story, CauseT::kUpdaterFailed, "the updater said: " + std::string(line));
}

void MicroBlock(StoryT* story, std::string_view line) {
    Block(story, kMicro, line);
}

void CameraBlock(StoryT* story, std::string_view line) {
    Block(story, kCamera, line);
}

void SystemBlock(StoryT* story, std::string_view line) {
    Block(story, kSystem, line);
}

struct RuleT {
    const char* start;
    const char* part;   // null: part and stage stay
    const char* stage;  // null: they stay
    void (*action)(StoryT* story, std::string_view line);
};

const char* const kSame = nullptr;

// The first entry that a line starts with is taken, so longer starts stand first.
const RuleT kRules[] = {
    {"flash_micro() ...", kMicroPart, "asking for its version", nullptr},
    {"##### Drop ", kMicroPart, "skipping noise on its line", nullptr},
    {"updatedMicroVersion: ", kSame, kSame, MicroVersions},
    {"Kestrel Microcontroller fw update is [needed]", kMicroPart, "update needed", MicroNeeded},
    {"Kestrel Microcontroller fw update is [not needed]", kMicroPart, "up to date", MicroCurrent},
    {"ATTEMPTING TO SEND THE FIRST DATA BLOCK", kSame, kSame, MicroStart},
    {"Flashing Kestrel Micro Controller Image block[", kSame, kSame, MicroBlock},
    {"####### GOT A [ACK]", kSame, kSame, Acknowledged},
    {"####### GOT A [NACK]", kSame, kSame, NotAcknowledged},
    {"####### SUCCESSFULLY UPDATED KESTREL MICRO CONTROLLER", kSame, kSame, MicroEnd},
    {"sendHarborKestrelGPmsg -- cmd [", kCameraPart, "asking for a reboot", nullptr},
    {"Successfully rebooting Overlook camera", kCameraPart, "rebooting", Rebooted},
    {"flash_overlook() ...", kCameraPart, "asking for its versions", nullptr},
    {"#### Got [", kCameraPart, "skipping noise on its line", nullptr},
    {"#### First Byte of Response", kSame, kSame, AnswerBegins},
    {"Overlook Camera Firmware is Already up to date", kCameraPart, "up to date", CameraCurrent},
    {"Overlook System Firmware is Already up to date", kCameraPart, "up to date", SystemCurrent},
    {"Current Overlook Camera FW Version", kCameraPart, "update needed", CameraNewer},
    {"Current Overlook System FW Version", kCameraPart, "update needed", SystemNewer},
    {"############# Trying to read the camera response for flashmode", kCameraPart, kStagePreparing,
     FlashMode},
    {"Overlook FW update with, camNumBlocks:", kSame, kSame, CameraTotals},
    {"Flashing Overlook Camera Image block[", kSame, kSame, CameraBlock},
    {"Flashing Overlook System Image block[", kSame, kSame, SystemBlock},
    {"UNKNOWN RESPONSE FROM OVERLOOK DURING", kSame, kSame, UnknownReply},
    {"########### zero size data block", kSame, kSame, EmptyRetry},
    {"####### Overlook come up after update", kSame, kSame, CameraEnd},
    {"########## NO Kestrel Image(s) Update Required", kSame, kSame, NothingDue},
    {"########## Kestrel Image(s) Update Required", kSame, kSame, UpdateDue},
    {"percentdone: [", kSame, kSame, Position},
    {"progressCtrlSetPos: could not ", kSame, kSame, PipeTrouble},
    {"Can't stat ", kSame, kSame, MissingFile},
    {"Could not open ", kSame, kSame, UnreadableFile},
    {"Failed reading ", kSame, kSame, UnreadableFile},
    {"ERROR reading: ", kSame, kSame, UnreadableFile},
    {"Reading ", kSame, kSame, UnreadableFile},
    {"#### genericWriteRs232Port() with ERROR", kSame, kSame, LineWrite},
    {"ERROR: flash_overlook() -- driver cannot send", kSame, kSame, LineWrite},
    {"######### Failed reading device type response", kSame, kSame, CameraSilent},
    {"######### Failed reading while searching for DELIMITER", kSame, kSame, MicroSilent},
    {"######### Failed reading", kSame, kSame, MicroCut},
    {"ERROR: flash_overlook() -- overlook camera comm", kSame, kSame, Failed},
    {"ERROR: flash_overlook() -- Failed flashing", kSame, kSame, Failed},
    {"ERROR: ", kSame, kSame, LineFailed},
    {"#### Failed", kSame, kSame, Failed},
};

}  // namespace

const char* ImageName(ImageT image) {
    static const char* const kNames[] = {"microcontroller", "camera firmware", "camera system"};
    return kNames[image];
}

const char* TargetName(TargetT target) {
    return target == kMicroTarget ? kMicroPart : kCameraPart;
}

std::string VersionText(ImageT image, long version) {
    char text[24];
    snprintf(text, sizeof(text), image == kMicro ? "0x%02lx" : "%04lx", version);
    return version < 0 ? "of an unknown version" : text;
}

std::string StoryT::What() const {
    if (block < 0) {
        return part + ": " + stage;
    }
    std::string text = part + ": block " + Number(block + 1);
    if (images[image].blocks > 0) {
        text += " of " + Number(images[image].blocks);
    }
    return attempt > 1 ? text + ", attempt " + Number(attempt) : text;
}

const TroubleT* StoryT::TroubleOf(TargetT of) const {
    for (const TroubleT& trouble : troubles) {
        if (trouble.target == of) {
            return &trouble;
        }
    }
    return nullptr;
}

void TellStory(StoryT* story, std::string_view line) {
    for (const RuleT& rule : kRules) {
        if (!line.starts_with(rule.start)) {
            continue;
        }
        story->spoke = true;
        if (rule.part != nullptr) {
            Enter(story, rule.part == kMicroPart ? kMicroTarget : kCameraTarget, rule.part,
                  rule.stage);
        }
        if (rule.action != nullptr) {
            rule.action(story, line);
        }
        return;
    }
}

}  // namespace watch
