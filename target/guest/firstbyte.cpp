// firstbyte LINE RUNS PROGRAM ARGUMENT... : how long a program takes from its start to its first
// byte on a serial line, LINE being the line's other end. Starts the program RUNS times, ends it at
// that byte, and prints the median in microseconds.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

constexpr int kPatienceMs = 30000;

long Microseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

// Below 0 when no byte came.
long Measure(int line, char** program) {
    tcflush(line, TCIOFLUSH);
    const long start = Microseconds();
    const pid_t pid = fork();
    if (pid == 0) {
        const int silence = open("/dev/null", O_WRONLY);
        dup2(silence, STDOUT_FILENO);
        execv(program[0], program);
        _exit(127);
    }
    pollfd ready{line, POLLIN, 0};
    const bool came = poll(&ready, 1, kPatienceMs) == 1;
    const long taken = Microseconds() - start;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return came ? taken : -1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fputs("usage: firstbyte LINE RUNS PROGRAM ARGUMENT...\n", stderr);
        return 2;
    }
    const int line = open(argv[1], O_RDWR | O_NOCTTY);
    if (line < 0) {
        perror(argv[1]);
        return 1;
    }
    std::vector<long> taken;
    for (int run = atoi(argv[2]); run > 0; --run) {
        taken.push_back(Measure(line, argv + 3));
    }
    std::sort(taken.begin(), taken.end());
    if (taken.empty() || taken.front() < 0) {
        fputs("no byte came\n", stderr);
        return 1;
    }
    printf("%ld\n", taken[taken.size() / 2]);
    return 0;
}
