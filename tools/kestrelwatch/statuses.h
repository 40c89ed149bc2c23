// The exit statuses that are kestrelwatch's own, and how a set-up that cannot go on is reported.
// Everything else that kestrelwatch returns is the updater's status, passed through.
#pragma once

#include <stdexcept>
#include <string>

namespace watch {

// Chosen beside the updater's own 0, 1 and 255 and below 128 + n, as other launchers do.
enum StatusT {
    kStatusDoubtful = 120,
    kStatusUsage = 121,
    kStatusRange = 122,
    kStatusPipe = 123,
    kStatusFolder = 124,
    kStatusInternal = 125,
    kStatusNotExecutable = 126,
    kStatusNotFound = 127,
    kStatusSignalBase = 128,
};

// Thrown while nothing has been started yet: one clear line for the user and the exit status.
class SetupError : public std::runtime_error {
  public:
    SetupError(StatusT status, const std::string& text)
        : std::runtime_error(text), status_(status) {}
    StatusT Status() const { return status_; }

  private:
    StatusT status_;
};

// The whole table of exit statuses as text, one status a line, for --help.
std::string StatusTable();

}  // namespace watch
