// Plays an updater for the launcher's tests. Each argument up to "-p" is one act, in order; what
// follows "-p" is the pipe and the range, as the real updater gets them. Positions are written as
// the real one does: the pipe opened, the number written, the pipe closed, the line printed.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

const char* pipePath = "";

void WritePipe(const char* text) {
    FILE* pipe = fopen(pipePath, "w");
    if (pipe == nullptr) {
        printf("progressCtrlSetPos: could not open %s\n", pipePath);
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

const struct {
    const char* name;
    void (*act)(const char* rest);
} kActs[] = {
    {"say:", [](const char* text) { puts(text); }},
    {"part:", [](const char* text) { fputs(text, stdout), fflush(stdout); }},
    {"err:", [](const char* text) { fprintf(stderr, "%s\n", text); }},
    {"pos:", Position},
    {"raw:", WritePipe},
    {"upto:",
     [](const char* last) {
         for (int number = 1; number <= atoi(last); number++) {
             Position(std::to_string(number).c_str());
         }
     }},
    {"wait:",
     [](const char* path) {
         // A test that failed takes its folder along; nobody else would end this.
         for (char folder[4096]; access(path, F_OK) != 0 && getcwd(folder, sizeof(folder));) {
             usleep(2000);
         }
     }},
    {"touch:", [](const char* path) { fclose(fopen(path, "w")); }},
    {"sleep:", [](const char* ms) { usleep(static_cast<useconds_t>(atoi(ms)) * 1000); }},
    {"kilobytes:",
     [](const char* count) {
         for (int i = 0; i < atoi(count); i++) {
             printf("%08d %01014d\n", i, i);
         }
     }},
    {"raise:", [](const char* number) { raise(atoi(number)); }},
    {"exit:", [](const char* status) { exit(atoi(status)); }},
};

}  // namespace

int main(int argc, char** argv) {
    const int end = argc - 4;
    if (end < 1 || strcmp(argv[end], "-p") != 0) {
        return 99;
    }
    pipePath = argv[end + 1];
    for (int i = 1; i < end; i++) {
        for (const auto& act : kActs) {
            if (strncmp(argv[i], act.name, strlen(act.name)) == 0) {
                act.act(argv[i] + strlen(act.name));
            }
        }
    }
    return 0;
}
