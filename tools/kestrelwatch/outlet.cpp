// The writing thread.
#include "tools/kestrelwatch/outlet.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <string_view>
#include <utility>

namespace watch {

namespace {

const size_t kMaxWaiting = size_t{8} << 20;

// Writes everything; returns 0 or the error that makes it useless to go on. Where the disk is full
// the rest of the piece is given up, as there may be room for a later one.
int WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd ready = {fd, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if (errno == ENOSPC || errno == EDQUOT) {
            return 0;
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

}  // namespace

Outlet::Outlet() : thread_([this] { Work(); }) {}

Outlet::~Outlet() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void Outlet::Post(int fd, std::string bytes) {
    {
        const std::lock_guard lock(mutex_);
        if (lost_.contains(fd)) {
            return;
        }
        if (waiting_ + bytes.size() > kMaxWaiting) {
            dropped_ += bytes.size();
            return;
        }
        waiting_ += bytes.size();
        queue_.push_back({fd, std::move(bytes)});
    }
    wake_.notify_one();
}

size_t Outlet::Waiting() {
    const std::lock_guard lock(mutex_);
    return waiting_;
}

int Outlet::Lost(int fd) {
    const std::lock_guard lock(mutex_);
    const auto found = lost_.find(fd);
    return found == lost_.end() ? 0 : found->second;
}

size_t Outlet::TakeDropped() {
    const std::lock_guard lock(mutex_);
    return waiting_ == 0 ? std::exchange(dropped_, 0) : 0;
}

void Outlet::Work() {
    std::unique_lock lock(mutex_);
    while (true) {
        wake_.wait(lock, [this] { return ending_ || !queue_.empty(); });
        if (queue_.empty()) {
            return;
        }
        const PieceT piece = std::move(queue_.front());
        queue_.pop_front();
        if (!lost_.contains(piece.fd)) {
            lock.unlock();
            const int error = WriteAll(piece.fd, piece.bytes);
            lock.lock();
            if (error != 0) {
                lost_[piece.fd] = error;
            }
        }
        waiting_ -= piece.bytes.size();
    }
}

}  // namespace watch
