// The unit's end of one serial line, as descriptors: the master of a raw pseudo-terminal, or
// something that is already there (a serial device, an inherited descriptor, a socket).
#pragma once

#include <string>
#include <utility>

namespace kestrelsim {

class Terminal {
  public:
    // Both throw std::runtime_error with a text for the user. `baud` 0 leaves the speed alone.
    static Terminal MakePseudo();
    // `where` is a device path, "fd:N" or "unix:PATH".
    static Terminal Attach(const std::string& where, int baud);

    Terminal(Terminal&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)),
          near_(std::exchange(other.near_, -1)),
          path_(std::move(other.path_)) {}
    Terminal& operator=(Terminal&&) = delete;
    ~Terminal();

    int fd() const { return fd_; }

    // The host's device of a pseudo-terminal; empty for an attached line.
    const std::string& path() const { return path_; }

    // Bytes that can be read now.
    size_t Pending() const;

    // Up to `size` bytes into `data` without waiting; below 0 when the other end is gone.
    long Read(unsigned char* data, size_t size) const;

    // Bytes that the line cannot take are lost, as on a wire.
    void Write(const unsigned char* data, size_t size) const;

    // The host's side, where it is open, hangs up. Nothing else may follow.
    void HangUp();

    // Holds the host's writes back, or lets them on. Only a pseudo-terminal can.
    void HoldHost(bool hold) const;

    // Throws away what the host has not read.
    void FlushToHost() const;

  private:
    Terminal(int fd, int near, std::string path) : fd_(fd), near_(near), path_(std::move(path)) {}

    int fd_;
    int near_;  // the host's side, kept open so that its closing does not end the line
    std::string path_;
};

}  // namespace kestrelsim
