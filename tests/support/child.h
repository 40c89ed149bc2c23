// A program under test as its users meet it: its outputs (through pipes, or a terminal of its own),
// the signals and keys it gets, its end.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

typedef std::vector<std::string> WordsT;

enum class UserT { kPipes, kTerminal };

class Child {
  public:
    // Starts a program by its path and arguments.
    Child(UserT user, const WordsT& words) {
        std::vector<char*> arguments(words.size() + 1, nullptr);
        for (size_t i = 0; i < words.size(); i++) {
            arguments[i] = const_cast<char*>(words[i].c_str());
        }
        int out[2] = {-1, -1};
        int err[2] = {-1, -1};
        if (user == UserT::kTerminal) {
            pid_ = forkpty(&out[0], nullptr, nullptr, nullptr);
        } else if (pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0) {
            pid_ = fork();
        }
        if (pid_ == 0) {
            setsid();
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execv(arguments[0], arguments.data());
            _exit(98);
        }
        close(out[1]);
        close(err[1]);
        outputFd_ = out[0];
        errorFd_ = err[0];
    }
    ~Child() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            End();
        }
        CloseOutput();
        close(errorFd_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void Signal(int number) const { kill(pid_, number); }
    bool Type(const std::string& keys) const {
        return write(outputFd_, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
    }
    // Gives the terminal another width.
    void Resize(size_t columns) const {
        winsize size = {24, static_cast<unsigned short>(columns), 0, 0};
        ioctl(outputFd_, TIOCSWINSZ, &size);
    }
    // Standard output's reader, or the whole terminal, goes away.
    void CloseOutput() {
        close(outputFd_);
        outputFd_ = -1;
    }

    // Reads until `text` has appeared behind what an earlier call found; false when it does not
    // within reason.
    bool Sees(const std::string& text) {
        while (!Found(output, text, &seenOutput_) && !Found(error, text, &seenError_)) {
            if (!ReadMore()) {
                return false;
            }
        }
        return true;
    }

    // Reads everything and waits for the end: the exit status, or -n for signal n.
    int End() {
        while (ReadMore()) {
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

    std::string output;  // of both, in the case of a terminal
    std::string error;

  private:
    static bool Found(const std::string& in, const std::string& text, size_t* from) {
        const size_t at = in.find(text, *from);
        *from = at == std::string::npos ? *from : at + text.size();
        return at != std::string::npos;
    }

    // An output that has ended is closed; the other may still say something.
    static void Take(const pollfd& end, int* fd, std::string* to) {
        if (end.revents == 0) {
            return;
        }
        char bytes[65536];
        const ssize_t count = read(*fd, bytes, sizeof(bytes));
        if (count > 0) {
            to->append(bytes, static_cast<size_t>(count));
        } else {
            close(*fd);
            *fd = -1;
        }
    }

    bool ReadMore() {
        pollfd ends[] = {{outputFd_, POLLIN, 0}, {errorFd_, POLLIN, 0}};
        if ((outputFd_ < 0 && errorFd_ < 0) || poll(ends, 2, 60000) <= 0) {
            return false;
        }
        Take(ends[0], &outputFd_, &output);
        Take(ends[1], &errorFd_, &error);
        return true;
    }

    pid_t pid_ = -1;
    int outputFd_ = -1;
    int errorFd_ = -1;
    size_t seenOutput_ = 0;
    size_t seenError_ = 0;
};
