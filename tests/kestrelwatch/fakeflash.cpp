// Plays an updater for the launcher's tests. Each argument up to "-p" is one act, in order; what
// follows "-p" is the pipe and the range, as the real updater gets them. Positions are written as
// the real one does: the pipe opened, the number written, the pipe closed, the line printed.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

std::string pipePath;

void WritePipe(const char* text) {
    FILE* pipe = fopen(pipePath.c_str(), "w");
    if (pipe == nullptr) {
        printf("progressCtrlSetPos: could not open %s\n", pipePath.c_str());
        return;
    }
    fputs(text, pipe);
    fclose(pipe);
}

void Position(const char* number) {
    WritePipe(number);
    printf("percentdone: [%s]\n", number);
    fflush(stdout);
}

void UpTo(const char* last) {
    for (int number = 1; number <= atoi(last); number++) {
        Position(std::to_string(number).c_str());
    }
}

void Touch(const char* path) {
    fclose(fopen(path, "w"));
}

void WaitFor(const char* path) {
    struct stat status = {};
    while (stat(path, &status) != 0) {
        usleep(2000);
    }
}

void Kilobytes(const char* count) {
    for (int i = 0; i < atoi(count); i++) {
        printf("%08d %01014d\n", i, i);
    }
}

// Says so on the output and goes on, as an updater that will not be interrupted.
void Deaf(const char* signalNumber) {
    signal(atoi(signalNumber),
           [](int) { [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, "deaf\n", 5); });
}

const struct {
    const char* name;
    void (*act)(const char* rest);
} kActs[] = {
    {"say:", [](const char* text) { puts(text); }},
    {"part:", [](const char* text) { fputs(text, stdout), fflush(stdout); }},
    {"err:", [](const char* text) { fprintf(stderr, "%s\n", text); }},
    {"pos:", Position},
    {"upto:", UpTo},
    {"raw:", WritePipe},
    {"wait:", WaitFor},
    {"touch:", Touch},
    {"sleep:", [](const char* ms) { usleep(static_cast<useconds_t>(atoi(ms)) * 1000); }},
    {"kilobytes:", Kilobytes},
    {"deaf:", Deaf},
    {"raise:", [](const char* number) { raise(atoi(number)); }},
    {"exit:", [](const char* status) { exit(atoi(status)); }},
};

}  // namespace

int main(int argc, char** argv) {
    int end = 1;
    while (end < argc && strcmp(argv[end], "-p") != 0) {
        end++;
    }
    if (end + 3 != argc - 1) {
        puts("no -p with three values");
        return 99;
    }
    pipePath = argv[end + 1];
    for (int i = 1; i < end; i++) {
        for (const auto& act : kActs) {
            if (strncmp(argv[i], act.name, strlen(act.name)) == 0) {
                act.act(argv[i] + strlen(act.name));
                break;
            }
        }
    }
    return 0;
}
