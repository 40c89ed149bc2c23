// wire COMMAND... : runs the command with two serial lines that take the time of 115200 bit/s. The
// command finds their ends as sockets at descriptors 20 and 21, and 22 and 23. An end takes only a
// few bytes ahead of the line, as an adapter's buffer does: who drives it sees when the line is
// busy.
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr int kLines = 2;
constexpr int kFirstDescriptor = 20;
constexpr double kByteSeconds = 11 / 115200.0;  // start, 8 data, parity and stop bit
constexpr double kMostCredit = 0.005;           // seconds of the line made up for after a stall
constexpr int kTickMilliseconds = 1;
constexpr int kBacklog = 16384;  // of an end, as the kernel counts it: some forty single bytes

double Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// One direction of a line.
struct WayT {
    int from = -1;
    int to = -1;
    double free = 0;  // when the line is through with what it has carried
    bool ended = false;
};

// Carries what the line has had the time for since the last call.
void Carry(WayT* way, double now) {
    way->free = std::max(way->free, now - kMostCredit);
    while (!way->ended && way->free + kByteSeconds <= now) {
        char byte = 0;
        const ssize_t got = recv(way->from, &byte, 1, MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
            way->free = now;  // the line stands idle
            return;
        }
        way->ended = got <= 0 || send(way->to, &byte, 1, MSG_NOSIGNAL) != 1;
        way->free += kByteSeconds;
    }
}

// Until the command has ended.
void CarryAll(WayT* ways, int count) {
    const auto ended = [](const WayT& way) { return way.ended; };
    while (!std::any_of(ways, ways + count, ended)) {
        pollfd waiting[2 * kLines] = {};
        for (int i = 0; i < count; i++) {
            waiting[i] = {ways[i].from, POLLIN, 0};
        }
        poll(waiting, static_cast<nfds_t>(count), -1);
        poll(nullptr, 0, kTickMilliseconds);
        for (int i = 0; i < count; i++) {
            Carry(&ways[i], Now());
        }
    }
}

// One end: the command's descriptor, and the other one's number.
int MakeEnd(int descriptor) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0 ||
        setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &kBacklog, sizeof kBacklog) != 0 ||
        dup2(pair[0], descriptor) < 0) {
        return -1;
    }
    close(pair[0]);
    return pair[1];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fputs("usage: wire COMMAND...\n", stderr);
        return 2;
    }
    WayT ways[2 * kLines];
    for (int line = 0; line < kLines; line++) {
        const int a = MakeEnd(kFirstDescriptor + 2 * line);
        const int b = MakeEnd(kFirstDescriptor + 2 * line + 1);
        if (a < 0 || b < 0) {
            perror("wire");
            return 1;
        }
        ways[2 * line] = {a, b};
        ways[2 * line + 1] = {b, a};
    }
    const pid_t child = fork();
    if (child == 0) {
        for (int end = 0; end < 2 * kLines; end++) {
            close(kFirstDescriptor + end);
        }
        CarryAll(ways, 2 * kLines);
        _exit(0);
    }
    if (child > 0) {
        execvp(argv[1], argv + 1);
    }
    perror(argv[1]);
    return 1;
}
