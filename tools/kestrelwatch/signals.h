// The signals that kestrelwatch takes in its loop instead of being ended or stopped by them.
#pragma once

#include <vector>

#include "tools/kestrelwatch/fd.h"

namespace watch {

class Signals {
  public:
    // Blocks and collects SIGINT, SIGTERM, SIGQUIT, SIGTSTP, SIGHUP, SIGCHLD and SIGWINCH, and
    // ignores SIGPIPE, SIGTTIN and SIGTTOU. Call it before any thread exists, so that all threads
    // inherit it. Throws SetupError.
    Signals();

    // Readable when a signal has come.
    int Fd() const { return fd_.Get(); }

    // The signals that have come since the last call, without waiting.
    std::vector<int> Take();

    // Gives SIGINT, SIGTERM and SIGQUIT back their usual effect: nothing is left to protect, and
    // a terminal that stands still must not keep the user from ending kestrelwatch.
    void Release();

  private:
    watch::Fd fd_;
};

}  // namespace watch
