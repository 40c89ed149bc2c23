// Look-up, place and start.
#include "softupdate/kestrelwatch/run.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "Common/OS/linux/board.h"
#include "devlib/devmgr_serial/devmgr_serial.h"
#include "devlib/kestrelflash/linksend.h"

namespace watch {

namespace {

constexpr size_t kMaxPipePath = 255;  // the updater keeps the path in 256 characters
constexpr char kDeviceFolder[] = "/dev";
constexpr char kDeviceVariable[] = KESTRELWATCH_DEV_VARIABLE;  // empty: /dev and nothing else
constexpr char kFolderPrefix[] = "kestrelwatch-";
constexpr int kStopWaitMs = 1000;

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

std::string NodeName(int port) {
    return SerialPort_DevNames[port] + sizeof(kDeviceFolder);
}

// The folder that stands for /dev, where a unit is played; else empty.
std::string PlayedFolder() {
    const char* folder = kDeviceVariable[0] != '\0' ? getenv(kDeviceVariable) : nullptr;
    return folder != nullptr ? folder : "";
}

int PortOf(TargetT target) {
    return target == kMicroTarget ? kKestrelPort : kOverlookPort;
}

// Removes what is in a private folder, and the folder.
void RemoveFolder(const std::string& path) {
    DIR* const folder = opendir(path.c_str());
    if (folder == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(folder)) {
        unlinkat(dirfd(folder), entry->d_name, 0);
    }
    closedir(folder);
    rmdir(path.c_str());
}

// Removes the private folders whose launcher, guard and updater are all gone: of a host that lost
// its power, or where everything was killed at once.
void RemoveForsaken(const std::string& base) {
    DIR* const folder = opendir(base.c_str());
    if (folder == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(folder)) {
        const size_t prefix = sizeof(kFolderPrefix) - 1;
        char* end = nullptr;
        const long launcher = strncmp(entry->d_name, kFolderPrefix, prefix) == 0
                                  ? strtol(entry->d_name + prefix, &end, 10)
                                  : 0;
        if (launcher <= 0 || *end != '-' || kill(static_cast<pid_t>(launcher), 0) == 0 ||
            errno != ESRCH) {
            continue;
        }
        const std::string path = base + "/" + entry->d_name;
        const Fd lock(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status = {};
        if (fstat(lock.Get(), &status) == 0 && status.st_uid == geteuid() &&
            flock(lock.Get(), LOCK_EX | LOCK_NB) == 0) {
            RemoveFolder(path);
        }
    }
    closedir(folder);
}

struct SpawnSettingsT {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;

    explicit SpawnSettingsT(const ChannelsT& channels) {
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        // The first terminal that a session's leader opens becomes the session's own.
        char terminal[64];
        if (ptsname_r(channels.output.read.Get(), terminal, sizeof(terminal)) == 0) {
            posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, terminal, O_RDWR, 0);
        } else {
            posix_spawn_file_actions_adddup2(&files, channels.output.write.Get(), STDOUT_FILENO);
        }
        posix_spawn_file_actions_adddup2(&files, channels.error.write.Get(), STDERR_FILENO);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(
            &attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        // All but these two, which stay ignored as they are in kestrelwatch.
        sigset_t standard;
        sigfillset(&standard);
        sigdelset(&standard, SIGPIPE);
        sigdelset(&standard, SIGHUP);
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

int FindUpdater(const std::string& name, std::string* program, std::string* why) {
    int worst = ENOENT;
    *program = name;
    if (name.find('/') != std::string::npos) {
        worst = Runnable(name);
        *why = "the updater " + name + " cannot be run: " + strerror(worst);
        return worst == 0 ? 0 : StatusOf(worst);
    }
    *why = "the updater " + name + " is neither beside kestrelwatch nor in PATH";
    for (std::string& path : Folders()) {
        path.append("/").append(name);
        const int error = Runnable(path);
        if (error == 0) {
            *program = path;
            return 0;
        }
        if (StatusOf(worst) == kStatusNotFound && StatusOf(error) == kStatusNotExecutable &&
            error != EISDIR) {
            worst = error;
            *why = "the updater cannot be run: " + path + ": " + strerror(error);
        }
    }
    return StatusOf(worst);
}

std::string BoardNode(TargetT target) {
    const std::string folder = PlayedFolder();
    return (folder.empty() ? kDeviceFolder : folder) + "/" + NodeName(PortOf(target));
}

std::string LauncherPipe() {
    const std::string folder = PlayedFolder();
    return folder.empty() ? kLauncherPipe : folder + "/plaunch";
}

int CheckPipePath(const std::string& path, std::string* why) {
    struct stat status = {};
    if (path.size() > kMaxPipePath) {
        *why = "path too long: the updater takes " + std::to_string(kMaxPipePath) + " characters";
        return kStatusPipe;
    }
    if (path.empty() || stat(path.c_str(), &status) != 0) {
        return 0;
    }
    if (!S_ISFIFO(status.st_mode)) {
        *why = "exists and is no pipe (FIFO); it is left as it is";
        return kStatusPipe;
    }
    // A FIFO that somebody reads would lose numbers to that reader.
    const Fd probe(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (probe.Get() < 0 && errno == ENXIO) {
        return 0;
    }
    *why = probe.Get() >= 0 ? "another program reads this pipe already"
                            : std::string("the pipe cannot be opened: ") + strerror(errno);
    return kStatusPipe;
}

int Place::Make(const RecordT& record, std::string* why) {
    const bool ports = record.options.HasPorts();
    pipePath_ = record.options.pipe;
    if ((pipePath_.empty() || ports) && !MakeFolder(why)) {
        return kStatusFolder;
    }
    if (ports && !MakePorts(record, why)) {
        return kStatusFolder;
    }
    if (pipePath_.empty()) {
        pipePath_ = folder_ + "/progress";
    }
    return MakePipe(why);
}

bool Place::MakeFolder(std::string* why) {
    const char* base = getenv("TMPDIR");
    std::string folder = base != nullptr && base[0] != '\0' ? base : "/tmp";
    RemoveForsaken(folder);
    folder += "/" + std::string(kFolderPrefix) + std::to_string(getpid()) + "-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        *why = folder + ": no private folder can be made: " + strerror(errno);
        return false;
    }
    // Not closed on exec: guard and updater hold the lock too. Without it only the processes'
    // number says that the folder is in use.
    folderLock_ = Fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    flock(folderLock_.Get(), LOCK_EX | LOCK_NB);
    // The updater runs in the folder of the images, which is ours too, but its /dev is absolute.
    char absolute[PATH_MAX];
    folder_ = realpath(folder.c_str(), absolute) != nullptr ? absolute : folder;
    return true;
}

bool Place::MakePorts(const RecordT& record, std::string* why) {
    for (const TargetT target : {kMicroTarget, kCameraTarget}) {
        const std::string link = folder_ + "/" + NodeName(PortOf(target));
        const std::string& node = record.plan.nodes[target];
        char absolute[PATH_MAX];
        const char* path = realpath(node.c_str(), absolute) != nullptr ? absolute : node.c_str();
        if (symlink(path, link.c_str()) != 0) {
            *why = link + ": " + strerror(errno);
            return false;
        }
        links_.push_back(link);
    }
    setenv(kDeviceVariable, folder_.c_str(), 1);
    return true;
}

int Place::MakePipe(std::string* why) {
    const int refused = CheckPipePath(pipePath_, why);
    if (refused != 0) {
        return refused;
    }
    madePipe_ = mkfifo(pipePath_.c_str(), 0600) == 0;
    if (!madePipe_ && errno != EEXIST) {
        *why = pipePath_ + ": the pipe cannot be made: " + strerror(errno);
        return kStatusFolder;
    }
    pipe_ = Fd(open(pipePath_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (pipe_.Get() < 0) {
        *why = pipePath_ + ": the pipe cannot be opened: " + strerror(errno);
        return kStatusPipe;
    }
    return 0;
}

void Place::Remove() {
    if (madePipe_) {
        unlink(pipePath_.c_str());
        madePipe_ = false;
    }
    for (const std::string& link : links_) {
        unlink(link.c_str());
    }
    links_.clear();
    if (!folder_.empty()) {
        rmdir(folder_.c_str());
        folder_.clear();
    }
}

int Updater::Start(const std::string& program, const std::vector<std::string>& words,
                   const ChannelsT& channels, std::string* why) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const SpawnSettingsT settings(channels);
    const int error = posix_spawn(&pid_, program.c_str(), &settings.files, &settings.attributes,
                                  arguments.data(), environ);
    if (error == 0) {
        return 0;
    }
    pid_ = -1;
    *why = "the updater " + program + " cannot be run: " + strerror(error);
    return StatusOf(error);
}

void Updater::Signal(int number) const {
    if (pid_ > 0 && !status_) {
        kill(-pid_, number);
    }
}

bool Updater::Stop() {
    Signal(SIGSTOP);
    for (int ms = 0; ms < kStopWaitMs && !status_; ms++) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG | WUNTRACED) == pid_) {
            if (WIFSTOPPED(status)) {
                return true;
            }
            status_ = status;
        }
        usleep(1000);
    }
    return status_.has_value();
}

std::optional<int> Updater::Ended() {
    int status = 0;
    if (pid_ > 0 && !status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = status;
    }
    return status_;
}

}  // namespace watch
