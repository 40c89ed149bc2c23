// A file descriptor with an owner, and the few calls on descriptors that several files share.
#pragma once

#include <string>
#include <utility>

namespace watch {

// Closes its descriptor when it goes. Moved, not copied; -1 stands for none.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { Close(); }
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            Close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int Get() const { return fd_; }
    void Close();

  private:
    int fd_;
};

// Two joined ends: what is written to the one is read from the other.
struct ChannelT {
    Fd read;   // does not block
    Fd write;  // for the other process
};

// A plain pipe whose ends are closed on exec. False when the system has none left.
bool OpenPipeChannel(ChannelT* channel);

// A pseudo-terminal in raw mode, so that the writer's standard output is line-buffered and each
// line arrives when it is printed, byte for byte; a plain pipe where there are no pseudo-terminals.
bool OpenTerminalChannel(ChannelT* channel);

enum class ReadT { kNothing, kBytes, kEnd };

// Appends to `into` what one read call gives, at most a pipe's whole capacity. `fd` must not
// block. kEnd: the writers are gone and nothing is left.
ReadT ReadSome(int fd, std::string* into);

}  // namespace watch
