// The state of a run as a person wants it: how far, for how long, at what, and whether anything
// still moves; at the end, what the updater's status is worth. Pure: times come in as monotonic
// milliseconds, no calls go out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kestrelwatch/positions.h"
#include "tools/kestrelwatch/story.h"

namespace watch {

// What a bar or a plain line shows.
struct SightT {
    int percent = 0;
    std::int64_t elapsedMs = 0;
    std::int64_t stillMs = 0;  // how long nothing has moved, once that is worth a warning; else 0
    std::string what;
    std::string note;  // shown instead of all this text while it is there
};

// How a run ended: the exit status and the lines that explain it.
struct EndingT {
    int status = 0;
    std::vector<std::string> lines;
};

class ProgressModel {
  public:
    // `stallMs` is the time without movement after which Stalled speaks up; 0: never.
    ProgressModel(RangeT range, std::int64_t stallMs, std::int64_t startMs);

    // Bytes of the pipe, and output lines (without line end). Feed the pipe first.
    void Pipe(std::string_view bytes, std::int64_t nowMs);
    void Line(std::string_view line, std::int64_t nowMs);

    // Lets waiting digits settle and notes movement. Call it when DueMs says so.
    void Tick(std::int64_t nowMs);

    // The next time at which Tick or a warning has something to do; -1: none.
    std::int64_t DueMs() const;

    // Notices for the user that have become due since the last call: nothing moves, it moves
    // again, the pipe cannot be written. Mostly empty.
    std::vector<std::string> Notices(std::int64_t nowMs);

    SightT Sight(std::int64_t nowMs) const;

    // Judges the end. `waitStatus` is what waitpid gave. Settles everything that still waits.
    EndingT End(int waitStatus, bool strict, std::int64_t nowMs);

  private:
    void NoteMovement(std::int64_t nowMs);
    std::string Reached() const;
    std::string Doubt() const;
    void AddTrouble(EndingT* ending) const;

    RangeT range_;
    PositionStream positions_;
    Story story_;
    std::int64_t stallMs_;
    std::int64_t startMs_;
    std::int64_t movedMs_;
    std::int64_t warnDueMs_;
    std::int64_t stoodMs_ = 0;  // of the still time that ended last and was warned of
    bool warned_ = false;
    bool pipeTroubleTold_ = false;
    int seenPosition_ = 0;
    int seenMoves_ = 0;
};

}  // namespace watch
