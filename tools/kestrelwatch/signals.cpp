// A signal descriptor.
#include "tools/kestrelwatch/signals.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <string>

#include "tools/kestrelwatch/statuses.h"

namespace watch {

namespace {

sigset_t SetOf(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) {
        sigaddset(&set, number);
    }
    return set;
}

}  // namespace

Signals::Signals() {
    for (const int ignored : {SIGPIPE, SIGTTIN, SIGTTOU}) {
        signal(ignored, SIG_IGN);
    }
    // Inherited as ignored, it would hide how the updater ended.
    signal(SIGCHLD, SIG_DFL);
    const sigset_t taken = SetOf({SIGINT, SIGTERM, SIGQUIT, SIGTSTP, SIGHUP, SIGCHLD, SIGWINCH});
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    fd_ = watch::Fd(signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC));
    if (fd_.Get() < 0) {
        throw SetupError(kStatusInternal, std::string("no signals to be had: ") + strerror(errno));
    }
}

std::vector<int> Signals::Take() {
    std::vector<int> numbers;
    signalfd_siginfo info = {};
    while (read(fd_.Get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        numbers.push_back(static_cast<int>(info.ssi_signo));
    }
    return numbers;
}

void Signals::Release() {
    Take();
    const sigset_t released = SetOf({SIGINT, SIGTERM, SIGQUIT});
    pthread_sigmask(SIG_UNBLOCK, &released, nullptr);
}

}  // namespace watch
