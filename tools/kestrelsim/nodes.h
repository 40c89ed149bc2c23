// The folder that stands for /dev: one symbolic link per serial line, and word of when a host opens
// or closes one. Links are removed at the end, and the folder with them when it was made here.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kestrelsim {

constexpr int kPorts = 8;

// The node's name of a port, 0 to 7.
const char* NodeName(int port);

class Nodes {
  public:
    // An empty `folder` makes a temporary one. Throws std::runtime_error, also when another
    // simulator works there.
    explicit Nodes(const std::string& folder);
    ~Nodes();
    Nodes(const Nodes&) = delete;
    Nodes& operator=(const Nodes&) = delete;

    // Replaces a link that an earlier simulator left behind, but nothing else.
    void Link(int port, const std::string& device);
    void Unlink(int port);

    struct Event {
        int port;
        bool opened;  // otherwise closed
    };

    // Readable when there are events.
    int fd() const { return watch_fd_; }
    std::vector<Event> Events();

    // Whether openings of the port are seen; those of a line that was attached are not.
    bool Watches(int port) const;

    const std::string& folder() const { return folder_; }

  private:
    std::string folder_;
    bool made_folder_ = false;
    int folder_fd_ = -1;  // holds the folder's lock
    int watch_fd_ = -1;
    std::map<int, int> ports_of_watches_;
    std::vector<int> linked_;
};

}  // namespace kestrelsim
