// The loop. Everything that the updater sends is read at once and whatever the user's side does;
// the user's side is written to by threads of their own (see outlet.h).
#include "tools/kestrelwatch/watch.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "Common/OS/linux/standardfds.h"
#include "tools/kestrelwatch/guard.h"
#include "tools/kestrelwatch/lines.h"
#include "tools/kestrelwatch/model.h"
#include "tools/kestrelwatch/pipe.h"
#include "tools/kestrelwatch/presses.h"
#include "tools/kestrelwatch/screen.h"
#include "tools/kestrelwatch/signals.h"
#include "tools/kestrelwatch/updater.h"

namespace watch {

namespace {

const int kMaxLastReads = 1000;

std::int64_t NowMs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// One output of the updater on its way to ours.
struct StreamT {
    Fd from;
    int to;
    LineSplitter lines;
};

class Watcher {
  public:
    Watcher(const OptionsT& options, Signals& signals, ProgressPipe& pipe, Screen& screen,
            Updater& updater, ChannelT& output, ChannelT& error)
        : options_(options),
          signals_(signals),
          pipe_(pipe),
          screen_(screen),
          updater_(updater),
          output_{std::move(output.read), STDOUT_FILENO, {}},
          error_{std::move(error.read), STDERR_FILENO, {}},
          model_(options.range, options.stallMs, NowMs()),
          presses_(options.confirmMs) {}

    // Serves the updater until it has ended and everything it sent has been passed on.
    EndingT Serve();

  private:
    SightT Sight(std::int64_t nowMs) const;
    int WaitMs(std::int64_t nowMs) const;
    void Wait();
    void HandleSignals();
    void Press(int number);
    bool ReadAll();
    void PassLines(StreamT* stream, const std::string& bytes);
    void PassRest(StreamT* stream);

    const OptionsT& options_;
    Signals& signals_;
    ProgressPipe& pipe_;
    Screen& screen_;
    Updater& updater_;
    StreamT output_;
    StreamT error_;
    ProgressModel model_;
    Presses presses_;
};

EndingT Watcher::Serve() {
    while (!updater_.Ended()) {
        Wait();
        HandleSignals();
        ReadAll();
        const std::int64_t now = NowMs();
        model_.Tick(now);
        for (const std::string& notice : model_.Notices(now)) {
            screen_.Say(notice);
        }
        if (presses_.Expired(now)) {
            screen_.Say("not interrupted; the update goes on.");
        }
        screen_.Show(Sight(now), now);
    }
    // What an updater leaves behind is soon read; what its own children go on sending is not ours.
    for (int reads = 0; reads < kMaxLastReads && ReadAll(); reads++) {
    }
    PassRest(&output_);
    PassRest(&error_);
    const std::int64_t now = NowMs();
    EndingT ending = model_.End(*updater_.Ended(), options_.strict, now);
    screen_.Finish(model_.Sight(now));
    return ending;
}

SightT Watcher::Sight(std::int64_t nowMs) const {
    SightT sight = model_.Sight(nowMs);
    if (presses_.DueMs() >= 0) {
        const std::int64_t leftMs = presses_.DueMs() - nowMs;
        sight.note = "again within " + std::to_string(leftMs / 1000 + 1) + " s to interrupt";
    }
    return sight;
}

int Watcher::WaitMs(std::int64_t nowMs) const {
    // The clock on the screen moves once a second anyway.
    std::int64_t until = nowMs + 1000;
    for (const std::int64_t due : {model_.DueMs(), presses_.DueMs(), screen_.DueMs(nowMs)}) {
        if (due >= 0) {
            until = std::min(until, due);
        }
    }
    return static_cast<int>(std::max(until - nowMs, std::int64_t{0}));
}

void Watcher::Wait() {
    pollfd ends[] = {{signals_.Fd(), POLLIN, 0},
                     {pipe_.ReadFd(), POLLIN, 0},
                     {output_.from.Get(), POLLIN, 0},
                     {error_.from.Get(), POLLIN, 0}};
    poll(ends, 4, WaitMs(NowMs()));
}

void Watcher::HandleSignals() {
    for (const int number : signals_.Take()) {
        switch (number) {
            case SIGINT:
            case SIGTERM:
            case SIGQUIT:
                Press(number);
                break;
            case SIGTSTP:
                screen_.Say("not suspended: the updater would soon wait in the middle of a flash.");
                break;
            case SIGWINCH:
                screen_.Resized();
                break;
            default:  // SIGCHLD wakes the loop; SIGHUP only says that the terminal is gone
                break;
        }
    }
}

void Watcher::Press(int number) {
    const PressT press = presses_.Press(NowMs());
    if (press == PressT::kCounts) {
        screen_.Say(std::string("passing signal ") + std::to_string(number) + " (" +
                    strsignal(number) + ") on to the updater.");
        updater_.Signal(number);
    }
    if (press != PressT::kFirst) {
        return;
    }
    screen_.Say("an interrupted flash can leave the unit dead. The update goes on.");
    char text[120];
    snprintf(text, sizeof(text),
             "to interrupt it all the same: again after a moment, within %g seconds.",
             static_cast<double>(options_.confirmMs) / 1000);
    screen_.Say(text);
}

// Reads what is there; false when there was nothing. The pipe is read after the outputs: a number
// is written before its line is printed, so every line that was read finds its number.
bool Watcher::ReadAll() {
    std::string bytes[2];
    StreamT* const streams[] = {&output_, &error_};
    for (int i = 0; i < 2; i++) {
        Fd& from = streams[i]->from;
        if (from.Get() >= 0 && ReadSome(from.Get(), &bytes[i]) == ReadT::kEnd) {
            from.Close();
        }
    }
    std::string digits;
    ReadSome(pipe_.ReadFd(), &digits);
    model_.Pipe(digits, NowMs());
    PassLines(&output_, bytes[0]);
    PassLines(&error_, bytes[1]);
    return !(bytes[0].empty() && bytes[1].empty() && digits.empty());
}

void Watcher::PassLines(StreamT* stream, const std::string& bytes) {
    for (const std::string& line : stream->lines.Feed(bytes)) {
        screen_.Pass(stream->to, line);
        if (stream->to == STDOUT_FILENO) {
            model_.Line(std::string_view(line).substr(0, line.find('\n')), NowMs());
        }
    }
}

void Watcher::PassRest(StreamT* stream) {
    const std::string rest = stream->lines.Rest();
    if (!rest.empty()) {
        screen_.Pass(stream->to, rest);
        if (stream->to == STDOUT_FILENO) {
            model_.Line(rest, NowMs());
        }
    }
}

}  // namespace

int Run(const OptionsT& options) {
    FillStandardDescriptors();
    const std::string program = FindUpdater(options.command.at(0));
    Signals signals;
    ProgressPipe pipe(options.pipe);
    ChannelT output = OpenTerminalChannel();
    ChannelT error = OpenPipeChannel();
    Guard guard(pipe, output, error);
    Screen screen(options.plain);
    std::vector<std::string> command = options.command;
    command.insert(command.end(), {"-p", pipe.Path(), std::to_string(options.range.low),
                                   std::to_string(options.range.high)});
    Updater updater(program, command, output.write.Get(), error.write.Get());
    guard.Arm();
    output.write.Close();
    error.write.Close();
    Watcher watcher(options, signals, pipe, screen, updater, output, error);
    const EndingT ending = watcher.Serve();
    pipe.Remove();
    guard.Dismiss();
    for (const std::string& line : ending.lines) {
        screen.Say(line);
    }
    signals.Release();
    return ending.status;
}

}  // namespace watch
