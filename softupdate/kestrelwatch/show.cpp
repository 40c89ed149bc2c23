// Bar and lines on the user's descriptors.
#include "softupdate/kestrelwatch/show.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "softupdate/kestrelwatch/verdict.h"

namespace watch {

namespace {

const std::int64_t kFrameMs = 100;
const size_t kMaxAhead = 4096;  // bytes not yet written, beyond which a bar would come too late
const int kPlainStep = 10;      // percent between two plain lines

// The bar is drawn without wrapping, and the cursor waits at its start: a terminal that is narrowed
// may break the bar over several rows, all of which are then behind the cursor.
const char kBarStart[] = "\r\033[?7l";
const char kBarEnd[] = "\033[J\033[?7h\r";
const char kBarWipe[] = "\r\033[J";

const size_t kMinBar = 10;
const size_t kMaxBar = 40;

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

std::string PercentText(int percent) {
    char text[16];
    snprintf(text, sizeof(text), "%3d %%", percent);
    return text;
}

std::string RateText(int rate) {
    char text[24];
    snprintf(text, sizeof(text), "%.1f KB/s", rate / 1000.0);
    return text;
}

std::string What(const SightT& sight) {
    return sight.stillMs > 0 ? "still for " + ElapsedText(sight.stillMs) + ", " + sight.what
                             : sight.what;
}

// '=' for what is acknowledged, '-' for what is on its way.
std::string Gauge(const SightT& sight, size_t width) {
    const size_t inner = width - 2;
    const size_t full = std::min(inner, inner * static_cast<size_t>(sight.percent) / 100);
    const size_t flying =
        std::min(inner - full, static_cast<size_t>(static_cast<double>(inner) * sight.inFlight));
    std::string gauge = "[" + std::string(full, '=') + std::string(flying, '-') +
                        std::string(inner - full - flying, ' ') + "]";
    if (full > 0 && full < inner) {
        gauge[full] = '>';
    }
    return gauge;
}

std::string Clock(const SightT& sight) {
    return ElapsedText(sight.elapsedMs) +
           (sight.leftMs >= 0 ? ", " + ElapsedText(sight.leftMs + 500) + " left" : "");
}

}  // namespace

std::string RenderBar(const SightT& sight, int width) {
    const size_t room = width > 1 ? static_cast<size_t>(width) - 1 : 0;
    std::string line = PercentText(sight.percent);
    const auto append = [&](const std::string& text, size_t more) {
        if (line.size() + text.size() + more <= room) {
            line += text;
        }
    };
    const size_t bar = std::clamp(static_cast<size_t>(std::max(width, 0)) / 4, kMinBar, kMaxBar);
    append("  " + (sight.note.empty() ? Clock(sight) : ElapsedText(sight.elapsedMs)), 0);
    if (line.size() + 1 + bar <= room) {
        line = Gauge(sight, bar) + " " + line;
    }
    const std::string what = "  " + (sight.note.empty() ? What(sight) : sight.note);
    if (sight.rate > 0 && sight.note.empty()) {
        append("  " + RateText(sight.rate), what.size());
    }
    if (line.size() + what.size() <= room) {
        return line + what;
    }
    const std::string dots = "...";
    const size_t least = 10;  // columns of text that are worth showing
    if (line.size() + least + dots.size() <= room) {
        return line + what.substr(0, room - line.size() - dots.size()) + dots;
    }
    return line.substr(0, room);
}

std::string RenderPlain(const SightT& sight) {
    return PercentText(sight.percent) + "  " + Clock(sight) + "  " +
           (sight.rate > 0 ? RateText(sight.rate) + "  " : "") + What(sight);
}

Screen::Screen(bool plain) : bar_(!plain && CanMoveCursor()), shared_(SameEnd()) {
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
    if (!barStands_ || RenderBar(sight, TerminalWidth()) != drawn_) {
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
        error_.Post(STDERR_FILENO, kBarWipe);
    }
}

void Screen::Draw(const SightT& sight) {
    drawn_ = RenderBar(sight, TerminalWidth());
    error_.Post(STDERR_FILENO, kBarStart + drawn_ + kBarEnd);
    barStands_ = true;
}

void Screen::ShowPlain(const SightT& sight) {
    const std::string part = PartOf(sight.what);
    const bool step = sight.percent / kPlainStep != plainPercent_ / kPlainStep;
    if (part != plainPart_ || step) {
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
