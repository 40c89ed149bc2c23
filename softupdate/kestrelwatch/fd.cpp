// Descriptors: closing, pipes, pseudo-terminals, reading.
#include "softupdate/kestrelwatch/fd.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

namespace watch {

namespace {

// More than a pipe holds, so that one read takes all of it and never ends inside a number.
const size_t kReadSize = 65536 + 1;

bool MakeRaw(int fd) {
    termios settings = {};
    if (tcgetattr(fd, &settings) != 0) {
        return false;
    }
    cfmakeraw(&settings);
    return tcsetattr(fd, TCSANOW, &settings) == 0;
}

}  // namespace

void Fd::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

bool OpenPipeChannel(ChannelT* channel) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    *channel = {Fd(ends[0]), Fd(ends[1])};
    return fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0;
}

bool OpenTerminalChannel(ChannelT* channel) {
    Fd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    char name[64];
    if (master.Get() < 0 || grantpt(master.Get()) != 0 || unlockpt(master.Get()) != 0 ||
        ptsname_r(master.Get(), name, sizeof(name)) != 0) {
        return OpenPipeChannel(channel);
    }
    Fd slave(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (slave.Get() < 0 || !MakeRaw(slave.Get()) ||
        fcntl(master.Get(), F_SETFL, O_RDWR | O_NONBLOCK) != 0) {
        return OpenPipeChannel(channel);
    }
    *channel = {std::move(master), std::move(slave)};
    return true;
}

ReadT ReadSome(int fd, std::string* into) {
    const size_t before = into->size();
    into->resize(before + kReadSize);
    ssize_t count = 0;
    do {
        count = read(fd, into->data() + before, kReadSize);
    } while (count < 0 && errno == EINTR);
    into->resize(before + (count > 0 ? static_cast<size_t>(count) : 0));
    if (count > 0) {
        return ReadT::kBytes;
    }
    // A pseudo-terminal whose other side is closed answers EIO.
    return count < 0 && errno == EAGAIN ? ReadT::kNothing : ReadT::kEnd;
}

}  // namespace watch
