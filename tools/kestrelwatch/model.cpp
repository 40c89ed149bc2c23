// Movement, warnings and the judgement at the end.
#include "tools/kestrelwatch/model.h"

#include <string.h>
#include <sys/wait.h>

#include <utility>

#include "tools/kestrelwatch/bar.h"
#include "tools/kestrelwatch/statuses.h"

namespace watch {

ProgressModel::ProgressModel(RangeT range, std::int64_t stallMs, std::int64_t startMs)
    : range_(range),
      positions_(range),
      stallMs_(stallMs),
      startMs_(startMs),
      movedMs_(startMs),
      warnDueMs_(stallMs > 0 ? startMs + stallMs : -1) {}

void ProgressModel::Pipe(std::string_view bytes, std::int64_t nowMs) {
    positions_.Feed(bytes, nowMs);
}

void ProgressModel::Line(std::string_view line, std::int64_t nowMs) {
    if (const auto position = story_.Read(line)) {
        positions_.Confirm(*position);
    }
    NoteMovement(nowMs);
}

void ProgressModel::Tick(std::int64_t nowMs) {
    positions_.Settle(nowMs);
    NoteMovement(nowMs);
}

void ProgressModel::NoteMovement(std::int64_t nowMs) {
    if (positions_.Position() == seenPosition_ && story_.Moves() == seenMoves_) {
        return;
    }
    seenPosition_ = positions_.Position();
    seenMoves_ = story_.Moves();
    if (std::exchange(warned_, false)) {
        stoodMs_ = nowMs - movedMs_;
    }
    movedMs_ = nowMs;
    if (stallMs_ > 0) {
        warnDueMs_ = nowMs + stallMs_;
    }
}

std::int64_t ProgressModel::DueMs() const {
    const std::int64_t settle = positions_.SettleDueMs();
    return settle < 0 || (warnDueMs_ >= 0 && warnDueMs_ < settle) ? warnDueMs_ : settle;
}

std::vector<std::string> ProgressModel::Notices(std::int64_t nowMs) {
    std::vector<std::string> notices;
    if (stoodMs_ > 0) {
        notices.push_back("moving again after " + ElapsedText(stoodMs_) + ".");
        stoodMs_ = 0;
    }
    if (warnDueMs_ >= 0 && nowMs >= warnDueMs_) {
        notices.push_back("nothing has moved for " + ElapsedText(nowMs - movedMs_) + " (" +
                          story_.What() + "); still waiting.");
        warned_ = true;
        warnDueMs_ = nowMs + stallMs_;
    }
    if (story_.PipeTrouble() && !std::exchange(pipeTroubleTold_, true)) {
        notices.emplace_back(
            "the updater cannot write the pipe; its printed positions are followed instead.");
    }
    return notices;
}

SightT ProgressModel::Sight(std::int64_t nowMs) const {
    return {positions_.Percent(), nowMs - startMs_, warned_ ? nowMs - movedMs_ : 0, story_.What(),
            ""};
}

std::string ProgressModel::Reached() const {
    if (!positions_.Any()) {
        return "no position reported";
    }
    return "position " + std::to_string(positions_.Position()) + " of " +
           std::to_string(range_.low) + " to " + std::to_string(range_.high);
}

// Why a success is none; empty when nothing speaks against it.
std::string ProgressModel::Doubt() const {
    if (story_.Run() == RunT::kNothingToDo || story_.Run() == RunT::kUpdateDue) {
        return "";
    }
    if (!story_.Doubt().empty()) {
        return story_.Doubt();
    }
    // A reboot leaves the microcontroller's image uncounted, so its end is never reached.
    if (positions_.AtEnd() || story_.Run() == RunT::kReboot) {
        return "";
    }
    return story_.NoProgress().empty() ? "the end of the range was not reached"
                                       : story_.NoProgress();
}

void ProgressModel::AddTrouble(EndingT* ending) const {
    if (!story_.Trouble().empty()) {
        ending->lines.push_back("the updater said: " + story_.Trouble());
    }
}

EndingT ProgressModel::End(int waitStatus, bool strict, std::int64_t nowMs) {
    if (positions_.SettleDueMs() >= 0) {
        Tick(positions_.SettleDueMs());
    }
    const std::string after = " after " + ElapsedText(nowMs - startMs_);
    const std::string where = " (" + Reached() + "; last: " + story_.What() + ").";
    EndingT ending;
    if (WIFSIGNALED(waitStatus)) {
        const int number = WTERMSIG(waitStatus);
        ending.status = kStatusSignalBase + number;
        ending.lines.push_back("the updater was ended by signal " + std::to_string(number) + " (" +
                               strsignal(number) + ")" + after + where);
        return ending;
    }
    ending.status = WEXITSTATUS(waitStatus);
    if (ending.status == 1 && story_.Run() == RunT::kUpdateDue) {
        ending.lines.push_back("query done" + after + ": an update is required.");
    } else if (ending.status != 0) {
        ending.lines.push_back("the updater failed with status " + std::to_string(ending.status) +
                               after + where);
        AddTrouble(&ending);
    } else if (const std::string doubt = Doubt(); !doubt.empty()) {
        ending.lines.push_back("the updater reports success" + after + ", but " + doubt + where);
        AddTrouble(&ending);
        ending.lines.emplace_back(
            "do not trust the update before a query finds nothing left to update.");
        ending.status = strict ? kStatusDoubtful : 0;
    } else if (story_.Run() == RunT::kNothingToDo) {
        ending.lines.push_back("query done" + after + ": no update is required.");
        AddTrouble(&ending);
    } else {
        ending.lines.push_back("done" + after + ".");
    }
    return ending;
}

}  // namespace watch
