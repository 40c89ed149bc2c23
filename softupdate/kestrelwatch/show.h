// What the user sees: the updater's lines passed through, kestrelwatch's own lines, and the bar
// kept under them. The updater's standard output goes to ours and its standard error to ours; our
// own lines and the bar go to standard error. Nothing here blocks. One thread calls it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "softupdate/kestrelwatch/outlet.h"
#include "softupdate/kestrelwatch/pace.h"

namespace watch {

// The bar, always shorter than `width` columns. What does not fit is left out or cut: first the
// text, then the rate, the bar and the time; the percentage stays longest. Plain ASCII.
std::string RenderBar(const SightT& sight, int width);

// One line of a log, without its line end.
std::string RenderPlain(const SightT& sight);

class Screen {
  public:
    // A bar needs a terminal on standard error that can move its cursor; otherwise, or with
    // `plain`, progress comes as lines.
    explicit Screen(bool plain);

    // One line of the updater, as it came; `fd` is 1 or 2. The rest of an unfinished last line is
    // passed without a line end where the bar cannot touch it.
    void Pass(int fd, const std::string& line);

    // One line of our own, without prefix and line end.
    void Say(const std::string& text);

    // Brings the bar up to date, or prints a plain line when the sight has changed enough. A bar
    // is drawn at most ten times a second, at once after lines that pushed it away, and not at all
    // while the terminal is far behind.
    void Show(const SightT& sight, std::int64_t nowMs);

    // When the bar wants to be drawn again; -1: no bar is due.
    std::int64_t DueMs(std::int64_t nowMs) const;

    // The terminal's width has changed.
    void Resized();

    // Leaves the bar standing as the last thing above what follows, or prints the last plain line.
    void Finish(const SightT& sight);

  private:
    Outlet& For(int fd) { return fd == 1 && output_ ? *output_ : error_; }
    void Clear();
    void Draw(const SightT& sight);
    void ShowPlain(const SightT& sight);
    void TellLosses();

    Outlet error_;
    std::unique_ptr<Outlet> output_;  // null: standard output goes the same way as standard error
    bool bar_;
    bool shared_;
    bool barStands_ = false;
    bool midLine_ = false;
    bool outputLossTold_ = false;
    std::string drawn_;
    std::int64_t drawnMs_ = -1;
    std::string plainPart_;
    int plainPercent_ = -1;
};

}  // namespace watch
