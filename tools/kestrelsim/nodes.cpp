// Links are made with symlink, openings are seen with inotify on the device behind the link.
#include "tools/kestrelsim/nodes.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace kestrelsim {

const char* NodeName(int port) {
    static const char* const kNames[kPorts] = {"fpgaserial0", "fpgaserial1", "fpgaserial4",
                                               "fpgaserial5", "ttyS1",       "fpgaserial6",
                                               "ttyUSB0",     "ttyUSB1"};
    return kNames[port];
}

Nodes::Nodes(const std::string& folder) : folder_(folder) {
    if (folder_.empty()) {
        folder_ = (std::filesystem::temp_directory_path() / "kestrelsim.XXXXXX").string();
        made_folder_ = mkdtemp(folder_.data()) != nullptr;
    } else if (!std::filesystem::exists(folder_)) {
        made_folder_ = std::filesystem::create_directories(folder_);
    }
    if (!std::filesystem::is_directory(folder_)) {
        throw std::runtime_error(folder_ + " is no folder");
    }
    folder_ = std::filesystem::absolute(folder_).lexically_normal().string();
    folder_fd_ = open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (flock(folder_fd_, LOCK_EX | LOCK_NB) != 0) {
        const std::string why =
            errno == EWOULDBLOCK ? "another simulator works there" : std::string(strerror(errno));
        close(folder_fd_);
        throw std::runtime_error(folder_ + ": " + why);
    }
    watch_fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
}

Nodes::~Nodes() {
    while (!linked_.empty()) {
        const int port = linked_.back();
        Unlink(port);
        if (made_folder_) {
            unlink((folder_ + "/.kestrelwatch-" + NodeName(port) + ".lock").c_str());
        }
    }
    if (made_folder_) {
        rmdir(folder_.c_str());
    }
    if (watch_fd_ >= 0) {
        close(watch_fd_);
    }
    close(folder_fd_);
}

void Nodes::Link(int port, const std::string& device) {
    const std::string node = folder_ + "/" + NodeName(port);
    struct stat status {};
    if (lstat(node.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        unlink(node.c_str());
    }
    if (symlink(device.c_str(), node.c_str()) != 0) {
        throw std::runtime_error(node + ": " + strerror(errno));
    }
    linked_.push_back(port);
    const int watch = inotify_add_watch(watch_fd_, device.c_str(), IN_OPEN | IN_CLOSE);
    if (watch >= 0) {
        ports_of_watches_[watch] = port;
    }
}

void Nodes::Unlink(int port) {
    unlink((folder_ + "/" + NodeName(port)).c_str());
    linked_.erase(std::remove(linked_.begin(), linked_.end(), port), linked_.end());
}

bool Nodes::Watches(int port) const {
    return std::any_of(ports_of_watches_.begin(), ports_of_watches_.end(),
                       [port](const auto& it) { return it.second == port; });
}

std::vector<Nodes::Event> Nodes::Events() {
    std::vector<Event> events;
    alignas(inotify_event) char buffer[4096];
    ssize_t size = 0;
    while ((size = read(watch_fd_, buffer, sizeof buffer)) > 0) {
        for (const char* at = buffer; at < buffer + size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            const auto found = ports_of_watches_.find(event->wd);
            if (found != ports_of_watches_.end() && (event->mask & (IN_OPEN | IN_CLOSE)) != 0) {
                events.push_back({found->second, (event->mask & IN_OPEN) != 0});
            }
            at += sizeof(inotify_event) + event->len;
        }
    }
    return events;
}

}  // namespace kestrelsim
