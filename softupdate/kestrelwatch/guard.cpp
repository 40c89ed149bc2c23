// The guard process.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "softupdate/kestrelwatch/run.h"

namespace watch {

namespace {

void LeaveTerminal() {
    setsid();
    prctl(PR_SET_NAME, "kestrelguard");
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        dup2(nothing, fd);
    }
    close(nothing);
}

// Reads and drops until both outputs have ended.
void Drain(int pipeFd, int outputFd, int errorFd) {
    pollfd ends[] = {{pipeFd, POLLIN, 0}, {outputFd, POLLIN, 0}, {errorFd, POLLIN, 0}};
    std::string dropped;
    while (ends[1].fd >= 0 || ends[2].fd >= 0) {
        if (poll(ends, 3, -1) < 0 && errno != EINTR) {
            return;
        }
        for (pollfd& end : ends) {
            dropped.clear();
            if (end.fd >= 0 && end.revents != 0 && ReadSome(end.fd, &dropped) == ReadT::kEnd) {
                end.fd = -1;
            }
        }
    }
}

// True when kestrelwatch said goodbye, false when it went without.
bool WaitForGoodbye(int lifelineFd) {
    pollfd lifeline = {lifelineFd, POLLIN, 0};
    while (poll(&lifeline, 1, -1) < 0 && errno == EINTR) {
    }
    std::string word;
    return ReadSome(lifelineFd, &word) == ReadT::kBytes;
}

}  // namespace

bool Guard::Start(Place* place, ChannelsT* channels) {
    ChannelT lifeline;
    if (!OpenPipeChannel(&lifeline)) {
        return false;
    }
    pid_ = fork();
    if (pid_ < 0) {
        return false;
    }
    if (pid_ == 0) {
        lifeline.write.Close();
        channels->output.write.Close();
        channels->error.write.Close();
        LeaveTerminal();
        if (!WaitForGoodbye(lifeline.read.Get())) {
            Drain(place->PipeFd(), channels->output.read.Get(), channels->error.read.Get());
            place->Remove();
        }
        _exit(0);
    }
    lifeline_ = std::move(lifeline.write);
    return true;
}

Guard::~Guard() {
    if (pid_ > 0) {
        // A guard that somebody killed is no reason to fail; one that cannot be told would wait for
        // channels that this process still holds.
        if (write(lifeline_.Get(), "x", 1) != 1) {
            kill(pid_, SIGKILL);
        }
        lifeline_.Close();
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

}  // namespace watch
