// One run of the updater, from its start to its end: everything that it sends is read at once,
// passed on and told to the story, whatever the user's side does; keys and signals are taken; a run
// that stands where nothing is erased is ended. After something may have been erased nothing here
// ends the updater but the user, with two presses.
#pragma once

#include <string>
#include <vector>

#include "softupdate/kestrelwatch/journal.h"
#include "softupdate/kestrelwatch/lock.h"
#include "softupdate/kestrelwatch/pace.h"
#include "softupdate/kestrelwatch/record.h"
#include "softupdate/kestrelwatch/run.h"
#include "softupdate/kestrelwatch/show.h"

namespace watch {

// The signals that are taken in the loop instead of ending or stopping kestrelwatch.
class Signals {
  public:
    // Blocks and collects SIGINT, SIGTERM, SIGQUIT, SIGTSTP, SIGCHLD and SIGWINCH; ignores SIGHUP,
    // SIGPIPE, SIGTTIN and SIGTTOU, the first two for the updater too. Call it before any thread
    // exists. False when the system has no descriptor left.
    bool Open();
    int Descriptor() const { return fd_.Get(); }
    // The signals that have come since the last call, without waiting.
    std::vector<int> Take();
    // Gives SIGINT, SIGTERM and SIGQUIT back their usual effect: nothing is left to protect, and
    // a terminal that stands still must not keep the user from ending kestrelwatch.
    void Release();

  private:
    Fd fd_;
};

enum class PressT {
    kFirst,    // warn
    kTooFast,  // say nothing
    kCounts,   // interrupt
};

// The two presses that it takes to interrupt a flash: the first only warns, a second one within the
// stated time counts, unless it follows the one before so closely that it may be a key held down or
// a nervous double press. Once one has counted, every later one counts at once.
class Presses {
  public:
    explicit Presses(std::int64_t windowMs) : windowMs_(windowMs) {}

    // Takes one press.
    PressT Press(std::int64_t nowMs);
    // True once, when the time for the second press has run out.
    bool Expired(std::int64_t nowMs);
    // When the time runs out; -1: no press is waiting for its second.
    std::int64_t DueMs() const { return dueMs_; }

  private:
    std::int64_t windowMs_;
    std::int64_t dueMs_ = -1;
    std::int64_t lastMs_ = 0;
    bool counted_ = false;
};

// Whole lines out of a stream of bytes, so that nothing of ours ever lands inside a line.
class LineSplitter {
  public:
    // Takes bytes and returns the lines that they complete, each with its line end. A line that
    // grows beyond 64 KiB is handed out in pieces.
    std::vector<std::string> Feed(std::string_view bytes);
    // The start of a line that never ended, and forgets it.
    std::string Rest();

  private:
    std::string partial_;
};

// What all runs of a launch share. Made in main, in this order.
struct SessionT {
    Signals signals;
    UnitLock lock;
    Place place;
    ChannelsT channels;
    std::unique_ptr<Guard> guard;
    std::unique_ptr<Screen> screen;
    Journal journal;
    Pace pace;

    // One line for the user and the journal.
    void Notice(const std::string& text);
};

// Starts the record's updater with `words` and serves it until it has ended and everything it sent
// has been passed on. `asks`: a query. Fills *run.
void Follow(SessionT* session, const RecordT& record, const std::vector<std::string>& words,
            bool asks, RunT* run);

}  // namespace watch
