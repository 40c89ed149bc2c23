// The terminal where there is no readline: whole lines, as the terminal driver edits them.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "tools/harborsh/terminal.h"

namespace harborsh {
namespace {

volatile sig_atomic_t gInterrupted;

void OnInterrupt(int) {
    gInterrupted = 1;
}

}  // namespace

Terminal::Terminal(const char* prompt)
    : prompt_(prompt), out_(STDOUT_FILENO), error_(STDERR_FILENO), pipe_(-1) {
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;  // without SA_RESTART: an interrupt ends the reading
    sigaction(SIGINT, &action, nullptr);
}

Terminal::~Terminal() {
    signal(SIGINT, SIG_DFL);
}

void Terminal::Show(bool) {
    fflush(stdout);
}

bool Terminal::Pump() {
    Show(false);
    const bool interrupted = gInterrupted != 0;
    gInterrupted = 0;
    return !interrupted;
}

bool Terminal::ReadLine(std::string* line) {
    line->clear();
    printf("%s", prompt_.c_str());
    Show(true);
    for (char byte = '\0';;) {
        const ssize_t got = read(STDIN_FILENO, &byte, 1);
        if (got < 0 && errno == EINTR) {
            Pump();
            line->clear();
            printf("\n%s", prompt_.c_str());
            Show(true);
        } else if (got <= 0) {
            return false;
        } else if (byte == '\n') {
            return true;
        } else {
            *line += byte;
        }
    }
}

}  // namespace harborsh
