// The FPGA serial driver's substitute as a process of its own, for the time of a test. The
// program's path is compiled in.
#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/child.h"
#include "tests/support/folder.h"

class DriverProcess {
  public:
    // `line`: further arguments, such as those of --line.
    explicit DriverProcess(const WordsT& line = {}) {
        WordsT words = {FPGASERIAL_PROGRAM, "--log", folder_.Path("log")};
        words.insert(words.end(), line.begin(), line.end());
        program_.emplace(UserT::kPipes, words);
        EXPECT_TRUE(program_->Sees("ready")) << "the driver did not start";
    }

    // All that the driver saw so far.
    std::string Log() const { return folder_.Get("log"); }

  private:
    const FolderT folder_;
    std::optional<Child> program_;
};
