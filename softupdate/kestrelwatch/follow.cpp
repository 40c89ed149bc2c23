// The loop.
#include "softupdate/kestrelwatch/follow.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "softupdate/kestrelwatch/verdict.h"

namespace watch {

namespace {

// Longer than a keyboard waits before it repeats a key that is held.
constexpr std::int64_t kApartMs = 700;
constexpr std::int64_t kTickMs = 250;
constexpr std::int64_t kJournalMs = 1000;  // between two progress events without news
constexpr std::int64_t kKillMs = 2000;     // from asking the updater to end to killing it
constexpr size_t kMaxLine = 65536;
constexpr int kMaxLastReads = 1000;

sigset_t SetOf(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) {
        sigaddset(&set, number);
    }
    return set;
}

// One output of the updater on its way to ours.
struct StreamT {
    int from;
    int to;
    const char* name;
    LineSplitter lines;
};

class Follower {
  public:
    Follower(SessionT* session, const RecordT& record, RunT* run)
        : session_(*session),
          options_(record.options),
          startMs_(record.startMs),
          run_(*run),
          output_{session->channels.output.read.Get(), STDOUT_FILENO, "output", {}},
          error_{session->channels.error.read.Get(), STDERR_FILENO, "error", {}},
          presses_(record.options.confirmMs),
          movedMs_(NowMs()),
          safeSinceMs_(movedMs_),
          warnDueMs_(options_.stallMs > 0 ? movedMs_ + options_.stallMs : -1) {}

    bool Start(const std::string& program, const std::vector<std::string>& words);
    void Serve();

  private:
    SightT Sight(std::int64_t nowMs) const;
    int WaitMs(std::int64_t nowMs) const;
    void Wait();
    void HandleSignals();
    void Press(int number);
    bool EndSafely(int number);
    bool ReadAll();
    void PassLine(const StreamT& stream, const std::string& line);
    void NoteMovement(std::int64_t nowMs);
    void TellStandstill(std::int64_t nowMs);
    void CheckLimit(std::int64_t nowMs);
    void Report(std::int64_t nowMs);

    SessionT& session_;
    const OptionsT& options_;
    std::int64_t startMs_;
    RunT& run_;
    StreamT output_;
    StreamT error_;
    Updater updater_;
    Presses presses_;
    std::int64_t movedMs_;
    std::int64_t safeSinceMs_;  // since when nothing is at stake
    std::int64_t warnDueMs_;
    std::int64_t killDueMs_ = -1;
    std::int64_t reportedMs_ = -kJournalMs;
    bool warned_ = false;
    bool pipeTroubleTold_ = false;
    bool wasCritical_ = false;
    int seenMoves_ = -1;
    int reportedMoves_ = -1;
    int reportedPercent_ = -1;
};

bool Follower::Start(const std::string& program, const std::vector<std::string>& words) {
    run_.waitStatus = updater_.Start(program, words, session_.channels, &run_.untold);
    run_.started = run_.waitStatus == 0;
    session_.lock.Note(updater_.Pid());
    return run_.started;
}

void Follower::Serve() {
    while (!updater_.Ended()) {
        Wait();
        HandleSignals();
        ReadAll();
        const std::int64_t now = NowMs();
        CheckLimit(now);
        TellStandstill(now);
        if (presses_.Expired(now)) {
            session_.Notice("not interrupted; the update goes on.");
        }
        for (const std::string& loss : session_.journal.TakeLosses()) {
            session_.screen->Say(loss);
        }
        Report(now);
        session_.screen->Show(Sight(now), now);
    }
    run_.waitStatus = *updater_.Ended();
    // What an updater leaves behind is soon read; what its own children go on sending is not ours.
    for (int reads = 0; reads < kMaxLastReads && ReadAll(); reads++) {
    }
    for (StreamT* stream : {&output_, &error_}) {
        const std::string rest = stream->lines.Rest();
        if (!rest.empty()) {
            PassLine(*stream, rest);
        }
    }
}

SightT Follower::Sight(std::int64_t nowMs) const {
    SightT sight;
    sight.elapsedMs = nowMs - startMs_;
    sight.what = run_.story.What();
    sight.stillMs = warned_ ? nowMs - movedMs_ : 0;
    session_.pace.Fill(nowMs, &sight);
    if (presses_.DueMs() >= 0) {
        const std::int64_t leftMs = presses_.DueMs() - nowMs;
        sight.note = "again within " + std::to_string(leftMs / 1000 + 1) + " s to interrupt";
    }
    return sight;
}

int Follower::WaitMs(std::int64_t nowMs) const {
    std::int64_t until = nowMs + kTickMs;
    for (const std::int64_t due :
         {warnDueMs_, killDueMs_, presses_.DueMs(), session_.screen->DueMs(nowMs)}) {
        if (due >= 0) {
            until = std::min(until, due);
        }
    }
    return static_cast<int>(std::max(until - nowMs, std::int64_t{0}));
}

void Follower::Wait() {
    pollfd ends[] = {{session_.signals.Descriptor(), POLLIN, 0},
                     {session_.place.PipeFd(), POLLIN, 0},
                     {output_.from, POLLIN, 0},
                     {error_.from, POLLIN, 0}};
    poll(ends, 4, WaitMs(NowMs()));
}

void Follower::HandleSignals() {
    for (const int number : session_.signals.Take()) {
        switch (number) {
            case SIGINT:
            case SIGTERM:
            case SIGQUIT:
                Press(number);
                break;
            case SIGTSTP:
                session_.Notice(
                    "not suspended: the updater would soon wait in the middle of a flash.");
                break;
            case SIGWINCH:
                session_.screen->Resized();
                break;
            default:  // SIGCHLD only wakes the loop
                break;
        }
    }
}

void Follower::Press(int number) {
    if (!run_.story.critical && EndSafely(number)) {
        run_.interruptedBy = number;
        session_.Notice("interrupted where nothing is erased.");
        return;
    }
    const PressT press = presses_.Press(NowMs());
    if (press == PressT::kCounts) {
        session_.Notice("passing signal " + std::to_string(number) + " (" + strsignal(number) +
                        ") on to the updater.");
        run_.interruptedBy = number;
        updater_.Signal(number);
    }
    if (press != PressT::kFirst) {
        return;
    }
    session_.Notice("an interrupted flash can leave the unit dead. The update goes on.");
    char text[120];
    snprintf(text, sizeof(text),
             "to interrupt it all the same: again after a moment, within %g seconds.",
             static_cast<double>(options_.confirmMs) / 1000);
    session_.Notice(text);
}

// Ends the updater if nothing is at stake; false when it turned out that something is. It stands
// still while what it has said until then is read: it says that a transfer begins before it begins.
bool Follower::EndSafely(int number) {
    updater_.Stop();
    while (ReadAll()) {
    }
    const bool safe = !run_.story.critical;
    if (safe) {
        updater_.Signal(number);
        killDueMs_ = NowMs() + kKillMs;
    }
    updater_.Signal(SIGCONT);
    return safe;
}

// Reads what is there; false when there was nothing. What the pipe carries stands in the lines too.
bool Follower::ReadAll() {
    std::string digits;
    ReadSome(session_.place.PipeFd(), &digits);
    bool any = !digits.empty();
    for (StreamT* stream : {&output_, &error_}) {
        std::string bytes;
        ReadSome(stream->from, &bytes);
        any = any || !bytes.empty();
        for (const std::string& line : stream->lines.Feed(bytes)) {
            PassLine(*stream, line);
        }
    }
    return any;
}

void Follower::PassLine(const StreamT& stream, const std::string& line) {
    const std::string_view text = std::string_view(line).substr(0, line.find('\n'));
    session_.screen->Pass(stream.to, line);
    session_.journal.Line(stream.name, text);
    if (stream.to == STDOUT_FILENO) {
        const std::int64_t now = NowMs();
        TellStory(&run_.story, text);
        session_.pace.Follow(run_.story, now);
        NoteMovement(now);
    }
}

void Follower::NoteMovement(std::int64_t nowMs) {
    const bool critical = run_.story.critical;
    if (std::exchange(wasCritical_, critical) && !critical) {
        safeSinceMs_ = nowMs;
    }
    if (run_.story.moves == seenMoves_) {
        return;
    }
    seenMoves_ = run_.story.moves;
    if (std::exchange(warned_, false)) {
        session_.Notice("moving again after " + ElapsedText(nowMs - movedMs_) + ".");
    }
    movedMs_ = nowMs;
    if (options_.stallMs > 0) {
        warnDueMs_ = nowMs + options_.stallMs;
    }
}

void Follower::TellStandstill(std::int64_t nowMs) {
    if (warnDueMs_ >= 0 && nowMs >= warnDueMs_) {
        session_.Notice("nothing has moved for " + ElapsedText(nowMs - movedMs_) + " (" +
                        run_.story.What() + "); still waiting.");
        warned_ = true;
        warnDueMs_ = nowMs + options_.stallMs;
    }
    if (run_.story.pipeTrouble && !std::exchange(pipeTroubleTold_, true)) {
        session_.Notice("the updater cannot write its progress; its lines are followed instead.");
    }
}

void Follower::CheckLimit(std::int64_t nowMs) {
    if (run_.story.critical) {
        return;
    }
    if (killDueMs_ >= 0 && nowMs >= killDueMs_) {
        killDueMs_ = -1;
        EndSafely(SIGKILL);
    } else if (killDueMs_ < 0 && options_.giveUpMs > 0 && !run_.gaveUp &&
               nowMs - safeSinceMs_ >= options_.giveUpMs && EndSafely(SIGTERM)) {
        run_.gaveUp = true;
        session_.Notice("given up after " + ElapsedText(nowMs - safeSinceMs_) + ": " +
                        run_.story.What() + ". Nothing is erased there.");
    }
}

void Follower::Report(std::int64_t nowMs) {
    const SightT sight = Sight(nowMs);
    if (run_.story.moves == reportedMoves_ && sight.percent == reportedPercent_ &&
        nowMs - reportedMs_ < kJournalMs) {
        return;
    }
    reportedMs_ = nowMs;
    reportedMoves_ = run_.story.moves;
    reportedPercent_ = sight.percent;
    session_.journal.Progress(sight, session_.pace, run_.story);
}

}  // namespace

std::int64_t NowMs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool Signals::Open() {
    for (const int ignored : {SIGPIPE, SIGHUP, SIGTTIN, SIGTTOU}) {
        signal(ignored, SIG_IGN);
    }
    // Inherited as ignored, it would hide how the updater ended.
    signal(SIGCHLD, SIG_DFL);
    const sigset_t taken = SetOf({SIGINT, SIGTERM, SIGQUIT, SIGTSTP, SIGCHLD, SIGWINCH});
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    fd_ = Fd(signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC));
    return fd_.Get() >= 0;
}

std::vector<int> Signals::Take() {
    std::vector<int> numbers;
    signalfd_siginfo info = {};
    while (read(fd_.Get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        numbers.push_back(static_cast<int>(info.ssi_signo));
    }
    return numbers;
}

void Signals::Release() {
    Take();
    const sigset_t released = SetOf({SIGINT, SIGTERM, SIGQUIT});
    pthread_sigmask(SIG_UNBLOCK, &released, nullptr);
}

PressT Presses::Press(std::int64_t nowMs) {
    const bool apart = nowMs - lastMs_ >= kApartMs;
    lastMs_ = nowMs;
    if (counted_) {
        return PressT::kCounts;
    }
    if (dueMs_ < 0 || nowMs >= dueMs_) {
        dueMs_ = nowMs + windowMs_;
        return PressT::kFirst;
    }
    if (!apart) {
        return PressT::kTooFast;
    }
    counted_ = true;
    dueMs_ = -1;
    return PressT::kCounts;
}

bool Presses::Expired(std::int64_t nowMs) {
    if (dueMs_ < 0 || nowMs < dueMs_) {
        return false;
    }
    dueMs_ = -1;
    return true;
}

std::vector<std::string> LineSplitter::Feed(std::string_view bytes) {
    std::vector<std::string> lines;
    while (!bytes.empty()) {
        const size_t end = bytes.find('\n');
        const bool whole = end != std::string_view::npos;
        const size_t count = whole ? end + 1 : bytes.size();
        partial_.append(bytes.substr(0, count));
        bytes.remove_prefix(count);
        if (whole || partial_.size() >= kMaxLine) {
            lines.push_back(std::exchange(partial_, {}));
        }
    }
    return lines;
}

std::string LineSplitter::Rest() {
    return std::exchange(partial_, {});
}

void SessionT::Notice(const std::string& text) {
    screen->Say(text);
    journal.Notice(text);
}

void Follow(SessionT* session, const RecordT& record, const std::vector<std::string>& words,
            bool asks, RunT* run) {
    *run = RunT();
    run->story.asks = asks;
    Follower follower(session, record, run);
    if (follower.Start(record.plan.program, words)) {
        follower.Serve();
    }
}

}  // namespace watch
