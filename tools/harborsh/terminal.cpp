#include "tools/harborsh/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

// readline's header needs the names of stdio.
#include <readline/history.h>
#include <readline/readline.h>

#include "tools/harborsh/completion.h"

namespace harborsh {
namespace {

constexpr int kPipeSize = 1 << 20;  // commands that run in the main task print into it too

std::string* gLine;  // where the finished line goes
bool gDone;
bool gEndOfInput;
int gInterrupts[2] = {-1, -1};  // a pipe: the signal handler writes, who looks for it reads

void OnLine(char* text) {
    gDone = true;
    gEndOfInput = text == nullptr;
    if (text != nullptr) {
        *gLine = text;
        if (*text != '\0') {
            add_history(text);
        }
        free(text);
    }
    rl_callback_handler_remove();
}

void OnInterrupt(int) {
    const int before = errno;
    if (write(gInterrupts[1], "", 1) < 0) {
        // The pipe is full of interrupts that nobody has seen yet.
    }
    errno = before;
}

bool TakeInterrupts() {
    char bytes[16];
    bool any = false;
    while (read(gInterrupts[0], bytes, sizeof(bytes)) > 0) {
        any = true;
    }
    return any;
}

void WriteAll(int fd, const char* data, ssize_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, static_cast<size_t>(size));
        if (written < 0 && errno != EINTR) {
            return;
        }
        if (written > 0) {
            data += written;
            size -= written;
        }
    }
}

}  // namespace

Terminal::Terminal(const char* prompt)
    : prompt_(prompt), out_(dup(STDOUT_FILENO)), error_(dup(STDERR_FILENO)), pipe_(-1) {
    int ends[2];
    if (pipe(ends) == 0) {
        pipe_ = ends[0];
        fcntl(pipe_, F_SETFL, O_NONBLOCK);
        fcntl(pipe_, F_SETPIPE_SZ, kPipeSize);
        fflush(stdout);
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
    }
    rl_outstream = fdopen(dup(out_), "w");
    rl_catch_signals = 0;
    // Keys are read one by one also while a command runs: otherwise the terminal would take Ctrl-D
    // for itself, and the shell would not end.
    rl_deprep_term_function = nullptr;
    rl_readline_name = "harborsh";
    rl_attempted_completion_function = CompleteWord;
    using_history();
    if (pipe2(gInterrupts, O_NONBLOCK | O_CLOEXEC) != 0) {
        return;  // interrupts end the shell
    }
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigaction(SIGINT, &action, nullptr);
}

Terminal::~Terminal() {
    fflush(stdout);
    Pump();
    dup2(out_, STDOUT_FILENO);
    dup2(error_, STDERR_FILENO);
    signal(SIGINT, SIG_DFL);
    rl_deprep_terminal();
    fclose(rl_outstream);
    close(out_);
    close(error_);
    close(pipe_);
}

void Terminal::Show(bool editing) {
    char data[4096];
    ssize_t got = read(pipe_, data, sizeof(data));
    if (got <= 0) {
        return;
    }
    if (editing) {
        rl_clear_visible_line();
        fflush(rl_outstream);
    }
    char last = '\n';
    for (; got > 0; got = read(pipe_, data, sizeof(data))) {
        WriteAll(out_, data, got);
        last = data[got - 1];
    }
    if (editing) {
        if (last != '\n') {
            WriteAll(out_, "\n", 1);
        }
        rl_on_new_line();
        rl_redisplay();
    }
}

bool Terminal::Pump() {
    Show(false);
    return !TakeInterrupts();
}

bool Terminal::ReadLine(std::string* line) {
    gLine = line;
    gDone = gEndOfInput = false;
    Show(false);
    rl_callback_handler_install(prompt_.c_str(), OnLine);
    while (!gDone) {
        pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {pipe_, POLLIN, 0}, {gInterrupts[0], POLLIN, 0}};
        poll(fds, 3, -1);
        if (TakeInterrupts()) {
            WriteAll(out_, "^C\n", 3);
            rl_free_line_state();
            rl_replace_line("", 0);
            rl_on_new_line();
            rl_redisplay();
            continue;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            Show(true);
        }
        if ((fds[0].revents & (POLLIN | POLLHUP)) != 0) {
            rl_callback_read_char();
        }
    }
    return !gEndOfInput;
}

}  // namespace harborsh
