// What the updater's output lines tell of one run: what is asked of whom, which versions the unit
// reports, which blocks it acknowledged, what went wrong first. Knows the lines by their first
// words, in one table; lines it does not know mean nothing to it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace watch {

enum TargetT { kMicroTarget, kCameraTarget, kTargets };
enum ImageT { kMicro, kCamera, kSystem, kImages };

constexpr TargetT TargetOf(ImageT image) {
    return image == kMicro ? kMicroTarget : kCameraTarget;
}

// Stages that others than the story look at.
extern const char kStagePreparing[];
extern const char kStageRestarting[];

constexpr int kMicroBlocks = 12;  // the microcontroller's image always travels as so many blocks

// "microcontroller", "camera firmware", "camera system".
const char* ImageName(ImageT image);
// "microcontroller", "camera".
const char* TargetName(TargetT target);
// 0x21 for the microcontroller, 0102 for the camera.
std::string VersionText(ImageT image, long version);

// Why a run did not end well. The codes by which --json names them are stable.
enum class CauseT {
    kNone,
    kUsage,
    kRange,
    kPipe,
    kFolder,
    kInternal,
    kUpdaterMissing,
    kUpdaterRefused,
    kUpdaterStrange,
    kUpdaterFailed,
    kImageMissing,
    kImageBad,
    kVersionBad,
    kImageRead,
    kNode,
    kLauncherPipe,
    kLocked,
    kLineFailed,
    kLineWrite,
    kNoAnswer,
    kAnswerCut,
    kBlockUnanswered,
    kBlockCut,
    kBlockRefused,
    kUnknownReply,
    kFilesChanged,
    kGaveUp,
    kInterrupted,
    kSignal,
    kUnconfirmed,
    kStillDifferent,
    kNotAsked,
    kCauses
};

struct TroubleT {
    TargetT target;
    CauseT cause;
    std::string text;  // "camera firmware, block 2 of 3: no answer within 4 s"
};

struct ImageStoryT {
    long current = -1;      // the version that the unit reported; -1: none
    bool needed = false;    // the updater found a difference
    bool upToDate = false;  // the updater found none
    int blocks = 0;         // to send; 0: not known
    int acknowledged = 0;   // blocks
    bool touched = false;   // the unit was sent something that may erase the old image
    bool Complete() const { return touched && blocks > 0 && acknowledged >= blocks; }
};

struct StoryT {
    StoryT() { images[kMicro].blocks = kMicroBlocks; }

    ImageStoryT images[kImages];
    TargetT target = kMicroTarget;
    std::string part = "updater";
    std::string stage = "starting";
    ImageT image = kMicro;  // of the block in flight
    int block = -1;         // in flight, from 0; -1: none
    int attempt = 1;
    int refusals = 0;       // of the block in flight
    int position = -1;      // the last one reported; -1: none
    int moves = 0;          // grows with every new part, stage or block
    bool asks = false;      // a query: nothing is sent
    bool critical = false;  // something may be erased and not whole yet
    bool spoke = false;     // a line came that only the updater prints
    bool rebooted = false;
    bool pipeTrouble = false;
    bool answerBegan = false;
    enum { kNothing, kUpdateDue, kNothingDue } summary = kNothing;
    std::vector<TroubleT> troubles;  // the first of each target, in the order of their coming

    // What is being done, such as "camera firmware: block 3 of 7, attempt 2".
    std::string What() const;
    // The first trouble of a target; null: none.
    const TroubleT* TroubleOf(TargetT of) const;
};

// Takes one line without its line end.
void TellStory(StoryT* story, std::string_view line);

}  // namespace watch
