// Bar and lines on the user's descriptors.
#include "tools/kestrelwatch/screen.h"

#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "tools/kestrelwatch/bar.h"

namespace watch {

namespace {

const std::int64_t kFrameMs = 100;
const size_t kMaxAhead = 4096;  // bytes not yet written, beyond which a bar would come too late
const int kPlainStep = 10;      // percent between two plain lines

bool CanMoveCursor() {
    const char* term = getenv("TERM");
    return isatty(STDERR_FILENO) != 0 && term != nullptr && term[0] != '\0' &&
           strcmp(term, "dumb") != 0;
}

// One after the other, where both end up before the same eyes.
bool SameEnd() {
    if (isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0) {
        return true;
    }
    struct stat output = {};
    struct stat error = {};
    return fstat(STDOUT_FILENO, &output) == 0 && fstat(STDERR_FILENO, &error) == 0 &&
           output.st_dev == error.st_dev && output.st_ino == error.st_ino;
}

int TerminalWidth() {
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 80;
}

// In the background the last row belongs to somebody else.
bool InForeground() {
    const pid_t group = tcgetpgrp(STDERR_FILENO);
    return group < 0 || group == getpgrp();
}

std::string PartOf(const std::string& what) {
    return what.substr(0, what.find(" block "));
}

}  // namespace

Screen::Screen(bool plain)
    : bar_(!plain && CanMoveCursor()), shared_(SameEnd()), width_(TerminalWidth()) {
    if (!shared_) {
        output_ = std::make_unique<Outlet>();
    }
}

void Screen::Pass(int fd, const std::string& line) {
    if (fd == STDERR_FILENO || shared_) {
        Clear();
        midLine_ = !line.ends_with('\n');
    }
    For(fd).Post(fd, line);
}

void Screen::Say(const std::string& text) {
    Clear();
    const char* start = std::exchange(midLine_, false) ? "\n" : "";
    error_.Post(STDERR_FILENO, start + ("kestrelwatch: " + text) + "\n");
}

void Screen::Show(const SightT& sight, std::int64_t nowMs) {
    TellLosses();
    if (!bar_) {
        ShowPlain(sight);
        return;
    }
    if (barStands_ && nowMs < DueMs(nowMs)) {
        return;
    }
    drawnMs_ = nowMs;
    if (midLine_ || error_.Waiting() > kMaxAhead || !InForeground()) {
        return;
    }
    if (!barStands_ || RenderBar(sight, width_) != drawn_) {
        Draw(sight);
    }
}

std::int64_t Screen::DueMs(std::int64_t nowMs) const {
    if (!bar_) {
        return -1;
    }
    return drawnMs_ < 0 ? nowMs : drawnMs_ + kFrameMs;
}

void Screen::Resized() {
    Clear();
    width_ = TerminalWidth();
    drawnMs_ = -1;
}

void Screen::Finish(const SightT& sight) {
    if (!bar_) {
        ShowPlain(sight);
        return;
    }
    if (midLine_) {
        error_.Post(STDERR_FILENO, "\n");
        midLine_ = false;
    }
    if (InForeground()) {
        Draw(sight);
        error_.Post(STDERR_FILENO, "\n");
        barStands_ = false;
    }
}

void Screen::Clear() {
    if (std::exchange(barStands_, false)) {
        error_.Post(STDERR_FILENO, "\r\033[K");
    }
}

void Screen::Draw(const SightT& sight) {
    drawn_ = RenderBar(sight, width_);
    error_.Post(STDERR_FILENO, "\r" + drawn_ + "\033[K");
    barStands_ = true;
}

void Screen::ShowPlain(const SightT& sight) {
    const std::string part = PartOf(sight.what);
    const bool step = sight.percent / kPlainStep != plainPercent_ / kPlainStep;
    if (part != plainPart_ || plainPercent_ < 0 || step) {
        plainPart_ = part;
        plainPercent_ = sight.percent;
        Say(RenderPlain(sight));
    }
}

void Screen::TellLosses() {
    const size_t dropped = error_.TakeDropped() + (output_ ? output_->TakeDropped() : 0);
    if (dropped > 0) {
        Say(std::to_string(dropped) +
            " bytes of output were left out while the output stood still.");
    }
    const int lost = For(STDOUT_FILENO).Lost(STDOUT_FILENO);
    if (lost != 0 && !std::exchange(outputLossTold_, true)) {
        Say(std::string("standard output is gone (") + strerror(lost) + "); the update goes on.");
    }
}

}  // namespace watch
