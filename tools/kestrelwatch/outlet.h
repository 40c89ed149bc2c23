// Writes to the user's side (a terminal, a pipe to a pager, a log file) from a thread of its own,
// so that a terminal that stands still or a reader that does not read never keeps kestrelwatch
// from serving the updater. Post, Waiting, Lost and TakeDropped may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace watch {

class Outlet {
  public:
    Outlet();
    // Waits until everything has been written or its descriptor is lost.
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
    struct PieceT {
        int fd;
        std::string bytes;
    };

    void Work();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<PieceT> queue_;
    std::map<int, int> lost_;
    size_t waiting_ = 0;  // bytes
    size_t dropped_ = 0;
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace watch
