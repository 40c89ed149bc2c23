// What the updater's output lines tell: what is being updated, what kind of run it is, which
// positions it reports, and why a success may be none. Knows the lines by their first words; lines
// it does not know mean nothing to it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace watch {

enum class RunT {
    kUpdate,       // expected to reach the end of the range
    kNothingToDo,  // a query that found no image to update
    kUpdateDue,    // a query that found one
    kReboot,       // the microcontroller was asked to reboot the camera; its image is not counted
};

class Story {
  public:
    // Takes one line without its line end. Returns the position when the line reports one.
    std::optional<int> Read(std::string_view line);

    // What is being updated and how far, such as "camera firmware: block 3 of 7, attempt 2".
    std::string What() const;

    // A number that grows with everything that counts as a movement of the update: another part,
    // another stage, another block. A repeated line or a repeated attempt is none.
    int Moves() const { return moves_; }

    RunT Run() const { return run_; }

    // Why the lines say that a success cannot be trusted; empty when they do not.
    const std::string& Doubt() const { return doubt_; }

    // Why no position can be expected any more; empty when there is no known reason.
    const std::string& NoProgress() const { return noProgress_; }

    // The updater could not open or write the pipe at least once.
    bool PipeTrouble() const { return pipeTrouble_; }

    // The last line by which the updater reported a failure; empty when there was none.
    const std::string& Trouble() const { return trouble_; }

  private:
    friend struct StoryRules;

    void Enter(const char* part, const char* stage);
    std::string StageText() const;

    std::string part_ = "updater";
    std::string stage_ = "starting";
    int block_ = -1;  // counted from 0; -1: the stage has no blocks
    int blocks_ = 0;  // 0: not known
    int attempt_ = 1;
    int cameraBlocks_ = 0;
    int systemBlocks_ = 0;
    int moves_ = 0;
    bool acknowledged_ = false;
    bool pipeTrouble_ = false;
    RunT run_ = RunT::kUpdate;
    std::string doubt_;
    std::string noProgress_;
    std::string trouble_;
};

}  // namespace watch
