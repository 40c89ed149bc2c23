// Look-up and start through posix_spawn.
#include "tools/kestrelwatch/updater.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tools/kestrelwatch/statuses.h"

namespace watch {

namespace {

// 0 when `path` can be run, else the reason.
int Runnable(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EACCES;
    }
    return access(path.c_str(), X_OK) == 0 ? 0 : errno;
}

StatusT StatusOf(int error) {
    return error == ENOENT || error == ENOTDIR ? kStatusNotFound : kStatusNotExecutable;
}

std::vector<std::string> Folders() {
    std::vector<std::string> folders;
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self));
    if (length > 0) {
        const std::string path(self, static_cast<size_t>(length));
        folders.push_back(path.substr(0, path.rfind('/')));
    }
    const char* variable = getenv("PATH");
    const std::string list = variable != nullptr ? variable : "/usr/bin:/bin";
    for (size_t start = 0; start <= list.size();) {
        const size_t colon = std::min(list.find(':', start), list.size());
        // An empty entry, at the end too, is the working directory.
        folders.push_back(colon == start ? "." : list.substr(start, colon - start));
        start = colon + 1;
    }
    return folders;
}

struct SpawnSettingsT {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;

    SpawnSettingsT(int outputFd, int errorFd) {
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files, outputFd, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&files, errorFd, STDERR_FILENO);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(
            &attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        // All but SIGPIPE, which stays ignored as it is in kestrelwatch.
        sigset_t standard;
        sigfillset(&standard);
        sigdelset(&standard, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &standard);
    }
    ~SpawnSettingsT() {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSettingsT(const SpawnSettingsT&) = delete;
    SpawnSettingsT& operator=(const SpawnSettingsT&) = delete;
};

}  // namespace

std::string FindUpdater(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        const int error = Runnable(name);
        if (error != 0) {
            throw SetupError(StatusOf(error),
                             "the updater " + name + " cannot be run: " + strerror(error));
        }
        return name;
    }
    std::string refused;
    for (std::string& path : Folders()) {
        path.append("/").append(name);
        const int error = Runnable(path);
        if (error == 0) {
            return path;
        }
        if (refused.empty() && StatusOf(error) == kStatusNotExecutable && error != EISDIR) {
            refused = path + ": " + strerror(error);
        }
    }
    if (!refused.empty()) {
        throw SetupError(kStatusNotExecutable, "the updater cannot be run: " + refused);
    }
    throw SetupError(kStatusNotFound,
                     "the updater " + name + " is neither beside kestrelwatch nor in PATH");
}

Updater::Updater(const std::string& program, const std::vector<std::string>& command, int outputFd,
                 int errorFd) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const SpawnSettingsT settings(outputFd, errorFd);
    const int error = posix_spawn(&pid_, program.c_str(), &settings.files, &settings.attributes,
                                  arguments.data(), environ);
    if (error != 0) {
        throw SetupError(StatusOf(error),
                         "the updater " + program + " cannot be run: " + strerror(error));
    }
}

void Updater::Signal(int number) const {
    if (!status_) {
        kill(-pid_, number);
    }
}

std::optional<int> Updater::Ended() {
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = status;
    }
    return status_;
}

}  // namespace watch
