// The client side of the launcher pipe.
#include "Common/OS/linux/launcher.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "Common/OS/linux/board.h"
#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/semaphores.h"
#include "Common/OS/log.h"

namespace {

constexpr int kLineSize = 128;

UInt32 sysCallSema;
pthread_once_t gOnce = PTHREAD_ONCE_INIT;

void MakeSemaphore() {
    sm_create("scall", 1, 0, &sysCallSema);
}

// One end of the pipe, closed when the scope ends, also by a task deleted while it waits.
class PipeT {
  public:
    explicit PipeT(int flags) : fd_(BoardOpenLauncher(flags)) {}
    ~PipeT() noexcept(false) {
        const NoCancelT no_cancel;
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    PipeT(const PipeT&) = delete;
    PipeT& operator=(const PipeT&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

// Keeps a broken pipe from ending the process, for the calling thread and this scope only.
class SigpipeOffT {
  public:
    SigpipeOffT() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
    }
    ~SigpipeOffT() noexcept(false) {
        const timespec now = {};
        if (!was_pending_) {
            sigtimedwait(&pipe_, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    SigpipeOffT(const SigpipeOffT&) = delete;
    SigpipeOffT& operator=(const SigpipeOffT&) = delete;

  private:
    sigset_t pipe_;
    sigset_t old_;
    bool was_pending_;
};

bool SendCommand(const char* command) {
    const PipeT pipe(O_WRONLY);
    if (pipe.fd() < 0) {
        return false;
    }
    // A launcher that went away between open and write leaves it to the answer to tell.
    const SigpipeOffT quiet;
    dprintf(pipe.fd(), "%s\n", command);
    return true;
}

// Stores the first line of the answer, cut at 127 characters; an empty line when there was none.
bool ReadAnswer(char (&line)[kLineSize]) {
    const PipeT pipe(O_RDONLY);
    if (pipe.fd() < 0) {
        return false;
    }
    int length = 0;
    while (length < kLineSize - 1 && memchr(line, '\n', static_cast<size_t>(length)) == nullptr) {
        const ssize_t got =
            read(pipe.fd(), line + length, static_cast<size_t>(kLineSize - 1 - length));
        if (got <= 0) {
            break;
        }
        length += static_cast<int>(got);
    }
    line[length] = '\0';
    return true;
}

}  // namespace

int system_pthread(const char* command) {
    pthread_once(&gOnce, MakeSemaphore);
    const CancellableSemGuardT guard(sysCallSema);
    int result = -1;
    char line[kLineSize] = "";
    if (SendCommand(command) && ReadAnswer(line)) {
        if (line[0] != '\0') {
            result = atoi(line);
        }
        loginfo("system_pthread", "%s [%d]\n", command, result);
    } else {
        const int err = errno;
        logerr("system_pthread", "%s [%d %s]\n", command, err, strerror(err));
    }
    return result;
}
