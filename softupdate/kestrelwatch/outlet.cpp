// The writing thread.
#include "softupdate/kestrelwatch/outlet.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

namespace watch {

struct Outlet::StateT {
    struct PieceT {
        int fd;
        std::string bytes;
    };

    void Work();
    void Note(int fd, int error) {
        if (error != 0) {
            lost[fd] = error;
        }
    }

    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable idle;
    std::deque<PieceT> queue;
    std::map<int, int> lost;
    size_t waiting = 0;  // bytes
    size_t dropped = 0;
    bool ending = false;
    bool ended = false;
    WhenFullT whenFull = kLeaveOut;
    std::thread thread;
};

namespace {

const size_t kMaxWaiting = size_t{8} << 20;

// Writes everything; returns 0 or the error that makes it useless to go on. Where the disk is full
// the rest of the piece is given up, if that is as stated.
int WriteAll(int fd, std::string_view bytes, bool fullIsLost) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd ready = {fd, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if ((errno == ENOSPC || errno == EDQUOT) && !fullIsLost) {
            return 0;
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

}  // namespace

Outlet::Outlet(WhenFullT whenFull, int lastWaitMs)
    : state_(std::make_shared<StateT>()), lastWaitMs_(lastWaitMs) {
    state_->whenFull = whenFull;
    try {
        state_->thread = std::thread([state = state_] { state->Work(); });
    } catch (const std::system_error&) {
        state_->ended = true;
    }
}

Outlet::~Outlet() {
    std::unique_lock lock(state_->mutex);
    state_->ending = true;
    state_->wake.notify_one();
    const auto ended = [this] { return state_->ended; };
    if (lastWaitMs_ < 0) {
        state_->idle.wait(lock, ended);
    } else {
        state_->idle.wait_for(lock, std::chrono::milliseconds(lastWaitMs_), ended);
    }
    const bool over = state_->ended;
    lock.unlock();
    if (!state_->thread.joinable()) {
        return;
    }
    if (over) {
        state_->thread.join();
    } else {
        state_->thread.detach();
    }
}

void Outlet::Post(int fd, std::string bytes) {
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->lost.contains(fd)) {
            return;
        }
        if (!state_->thread.joinable()) {
            state_->Note(fd, WriteAll(fd, bytes, state_->whenFull == kGiveUp));
            return;
        }
        if (state_->waiting + bytes.size() > kMaxWaiting) {
            state_->dropped += bytes.size();
            return;
        }
        state_->waiting += bytes.size();
        state_->queue.push_back({fd, std::move(bytes)});
    }
    state_->wake.notify_one();
}

size_t Outlet::Waiting() {
    const std::lock_guard lock(state_->mutex);
    return state_->waiting;
}

int Outlet::Lost(int fd) {
    const std::lock_guard lock(state_->mutex);
    const auto found = state_->lost.find(fd);
    return found == state_->lost.end() ? 0 : found->second;
}

size_t Outlet::TakeDropped() {
    const std::lock_guard lock(state_->mutex);
    return state_->waiting == 0 ? std::exchange(state_->dropped, 0) : 0;
}

void Outlet::StateT::Work() {
    std::unique_lock lock(mutex);
    while (true) {
        wake.wait(lock, [this] { return ending || !queue.empty(); });
        if (queue.empty()) {
            ended = true;
            idle.notify_one();
            return;
        }
        const PieceT piece = std::move(queue.front());
        queue.pop_front();
        if (!lost.contains(piece.fd)) {
            lock.unlock();
            const int error = WriteAll(piece.fd, piece.bytes, whenFull == kGiveUp);
            lock.lock();
            Note(piece.fd, error);
        }
        waiting -= piece.bytes.size();
    }
}

}  // namespace watch
