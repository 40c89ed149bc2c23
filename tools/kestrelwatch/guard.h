// What keeps the updater alive when kestrelwatch itself is killed: a small process forked before
// the updater starts, which holds the reading ends too. While kestrelwatch lives it only sleeps.
// When kestrelwatch goes without a word, it reads and drops whatever the updater still sends until
// the updater has closed its outputs, then removes the pipe.
#pragma once

#include <sys/types.h>

#include "tools/kestrelwatch/fd.h"
#include "tools/kestrelwatch/pipe.h"

namespace watch {

class Guard {
  public:
    // Forks. Call it before any thread exists. In the guard, all channels' writing ends are
    // closed. Throws SetupError when no process can be made.
    Guard(ProgressPipe& pipe, ChannelT& output, ChannelT& error);
    // Dismisses the guard, unless Arm was called: then the guard takes over.
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    // From now on the updater runs and may need the guard.
    void Arm() { armed_ = true; }

    // The updater has ended: lets the guard go and waits for it.
    void Dismiss();

  private:
    pid_t pid_ = -1;
    Fd lifeline_;
    bool armed_ = false;
};

}  // namespace watch
