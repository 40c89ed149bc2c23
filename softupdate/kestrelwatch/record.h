// The one record of a launch. Each step (check, lock, ask, update, ask again, report) reads what
// the steps before it left here and adds its own.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "softupdate/kestrelwatch/story.h"

namespace watch {

// Exit statuses of kestrelwatch's own. Every other one is the updater's, passed through, or 128 + n
// where signal n ended the updater.
enum StatusT {
    kStatusGaveUp = 117,   // ended by --give-up, before anything was erased
    kStatusRefused = 118,  // the check found what makes the update pointless
    kStatusLocked = 119,   // another run has this unit
    kStatusDoubtful = 120,
    kStatusUsage = 121,
    kStatusRange = 122,
    kStatusPipe = 123,
    kStatusFolder = 124,
    kStatusInternal = 125,
    kStatusNotExecutable = 126,
    kStatusNotFound = 127,
    kStatusSignalBase = 128,
};

// Milliseconds of the monotonic clock.
std::int64_t NowMs();

// The positions that are asked of the updater; low < high.
struct RangeT {
    int low = 0;
    int high = 100;
};

struct OptionsT {
    bool help = false;
    bool checkOnly = false;
    bool verify = true;
    bool plain = false;
    bool ownUpdater = false;  // given behind "--"
    std::string pipe;         // empty: one in a private folder
    RangeT range;
    std::int64_t stallMs = 30000;    // 0: no warning
    std::int64_t confirmMs = 10000;  // time for the second press
    std::int64_t giveUpMs = 60000;   // 0: never
    int retries = 0;
    std::string json;             // FILE or fd:N; empty: none
    std::string recordFolder;     // empty: none
    std::string ports[kTargets];  // a line's node given by --port; empty: the board's own
    bool HasPorts() const { return !ports[kMicroTarget].empty() || !ports[kCameraTarget].empty(); }
    std::vector<std::string> words;  // the updater and its arguments, without "-p"
};

// What tells that a file is still the one that was checked.
struct FileIdT {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;  // -1: no file
    std::int64_t modifiedNs = 0;
    std::int64_t changedNs = 0;
    bool operator==(const FileIdT&) const = default;
};

// One image as it lies in the folder, with the time that each of its blocks takes on the line.
struct ImageFactsT {
    FileIdT file;
    FileIdT versionFile;   // none for the microcontroller, whose image begins with its version
    bool changed = false;  // since the check
    std::string sha256;    // of what is sent
    long version = -1;     // -1: not known
    std::vector<int> blockBytes;
    std::vector<double> blockMs;  // to send the block and receive its answer
};

// One row of the check.
struct FindingT {
    enum LevelT { kFine, kNotice, kRefusal } level;
    int status;  // of a refusal
    CauseT cause;
    std::string subject;
    std::string text;
};

struct PlanT {
    bool query = false;
    bool reboot = false;         // the microcontroller is asked to reboot the camera
    bool wanted[kTargets] = {};  // whose images are asked for and updated
    std::string program;
    std::string nodes[kTargets];
    ImageFactsT images[kImages];
    std::vector<FindingT> findings;
    // Nothing but the request to reboot the camera.
    bool RebootsOnly() const { return reboot && !wanted[kCameraTarget]; }
    // The images that belong to a wanted target.
    bool Wants(ImageT image) const { return wanted[TargetOf(image)]; }
};

// One run of the updater: what it told and how it ended.
struct RunT {
    bool started = false;
    StoryT story;
    int waitStatus = 0;
    bool gaveUp = false;    // ended here, before anything was erased
    int interruptedBy = 0;  // the signal that the user had passed on; 0: none
    std::string untold;     // why it could not even be started
};

struct VerdictT {
    int status = kStatusInternal;
    CauseT cause = CauseT::kInternal;
    std::string headline;  // "FAILED: camera firmware, block 2 of 3: no answer within 4 s"
    std::string unit;      // what the unit holds now
    std::string next;      // what to do
    bool repeatable = false;
    // The whole paragraph.
    std::string Text() const;
};

// What the tries before this one did to an image's place.
struct EarlierT {
    bool sent = false;
    long from = -1;  // the version before; -1: not known
};

struct RecordT {
    OptionsT options;
    PlanT plan;
    EarlierT earlier[kImages];
    RunT ask;
    RunT update;
    RunT verify;
    bool filesChanged = false;  // any, since the check
    std::int64_t startMs = 0;
    std::int64_t updateMs = 0;  // how long all tries took
    VerdictT verdict;
};

}  // namespace watch
