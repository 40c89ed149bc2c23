// What a run of the updater needs around it, and the updater's process: the private folder with the
// progress pipe and the names of given lines, the channels for its outputs, the guard, its start.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "softupdate/kestrelwatch/fd.h"
#include "softupdate/kestrelwatch/record.h"

namespace watch {

// The program for `name`: itself when it has a slash, else looked up beside kestrelwatch and then
// in PATH. Returns 0, or kStatusNotFound or kStatusNotExecutable with the reason in *why.
int FindUpdater(const std::string& name, std::string* program, std::string* why);

// The node of a target's line, as the updater looks it up.
std::string BoardNode(TargetT target);

// The pipe of the board's command launcher, as the updater looks it up.
std::string LauncherPipe();

// Whether a given pipe path can serve; an empty one can. Returns 0, or kStatusPipe or kStatusFolder
// with the reason in *why.
int CheckPipePath(const std::string& path, std::string* why);

// The folder and the pipe. One object lives in kestrelwatch, a copy of it in the guard.
class Place {
  public:
    Place() = default;
    ~Place() { Remove(); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    // Makes what the options ask for; with --port, HARBOR_DEV_DIR then names the folder. Returns 0,
    // or kStatusPipe or kStatusFolder with the reason in *why.
    int Make(const RecordT& record, std::string* why);
    // Removes what this object made; a pipe that was there before stays.
    void Remove();

    const std::string& PipePath() const { return pipePath_; }
    // The pipe's reading end; does not block and never ends, as it holds a writer itself.
    int PipeFd() const { return pipe_.Get(); }

  private:
    bool MakeFolder(std::string* why);
    bool MakePorts(const RecordT& record, std::string* why);
    int MakePipe(std::string* why);

    std::string folder_;              // empty: none
    Fd folderLock_;                   // as long as anything of the run lives, the folder is in use
    std::vector<std::string> links_;  // in the folder
    std::string pipePath_;
    bool madePipe_ = false;
    Fd pipe_;
};

// The channels of the updater's two outputs, for all runs of the session. While kestrelwatch holds
// the writing ends, neither ever ends.
struct ChannelsT {
    ChannelT output;
    ChannelT error;
};

// What keeps the updater alive when kestrelwatch itself is killed: a small process forked before
// the first run, which holds the reading ends and the lock too. While kestrelwatch lives it only
// sleeps. When kestrelwatch goes without a word, it reads and drops whatever the updater still
// sends until that has closed its outputs, then removes the place.
class Guard {
  public:
    Guard() = default;
    // Dismisses the guard.
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    // Forks; call it before any thread exists. False when no process can be made.
    bool Start(Place* place, ChannelsT* channels);

  private:
    pid_t pid_ = -1;
    Fd lifeline_;
};

// One process of the updater, in a session of its own, whose terminal is the channel of its output
// where that is one: a serial line that it opens never becomes the terminal that controls it.
class Updater {
  public:
    // Starts the record's program with `words` as its arguments (the first is its name). It reads
    // nothing, writes into the channels, and ignores hang-ups and broken pipes. Returns 0, or a
    // status as FindUpdater does.
    int Start(const std::string& program, const std::vector<std::string>& words,
              const ChannelsT& channels, std::string* why);

    // Sends a signal to the updater and to whatever it has started itself.
    void Signal(int number) const;

    // Stops it; true when it stands still or has ended, false when it does not within a second.
    bool Stop();

    pid_t Pid() const { return pid_; }
    // The status that waitpid gives once it has ended; nothing while it runs. Does not block.
    std::optional<int> Ended();

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

}  // namespace watch
