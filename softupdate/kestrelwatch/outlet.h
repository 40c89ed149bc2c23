// Writes to somebody else's side (a terminal, a pipe to a pager, a log file) from a thread of its
// own, so that a terminal that stands still or a reader that does not read never keeps kestrelwatch
// from serving the updater. Where the system has no thread left, whoever posts writes and waits.
// Any thread may call.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace watch {

class Outlet {
  public:
    enum WhenFullT {
        kLeaveOut,  // there may be room on the disk for a later piece
        kGiveUp,    // what misses a piece is worth nothing: the descriptor counts as lost
    };

    // `lastWaitMs` is how long the end waits for what is not written yet; -1: for ever.
    explicit Outlet(WhenFullT whenFull = kLeaveOut, int lastWaitMs = -1);
    // Waits as stated, or until the descriptors are lost.
    ~Outlet();
    Outlet(const Outlet&) = delete;
    Outlet& operator=(const Outlet&) = delete;

    // Queues bytes for a descriptor; never blocks. Bytes for a lost descriptor are dropped, and so
    // is what comes while more than 8 MiB wait.
    void Post(int fd, std::string bytes);

    // How many bytes have been posted and not yet written.
    size_t Waiting();

    // The error that ended writing to `fd` (its terminal hung up, its reader went); 0: none.
    int Lost(int fd);

    // How many bytes were dropped because too many waited, once they wait no more; else 0. Forgets
    // them.
    size_t TakeDropped();

  private:
    struct StateT;

    std::shared_ptr<StateT> state_;  // the thread has it too, and may outlive this object
    int lastWaitMs_;
};

}  // namespace watch
