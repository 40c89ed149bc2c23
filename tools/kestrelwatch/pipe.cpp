// Making, checking, opening and removing the FIFO.
#include "tools/kestrelwatch/pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/kestrelwatch/statuses.h"

namespace watch {

namespace {

const size_t kMaxPath = 255;  // the updater keeps the path in 256 characters

[[noreturn]] void Refuse(StatusT status, const std::string& path, const std::string& why) {
    throw SetupError(status, path + ": " + why);
}

std::string MakeFolder() {
    const char* base = getenv("TMPDIR");
    std::string folder = base != nullptr && base[0] != '\0' ? base : "/tmp";
    folder += "/kestrelwatch-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        Refuse(kStatusFolder, folder,
               std::string("no private folder for the pipe can be made: ") + strerror(errno));
    }
    return folder;
}

// A FIFO that somebody reads would lose numbers to that reader.
void CheckUnread(const std::string& path) {
    const Fd probe(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (probe.Get() >= 0) {
        Refuse(kStatusPipe, path, "another program reads this pipe already");
    }
    if (errno != ENXIO) {
        Refuse(kStatusPipe, path, std::string("the pipe cannot be opened: ") + strerror(errno));
    }
}

}  // namespace

ProgressPipe::ProgressPipe(const std::string& path) : path_(path) {
    if (path_.empty()) {
        folder_ = MakeFolder();
        path_ = folder_ + "/progress";
    }
    try {
        Make();
    } catch (const SetupError&) {
        Remove();
        throw;
    }
}

void ProgressPipe::Make() {
    if (path_.size() > kMaxPath) {
        Refuse(kStatusPipe, path_,
               "path too long: the updater takes " + std::to_string(kMaxPath) + " characters");
    }
    struct stat status = {};
    if (stat(path_.c_str(), &status) == 0) {
        if (!S_ISFIFO(status.st_mode)) {
            Refuse(kStatusPipe, path_, "exists and is no pipe (FIFO); it is left as it is");
        }
        CheckUnread(path_);
    } else if (mkfifo(path_.c_str(), 0600) == 0) {
        made_ = true;
    } else {
        Refuse(kStatusFolder, path_, std::string("the pipe cannot be made: ") + strerror(errno));
    }
    fd_ = Fd(open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (fd_.Get() < 0) {
        Refuse(kStatusPipe, path_, std::string("the pipe cannot be opened: ") + strerror(errno));
    }
}

void ProgressPipe::Remove() {
    if (made_) {
        unlink(path_.c_str());
        made_ = false;
    }
    if (!folder_.empty()) {
        rmdir(folder_.c_str());
        folder_.clear();
    }
}

}  // namespace watch
