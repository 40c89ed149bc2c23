// Pseudo-terminals and attached descriptors, both without waiting.
#include "tools/kestrelsim/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>

namespace kestrelsim {
namespace {

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

// 8 data bits, even parity, 1 stop bit, no translation of any byte.
void MakeRaw(int fd, int baud) {
    termios settings{};
    if (tcgetattr(fd, &settings) != 0) {
        return;
    }
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD | PARENB;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    const struct {
        int baud;
        speed_t speed;
    } speeds[] = {{9600, B9600},   {19200, B19200},   {38400, B38400},
                  {57600, B57600}, {115200, B115200}, {0, B115200}};
    for (const auto& it : speeds) {
        if (it.baud == baud) {
            cfsetispeed(&settings, it.speed);
            cfsetospeed(&settings, it.speed);
        }
    }
    tcsetattr(fd, TCSANOW, &settings);
}

int ConnectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        Fail(path);
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        Fail("cannot connect to " + path);
    }
    return fd;
}

bool StartsWith(const std::string& text, const char* start) {
    return text.rfind(start, 0) == 0;
}

}  // namespace

Terminal Terminal::MakePseudo() {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    char path[64];
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, path, sizeof path) != 0) {
        Fail("cannot make a pseudo-terminal");
    }
    const int near = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (near < 0) {
        Fail(path);
    }
    MakeRaw(near, 0);
    return {master, near, path};
}

Terminal Terminal::Attach(const std::string& where, int baud) {
    int fd = -1;
    if (StartsWith(where, "fd:")) {
        fd = fcntl(atoi(where.c_str() + 3), F_DUPFD_CLOEXEC, 3);
    } else if (StartsWith(where, "unix:")) {
        fd = ConnectTo(where.substr(5));
    } else {
        fd = open(where.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    }
    if (fd < 0) {
        Fail("cannot attach " + where);
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    MakeRaw(fd, baud);
    return {fd, -1, ""};
}

Terminal::~Terminal() {
    for (const int fd : {near_, fd_}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

size_t Terminal::Pending() const {
    int count = 0;
    return ioctl(fd_, FIONREAD, &count) == 0 && count > 0 ? static_cast<size_t>(count) : 0;
}

long Terminal::Read(unsigned char* data, size_t size) const {
    const ssize_t count = read(fd_, data, size);
    if (count > 0) {
        return count;
    }
    return count < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
}

void Terminal::Write(const unsigned char* data, size_t size) const {
    while (size > 0) {
        const ssize_t count = write(fd_, data, size);
        if (count <= 0) {
            return;
        }
        data += count;
        size -= static_cast<size_t>(count);
    }
}

void Terminal::HangUp() {
    close(std::exchange(fd_, -1));
}

void Terminal::HoldHost(bool hold) const {
    if (near_ >= 0) {
        tcflow(near_, hold ? TCOOFF : TCOON);
    }
}

void Terminal::FlushToHost() const {
    if (near_ >= 0) {
        tcflush(near_, TCIFLUSH);
    }
}

}  // namespace kestrelsim
