// How far an update is and how long it still takes, computed from the images themselves: every
// block's time on the line, stuffing included, and the pauses that the updater makes. Pure: times
// come in as monotonic milliseconds.
#pragma once

#include "softupdate/kestrelwatch/record.h"

namespace watch {

// What a bar or a plain line shows.
struct SightT {
    int percent = 0;      // of the bytes to send, acknowledged
    double inFlight = 0;  // share of all bytes that is on its way, 0 to 1
    std::int64_t elapsedMs = 0;
    std::int64_t leftMs = -1;  // until the verdict; -1: not known
    int rate = 0;              // acknowledged bytes a second; 0: not known
    std::int64_t stillMs = 0;  // how long nothing has moved, once worth a warning; else 0
    std::string what;
    std::string note;  // shown instead of all this text while it is there
};

class Pace {
  public:
    // Plans the update that `ask` found due, with the last question where one is wanted.
    void Plan(const RecordT& record);
    // Takes in what the story has come to. Call it after every line.
    void Follow(const StoryT& story, std::int64_t nowMs);
    // Fills percentage, time left and rate.
    void Fill(std::int64_t nowMs, SightT* sight) const;

    std::int64_t Acknowledged() const { return acknowledged_; }  // bytes
    std::int64_t Total() const { return total_; }                // bytes

  private:
    // What follows one after the other; a block, or a pause of the updater's.
    struct StepT {
        enum KindT {
            kStart,
            kBlock,
            kMicroRestart,
            kCameraAsk,
            kCameraMode,
            kCameraRestart,
            kAsk
        } kind;
        ImageT image;
        int block;
        int bytes;
        double ms;
    };

    void PlanMicro(const PlanT& plan);
    void PlanCamera(const PlanT& plan, bool camera, bool system);
    size_t Find(const StoryT& story) const;
    double Needs(const StepT& step) const;  // milliseconds

    std::vector<StepT> steps_;
    size_t at_ = 0;
    bool begun_ = false;
    bool taken_ = false;        // the current step's block is acknowledged
    std::int64_t stepMs_ = 0;   // when the current step began
    std::int64_t firstMs_ = 0;  // when the first block of the current target went out
    std::int64_t firstBytes_ = 0;
    std::int64_t total_ = 0;
    std::int64_t acknowledged_ = 0;
    // How much longer than the line needs a block took, at the least, as a share of its time: what
    // a unit itself needs comes with every block, a stall of the machine does not. -1: not known.
    double late_[kTargets] = {-1, -1};
    std::int64_t lastAckMs_ = 0;
};

}  // namespace watch
