// The updater's process: found, started in a session of its own, signalled and waited for.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace watch {

// The program for `name`: itself when it has a slash, else looked up beside kestrelwatch and then
// in PATH. Throws SetupError with kStatusNotFound or kStatusNotExecutable.
std::string FindUpdater(const std::string& name);

class Updater {
  public:
    // Starts `program` with `command` as its arguments (the first is its name). It reads nothing,
    // writes to the two descriptors, belongs to no terminal, and ignores a broken pipe, so that
    // nothing that happens to kestrelwatch ends it. Throws SetupError when it cannot be started.
    Updater(const std::string& program, const std::vector<std::string>& command, int outputFd,
            int errorFd);

    // Sends a signal to the updater and to whatever it has started itself.
    void Signal(int number) const;

    // The status that waitpid gives once it has ended; nothing while it runs. Does not block.
    std::optional<int> Ended();

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

}  // namespace watch
