// flock(2) on one file a device, in a folder that every user has.
#include "softupdate/kestrelwatch/lock.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "softupdate/kestrelwatch/verdict.h"

namespace watch {

namespace {

// The same for every user, whatever the environment says.
std::string LockFolder() {
    struct stat status = {};
    const char* const folder = "/run/lock";
    const bool open =
        stat(folder, &status) == 0 && S_ISDIR(status.st_mode) && (status.st_mode & S_IWOTH) != 0;
    return open ? folder : "/tmp";
}

// Whether the number is a pseudo-terminal's (linux/major.h, UNIX98_PTY_SLAVE_MAJOR and its count).
bool IsPseudoTerminal(dev_t device) {
    return major(device) >= 136 && major(device) < 136 + 8;
}

// Names the device itself, so that a line is one line under all of its names. Empty: none there.
// A pseudo-terminal's number is another one's as soon as it is closed, so the line of a simulated
// unit is locked beside its node, in the unit's folder.
std::string LockPath(const std::string& node) {
    struct stat status = {};
    if (stat(node.c_str(), &status) != 0 || !S_ISCHR(status.st_mode)) {
        return "";
    }
    struct stat link = {};
    const size_t slash = node.rfind('/');
    if (IsPseudoTerminal(status.st_rdev) && slash != std::string::npos &&
        lstat(node.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
        return node.substr(0, slash) + "/.kestrelwatch-" + node.substr(slash + 1) + ".lock";
    }
    return LockFolder() + "/kestrelwatch-" + std::to_string(major(status.st_rdev)) + "-" +
           std::to_string(minor(status.st_rdev)) + ".lock";
}

// Another user's file is opened as it is; that one may only be read does not matter.
int OpenLock(const std::string& path) {
    const int flags = O_NOFOLLOW | O_NONBLOCK;
    int fd = open(path.c_str(), O_RDWR | flags);
    if (fd < 0 && errno == ENOENT) {
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | flags, 0666);
        if (fd >= 0) {
            fchmod(fd, 0666);
        } else if (errno == EEXIST) {
            fd = open(path.c_str(), O_RDWR | flags);
        }
    }
    return fd < 0 && errno == EACCES ? open(path.c_str(), O_RDONLY | flags) : fd;
}

// What the holder wrote: when it began, who it is, which updater it runs.
std::string Holder(int fd) {
    char text[80] = {};
    long long since = 0;
    long launcher = 0;
    long updater = 0;
    if (pread(fd, text, sizeof(text) - 1, 0) <= 0 ||
        sscanf(text, "%lld %ld %ld", &since, &launcher, &updater) < 2) {
        return "an update is running";
    }
    const bool alone = updater > 0 && kill(static_cast<pid_t>(launcher), 0) != 0 && errno == ESRCH;
    const time_t at = static_cast<time_t>(since);
    struct tm local = {};
    char clock[8] = "?";
    if (localtime_r(&at, &local) != nullptr) {
        strftime(clock, sizeof(clock), "%H:%M", &local);
    }
    return std::string("an update has been running since ") + clock + " (process " +
           std::to_string(alone ? updater : launcher) + (alone ? ", whose launcher is gone)" : ")");
}

}  // namespace

bool UnitLock::Take(RecordT* record) {
    std::vector<std::string> paths;
    for (const std::string& node : record->plan.nodes) {
        const std::string path = LockPath(node);
        if (!path.empty()) {
            paths.push_back(path);
        }
    }
    // In one order, so that two callers do not each get half.
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    for (const std::string& path : paths) {
        Fd file(OpenLock(path));
        if (file.Get() < 0) {
            return Refuse(record, kStatusFolder, CauseT::kFolder,
                          path + ": the lock cannot be made: " + strerror(errno));
        }
        if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
            return Refuse(record, kStatusLocked, CauseT::kLocked, Holder(file.Get()));
        }
        files_.push_back(std::move(file));
    }
    sinceSeconds_ = static_cast<long long>(time(nullptr));
    Note(0);
    return true;
}

void UnitLock::Note(pid_t updater) const {
    char text[80];
    const int length = snprintf(text, sizeof(text), "%lld %ld %ld\n", sinceSeconds_,
                                static_cast<long>(getpid()), static_cast<long>(updater));
    for (const Fd& file : files_) {
        // Only a help for people: the lock itself does not depend on it.
        if (ftruncate(file.Get(), 0) != 0 ||
            pwrite(file.Get(), text, static_cast<size_t>(length), 0) != length) {
            return;
        }
    }
}

}  // namespace watch
