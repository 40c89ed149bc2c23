// The board's eight serial lines as pseudo-terminals: a folder of their nodes that HARBOR_DEV_DIR
// names for the life of the object, and the far end of each line.
#pragma once

#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "tests/support/folder.h"

class PtyLines {
  public:
    static constexpr int kCount = 8;

    PtyLines() {
        setenv("HARBOR_DEV_DIR", folder_.Path("").c_str(), 1);
        for (int port = 0; port < kCount; port++) {
            char name[64];
            openpty(&far_[port], &near_[port], name, nullptr, nullptr);
            std::filesystem::create_symlink(name, Node(port));
        }
    }
    ~PtyLines() {
        for (int port = 0; port < kCount; port++) {
            HangUp(port);
        }
    }

    // The far end goes, as when a cable with its adapter is pulled; its node stays.
    void HangUp(int port) {
        close(near_[port]);
        close(far_[port]);
        near_[port] = far_[port] = -1;
    }

    std::string Node(int port) const {
        static constexpr const char* kNodes[kCount] = {"fpgaserial0", "fpgaserial1", "fpgaserial4",
                                                       "fpgaserial5", "ttyS1",       "fpgaserial6",
                                                       "ttyUSB0",     "ttyUSB1"};
        return folder_.Path(kNodes[port]);
    }

    int near(int port) const { return near_[port]; }

    void Send(int port, std::string bytes) const {
        while (!bytes.empty()) {
            const ssize_t sent = write(far_[port], bytes.data(), bytes.size());
            bytes.erase(0, sent > 0 ? static_cast<size_t>(sent) : 0);
        }
    }

    // What the near end has written and nobody has taken yet.
    std::string Taken(int port) const {
        std::string bytes;
        for (int count = 0; ioctl(far_[port], FIONREAD, &count) == 0 && count > 0;) {
            char byte;
            bytes.append(&byte, read(far_[port], &byte, 1) == 1 ? 1 : 0);
        }
        return bytes;
    }

    termios Attributes(int port) const {
        termios line = {};
        tcgetattr(near_[port], &line);
        return line;
    }

    // As one of the constants B9600...; the attribute itself is bits per second on some processors.
    speed_t Speed(int port) const {
        const termios line = Attributes(port);
        return cfgetospeed(&line);
    }

  private:
    const FolderT folder_;
    int far_[kCount];
    int near_[kCount];
};
