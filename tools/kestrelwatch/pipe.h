// The progress pipe: made (or taken over) before the updater starts, open for reading until it has
// ended, so that the updater's open never waits and its write always finds a reader.
#pragma once

#include <string>

#include "tools/kestrelwatch/fd.h"

namespace watch {

class ProgressPipe {
  public:
    // Makes a FIFO at `path`, or takes the one that is there; an empty path means a new private
    // folder under TMPDIR (or /tmp). Throws SetupError with kStatusPipe or kStatusFolder.
    explicit ProgressPipe(const std::string& path);
    ~ProgressPipe() { Remove(); }
    ProgressPipe(const ProgressPipe&) = delete;
    ProgressPipe& operator=(const ProgressPipe&) = delete;

    const std::string& Path() const { return path_; }
    // The reading end; does not block and never reports an end, as it holds a writer itself.
    int ReadFd() const { return fd_.Get(); }

    // Removes what this object made in the file system; a pipe that was there before stays.
    void Remove();

  private:
    void Make();

    std::string folder_;  // empty: not ours
    std::string path_;
    bool made_ = false;
    Fd fd_;
};

}  // namespace watch
