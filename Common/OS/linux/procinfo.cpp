// Questions to the environment, to shell commands and to the process file system.
#include "Common/OS/linux/procinfo.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "Common/OS/linux/nocancel.h"
#include "Common/OS/linux/osstring.h"

namespace {

constexpr int kUnknown = -2;
std::atomic<int> gIsNfs{kUnknown};

// Whether the process in directory /proc/`entry` has exactly this command name.
bool HasName(const char* entry, const char* process_name) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%.32s/stat", entry);
    FILE* file = fopen(path, "r");
    if (file == nullptr) {
        return false;
    }
    char line[128];
    const size_t length = fread(line, 1, sizeof(line) - 1, file);
    fclose(file);
    line[length] = '\0';
    const char* name = strchr(line, '(');
    const char* end = name != nullptr ? strchr(name, ')') : nullptr;
    if (end == nullptr) {
        return false;
    }
    name++;
    const auto name_length = static_cast<size_t>(end - name);
    return strlen(process_name) == name_length && strncmp(name, process_name, name_length) == 0;
}

}  // namespace

int read_env(const char* variable, char* buff, int max) {
    const char* value = getenv(variable);
    if (value == nullptr || max <= 0 || strlen(value) >= static_cast<size_t>(max)) {
        return -1;
    }
    strcpy(buff, value);
    return 0;
}

int read_command(const char* command, char* buff, int max) {
    buff[0] = '\0';
    const NoCancelT no_cancel;  // the pipe is closed, and the shell waited for, in any case
    FILE* pipe = popen(command, "r");
    if (pipe == nullptr) {
        return -1;
    }
    const bool read = fgets(buff, max, pipe) != nullptr;
    pclose(pipe);
    if (!read) {
        buff[0] = '\0';
        return -1;
    }
    trim_str(buff);
    return 0;
}

int is_NFS() {
    int answer = gIsNfs;
    if (answer == kUnknown) {
        char line[256];
        const bool found = read_command("mount | grep \"on / type nfs\"", line, sizeof(line)) == 0;
        answer = found && line[0] != '\0' ? -1 : 0;
        gIsNfs = answer;
    }
    return answer;
}

int find_pid(const char* process_name) {
    const NoCancelT no_cancel;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        puts("could not open /proc");
        return -1;
    }
    int pid = -1;
    while (const dirent* entry = readdir(proc)) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 &&
            HasName(entry->d_name, process_name)) {
            pid = atoi(entry->d_name);
            break;
        }
    }
    closedir(proc);
    return pid;
}

void stackBackTrace(UInt32) {
    puts("stackBackTrace(UInt32 taskID) not implemented.");
}

void sstackBackTrace(UInt32) {
    puts("sstackBackTrace(UInt32 taskID) not implemented.");
}
